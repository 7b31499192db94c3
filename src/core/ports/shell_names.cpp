#include "core/ports/shell_names.h"

#include <algorithm>

namespace wharfy {

std::string lowercase(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

std::string normalizedProgramName(std::string_view name) {
    if (name.starts_with('-')) name.remove_prefix(1);
    if (auto colon = name.find(':'); colon != std::string_view::npos) name = name.substr(0, colon);
    return lowercase(name);
}

const std::vector<std::string>& shellNames() {
    static const std::vector<std::string> names{"sh",  "bash", "zsh",   "fish",  "dash",
                                                "ksh", "mksh", "yash",  "rbash", "tcsh",
                                                "csh", "nu",   "xonsh", "pwsh",  "elvish"};
    return names;
}

bool isShellName(std::string_view normalizedName) {
    const auto& names = shellNames();
    return std::find(names.begin(), names.end(), normalizedName) != names.end();
}

bool isCommandWrapper(const std::vector<std::string>& commandLine) {
    if (commandLine.size() < 2) return false;
    for (size_t i = 1; i < commandLine.size(); ++i) {
        const std::string& a = commandLine[i];
        if (!a.starts_with('-')) return true;  // a script
        // An option cluster such as -c, -lc or -xec.
        bool lettersOnly = a.size() > 1 && std::all_of(a.begin() + 1, a.end(), [](char c) {
                               return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
                           });
        if (lettersOnly && a.find('c', 1) != std::string::npos) return true;
    }
    return false;
}

}  // namespace wharfy
