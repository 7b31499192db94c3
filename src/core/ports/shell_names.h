#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace wharfy {

/// `text` in ASCII lower case.
std::string lowercase(std::string_view text);

/// Program names compared the way shells and login processes show them:
/// lower-cased, one leading "-" removed, cut at the first ":".
std::string normalizedProgramName(std::string_view name);

/// Whether a (normalised) name is an interactive shell's.
bool isShellName(std::string_view normalizedName);

/// The shells Wharfy recognises, in a fixed order.
const std::vector<std::string>& shellNames();

/// A shell that runs a command for someone else: its command line has at
/// least two elements and, after the first, an option cluster containing "c"
/// or an argument that is not an option (a script). A shell with only
/// options is interactive.
bool isCommandWrapper(const std::vector<std::string>& commandLine);

}  // namespace wharfy
