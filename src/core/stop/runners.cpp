#include "core/stop/runners.h"

#include <algorithm>
#include <cctype>

#include "core/stop/protected.h"

namespace wharfy {

using nemarro::process::ProcessRef;

namespace {

std::string lastComponent(std::string_view path) {
    auto slash = path.rfind('/');
    return lowercase(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

template <size_t N>
bool contains(const std::array<std::string_view, N>& set, std::string_view s) {
    return std::find(set.begin(), set.end(), s) != set.end();
}

}  // namespace

bool Runners::isRunner(const ProcessRef& ref) {
    if (contains(names, lowercase(ref.name))) return true;
    if (ref.path && contains(names, lastComponent(*ref.path))) return true;
    for (const auto& arg : ref.commandLine) {
        if (contains(scripts, lastComponent(arg))) return true;
    }
    return matchesPattern(ref.commandLine);
}

// The first word names a program, so it matches an argument by its last path
// component ("node_modules/.bin/next", "/usr/bin/flask", "python -m flask");
// the second is a subcommand or option and must be a whole later argument.
// The two need not be adjacent: "uvicorn app:main --reload" and
// "flask --app site run" are common.
bool Runners::matchesPattern(const std::vector<std::string>& commandLine) {
    for (const auto& pattern : patterns) {
        std::string_view program = pattern.first, word = pattern.second;
        for (size_t i = 0; i < commandLine.size(); ++i) {
            if (lastComponent(commandLine[i]) != program) continue;
            bool found = std::any_of(commandLine.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                     commandLine.end(),
                                     [&](const std::string& a) { return lowercase(a) == word; });
            if (found) return true;
        }
    }
    return false;
}

bool Runners::isCommandWrapper(std::string_view name, const std::vector<std::string>& commandLine) {
    return wharfy::isCommandWrapper(name, commandLine);
}

}  // namespace wharfy
