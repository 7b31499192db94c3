#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace wharfy::app {

/// One option wharfy accepts.
struct KnownOption {
    std::string_view name;
    /// The word --help shows for its value; empty for a flag.
    std::string_view value;
    std::string_view help;
    /// A short form, such as "-h"; empty when there is none.
    std::string_view alias = {};
};

/// Every option this build accepts, in the order --help lists them.
std::span<const KnownOption> knownOptions();

/// What is wrong with a command line, as one line for standard error; absent
/// when every argument is a known option or the value of one.
std::optional<std::string> usageProblem(const std::vector<std::string>& arguments);

/// The argument after the first occurrence of `option`; absent when the
/// option is missing or is the last argument.
std::optional<std::string> valueAfter(std::string_view option,
                                      const std::vector<std::string>& arguments);

/// Whether `option` occurs anywhere.
bool hasOption(std::string_view option, const std::vector<std::string>& arguments);

/// The text of `wharfy --help`.
std::string usageText();

/// "wharfy VERSION".
std::string versionText();

}  // namespace wharfy::app
