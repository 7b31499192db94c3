// The one-shot report's text: tables that fit a terminal, the ports table's
// cells, and the command line.
#include <gtest/gtest.h>

#include <sstream>

#include "app/command_line.h"
#include "app/ports_command.h"
#include "app/terminal_text.h"

namespace wharfy::app {
namespace {

size_t longestLine(const std::string& text) {
    std::istringstream in(text);
    size_t longest = 0;
    for (std::string line; std::getline(in, line);) {
        size_t points = 0;
        for (unsigned char c : line)
            points += (c & 0xC0) != 0x80;
        longest = std::max(longest, points);
    }
    return longest;
}

TEST(TextTable, FitsTheWidthByCuttingOnlyShrinkableColumns) {
    TextTable table({"PORT", "KIND", "NAME"});
    table.shrinkable(1, 6);
    table.add({"5432", "container postgres-main (docker.io/library/postgres:16), Podman", "pg"});
    table.addNote("stop with: sudo systemctl stop postgresql@15-main.service");
    const std::string whole = table.render();
    EXPECT_NE(whole.find("postgres:16), Podman"), std::string::npos) << "cut without a width";
    EXPECT_NE(whole.find("postgresql@15-main.service"), std::string::npos);
    for (size_t width : {60u, 40u, 24u}) {
        const std::string fitted = table.render("  ", width);
        EXPECT_LE(longestLine(fitted), width) << fitted;
        EXPECT_NE(fitted.find("\xE2\x80\xA6"), std::string::npos) << fitted;
        EXPECT_NE(fitted.find("5432"), std::string::npos);
        EXPECT_NE(fitted.find("pg"), std::string::npos) << "a fixed column was cut";
    }
    // Below the columns' minimum the table overflows rather than lose them.
    EXPECT_NE(table.render("", 5).find("5432  conta\xE2\x80\xA6  pg"), std::string::npos);
}

TEST(TextTable, FitWidthCutsByCodePoints) {
    EXPECT_EQ(fitWidth("abc", 3), "abc");
    EXPECT_EQ(fitWidth("abcd", 3), "ab\xE2\x80\xA6");
    EXPECT_EQ(fitWidth("\xC3\xA9\xC3\xA9\xC3\xA9", 2), "\xC3\xA9\xE2\x80\xA6");
    EXPECT_EQ(fitWidth("abc", 0), "");
}

TEST(PortsText, ServiceStopCommandOnItsOwnLineProjectsAndHiddenOwners) {
    PortRow service;
    service.port = 80;
    service.pid = 700;
    service.processName = "nginx";
    service.role.value = ListenerRole::BackgroundService{"system/nginx.service",
                                                         "sudo systemctl stop nginx.service", true};
    service.project = ProjectInfo{"~/src/site", true};
    PortRow hidden;
    hidden.port = 631;
    hidden.processName = "(root)";
    hidden.role.value = ListenerRole::OtherUser{};
    PortRow scratch;
    scratch.port = 8000;
    scratch.pid = 9;
    scratch.processName = "python3";
    scratch.isOwnedByUser = true;
    scratch.project = ProjectInfo{"~/scratch", false};

    const std::string text = portsText({service, hidden, scratch}, std::nullopt, false);
    EXPECT_NE(text.find("site (git)"), std::string::npos) << text;
    EXPECT_NE(text.find("~/scratch"), std::string::npos) << text;
    EXPECT_NE(text.find("\n      stop with: sudo systemctl stop nginx.service\n"),
              std::string::npos)
        << text;
    const std::string hint = "Ports of other users show no process; run with sudo to see them.\n";
    EXPECT_TRUE(text.ends_with(hint)) << text;
    EXPECT_EQ(portsText({service, hidden}, std::nullopt, true).find(hint), std::string::npos);
    EXPECT_EQ(portsText({service, scratch}, std::nullopt, false).find(hint), std::string::npos);
}

TEST(CommandLine, UnknownOptionsAndMissingValuesAreUsageErrors) {
    using Args = std::vector<std::string>;
    const std::pair<Args, std::optional<std::string>> cases[] = {
        {{}, std::nullopt},
        {{"--ports-json", "--containers-json"}, std::nullopt},
        {{"-h"}, std::nullopt},
        {{"--port-json"}, "unknown option '--port-json'"},
        {{"--ports-json", "extra"}, "unexpected argument 'extra'"},
        {{"-x"}, "unknown option '-x'"},
    };
    for (const auto& [args, problem] : cases)
        EXPECT_EQ(usageProblem(args), problem) << (args.empty() ? "" : args[0]);
    EXPECT_EQ(valueAfter("--x", {"a", "--x", "v", "--x", "w"}), "v");
    EXPECT_EQ(valueAfter("--x", {"a", "--x"}), std::nullopt);
    // Every option --help lists is one the parser accepts.
    for (const auto& option : knownOptions()) {
        EXPECT_NE(usageText().find(std::string(option.name)), std::string::npos);
        Args args{std::string(option.name)};
        if (!option.value.empty()) args.push_back("value");
        EXPECT_EQ(usageProblem(args), std::nullopt) << option.name;
    }
}

}  // namespace
}  // namespace wharfy::app
