#include "app/command_line.h"

#include <algorithm>
#include <array>

namespace wharfy::app {
namespace {

constexpr std::array kOptions{
    KnownOption{"--ports-json", "", "print the listening ports as JSON and exit"},
    KnownOption{"--containers-json", "", "print the container runtimes as JSON and exit"},
    KnownOption{"--agents-json", "", "print the coding-agent sessions as JSON and exit"},
    KnownOption{"--history-json", "", "print the last seven days of history as JSON and exit"},
    KnownOption{"--suite-json", "",
               "print the suite of apps as its folder shows it, as JSON, and exit"},
    KnownOption{"--export", "PATH",
               "write what is running now to PATH: Markdown, or JSON for a .json name; - for "
               "standard output"},
    KnownOption{"--background", "",
               "keep watching in the background: history, desktop notifications (the systemd "
               "user unit runs this)"},
    KnownOption{"--once", "", "print the report once and exit, even on a terminal"},
    KnownOption{"--open", "TAB",
               "open the interface on a tab: ports, containers, agents, history or settings"},
    KnownOption{"--confirm-stop-port", "PORT",
               "once the ports are read, show the stop confirmation of the listener on PORT"},
    KnownOption{"--snapshot", "PATH",
               "write the window as plain text to PATH once the runtimes are read"},
    KnownOption{"--snapshot-popover", "PATH", "write the compact 60x20 summary to PATH"},
    KnownOption{"--snapshot-suite-popover", "PATH", "write the suite's rows to PATH"},
    KnownOption{"--snapshot-size", "COLSxROWS",
               "the window snapshot's size (default: the terminal's, else 120x40)"},
    KnownOption{"--snapshot-delay", "SECONDS", "wait this long before taking the snapshots"},
    KnownOption{"--quit-after-snapshot", "", "exit once the snapshots are written"},
    KnownOption{"--quit-after", "SECONDS", "exit after this many seconds (timed runs)"},
    KnownOption{"--diagnostics", "PATH",
               "at exit, write timing, CPU and memory figures of the run as JSON to PATH"},
    KnownOption{"--suite-folder", "DIR",
               "use DIR, inside the temporary folder, as the suite folder (for tests)"},
    KnownOption{"--help", "", "show this help and exit", "-h"},
    KnownOption{"--version", "", "print the version and exit"},
};

const KnownOption* find(std::string_view name) {
    auto it = std::find_if(kOptions.begin(), kOptions.end(), [&](const KnownOption& o) {
        return o.name == name || (!o.alias.empty() && o.alias == name);
    });
    return it == kOptions.end() ? nullptr : &*it;
}

}  // namespace

std::span<const KnownOption> knownOptions() {
    return kOptions;
}

std::optional<std::string> usageProblem(const std::vector<std::string>& arguments) {
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& a = arguments[i];
        const KnownOption* option = find(a);
        if (!option) {
            if (a.starts_with("-")) return "unknown option '" + a + "'";
            return "unexpected argument '" + a + "'";
        }
        if (!option->value.empty()) {
            if (i + 1 == arguments.size()) return "option '" + a + "' needs a value";
            ++i;
        }
    }
    return std::nullopt;
}

std::optional<std::string> valueAfter(std::string_view option,
                                      const std::vector<std::string>& arguments) {
    auto it = std::find(arguments.begin(), arguments.end(), option);
    if (it == arguments.end() || it + 1 == arguments.end()) return std::nullopt;
    return *(it + 1);
}

bool hasOption(std::string_view option, const std::vector<std::string>& arguments) {
    return std::find(arguments.begin(), arguments.end(), option) != arguments.end();
}

std::string usageText() {
    std::string out =
        "Usage: wharfy [OPTION]...\n"
        "Shows what listens on TCP ports, what the container runtimes are doing and\n"
        "which coding-agent sessions run on this computer.\n"
        "\n"
        "On a terminal, wharfy opens a full-screen interface where a listener, a\n"
        "session or a container can be stopped (one SIGTERM, after you confirm) and\n"
        "a runtime cleaned up with a preview. Elsewhere (a pipe, a file, TERM=dumb)\n"
        "or with --once, it prints all three as tables and exits.\n"
        "\n"
        "Options:\n";
    for (const auto& o : kOptions) {
        std::string left = o.alias.empty() ? "  " : "  " + std::string(o.alias) + ", ";
        left += o.name;
        if (!o.value.empty()) left += " " + std::string(o.value);
        left.resize(std::max<size_t>(left.size() + 2, 26), ' ');
        out += left + std::string(o.help) + "\n";
    }
    out +=
        "\n"
        "Headless commands print JSON with sorted keys and always exit with status 0.\n"
        "Wharfy never stops or removes anything without the interface's confirmation.\n"
        "\n"
        "From a source checkout:\n"
        "  make run     installs what is missing, builds and runs wharfy\n"
        "  make test    installs what is missing, builds and runs every test\n";
    return out;
}

std::string versionText() {
    return std::string("wharfy ") + WHARFY_VERSION + "\n";
}

}  // namespace wharfy::app
