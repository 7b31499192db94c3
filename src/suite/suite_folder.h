#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/result.h"

namespace nemarro::suite {

/// A file operation in the suite folder that failed, with the system's error number.
struct SuiteFileError {
    /// What was attempted, as in "create the folder" or "write".
    std::string action;
    std::string path;
    int error = 0;

    bool operator==(const SuiteFileError&) const = default;
    /// "Could not create the folder /p: Permission denied."
    std::string message() const;
};

/// What decides where this process finds the suite folder.
struct SuiteLocationFacts {
    /// The home folder of the real user's password-database entry.
    std::optional<std::string> passwordHome;
    /// The HOME variable, used only when the entry has no usable home.
    std::optional<std::string> homeVariable;
    /// Running inside a Flatpak or Snap sandbox.
    bool sandboxed = false;

    bool operator==(const SuiteLocationFacts&) const = default;
};

/// The folder in which the suite's apps meet. Holds one standardized absolute path.
struct SuiteFolder {
    std::string path;

    bool operator==(const SuiteFolder&) const = default;

    /// The folder at `path` made absolute-and-tidy: "." and ".." resolved by
    /// text, repeated and trailing slashes dropped. Links are not resolved.
    static SuiteFolder at(const std::string& path);

    /// Where the real suite folder lies, below a home folder.
    static constexpr const char* kRelativeLocation = ".local/share/nemarro/suite";

    /// The folders in which this process can take part: the real user's home
    /// joined with kRelativeLocation, or none when sandboxed or homeless. The
    /// data-home variable is deliberately not used: a sandbox points it at a
    /// private folder that the other apps never see.
    static std::vector<SuiteFolder> reachable(const SuiteLocationFacts& facts);
    /// The same from the live password database and environment.
    static std::vector<SuiteFolder> reachable();
    /// Whether the environment marks a Flatpak (FLATPAK_ID) or Snap (SNAP_NAME) sandbox.
    static bool isSandboxed(const std::function<bool(const char* name)>& hasVariable);
    /// This process's facts, read from the password database and the environment.
    static SuiteLocationFacts liveFacts();

    /// Creates the folder and its glances/ subfolder (and any missing parents)
    /// with mode 0700. An existing folder is fine.
    wharfy::Result<wharfy::Ok, SuiteFileError> prepare() const;

    std::string glancesPath() const { return path + "/glances"; }
    std::string hostLockPath() const { return path + "/host.lock"; }
    std::string settingsPath() const { return path + "/settings.json"; }
};

}  // namespace nemarro::suite

template <>
struct std::hash<nemarro::suite::SuiteFolder> {
    size_t operator()(const nemarro::suite::SuiteFolder& folder) const noexcept {
        return std::hash<std::string>{}(folder.path);
    }
};
