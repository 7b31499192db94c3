#include "suite/suite_folder.h"

#include <filesystem>
#include <system_error>

namespace nemarro::suite {

std::string SuiteFileError::message() const {
    std::string text = "Could not " + action + " " + path;
    if (error != 0) text += ": " + std::generic_category().message(error);
    return text + ".";
}

SuiteFolder SuiteFolder::at(const std::string& path) {
    std::string tidy = std::filesystem::path(path).lexically_normal().string();
    while (tidy.size() > 1 && tidy.back() == '/')
        tidy.pop_back();
    return SuiteFolder{tidy};
}

std::vector<SuiteFolder> SuiteFolder::reachable(const SuiteLocationFacts& facts) {
    if (facts.sandboxed) return {};
    const auto usable = [](const std::optional<std::string>& home) {
        return home && !home->empty() && home->front() == '/';
    };
    const std::optional<std::string>& home =
        usable(facts.passwordHome) ? facts.passwordHome : facts.homeVariable;
    if (!usable(home)) return {};
    return {at(*home + "/" + kRelativeLocation)};
}

bool SuiteFolder::isSandboxed(const std::function<bool(const char* name)>& hasVariable) {
    return hasVariable("FLATPAK_ID") || hasVariable("SNAP_NAME");
}

std::vector<SuiteFolder> SuiteFolder::reachable() {
    return reachable(liveFacts());
}

}  // namespace nemarro::suite
