#include <gtest/gtest.h>

#include "app/launch_options.h"

namespace wharfy::app {
namespace {

using Args = std::vector<std::string>;

TEST(LaunchOptions, ValuedOptionsTakeTheArgumentAfterTheirFirstOccurrence) {
    struct Case {
        Args args;
        std::optional<Tab> tab;
        bool settings;
        std::optional<uint16_t> port;
        std::optional<double> delay;
    };
    const Case cases[] = {
        {{"--open", "history"}, Tab::history, false, {}, {}},
        {{"--open", "settings"}, {}, true, {}, {}},
        {{"--open", "window"}, {}, false, {}, {}},
        {{"--open"}, {}, false, {}, {}},  // value missing: ignored
        {{"--open", "agents", "--open", "ports"}, Tab::agents, false, {}, {}},
        {{"--confirm-stop-port", "+8080"}, {}, false, 8080, {}},
        {{"--confirm-stop-port", "65535"}, {}, false, 65535, {}},
        {{"--confirm-stop-port", "70000"}, {}, false, {}, {}},
        {{"--confirm-stop-port", "-1"}, {}, false, {}, {}},
        {{"--confirm-stop-port", ""}, {}, false, {}, {}},
        {{"--confirm-stop-port", "80a"}, {}, false, {}, {}},
        {{"--snapshot-delay", "1.5"}, {}, false, {}, 1.5},
        {{"--snapshot-delay", "2s"}, {}, false, {}, {}},
    };
    for (const auto& c : cases) {
        const LaunchOptions o(c.args);
        const std::string what = c.args.size() > 1 ? c.args[0] + " " + c.args[1] : c.args[0];
        EXPECT_EQ(o.openTab, c.tab) << what;
        EXPECT_EQ(o.openSettings, c.settings) << what;
        EXPECT_EQ(o.confirmStopPort, c.port) << what;
        EXPECT_EQ(o.snapshotDelay, c.delay) << what;
    }
}

TEST(LaunchOptions, PathsFlagsAndTimedRuns) {
    const LaunchOptions o({"--snapshot", "w.txt", "--quit-after", "600", "--diagnostics", "d.json",
                           "--snapshot-popover", "p.txt", "--snapshot-suite-popover", "s.txt",
                           "--quit-after-snapshot"});
    EXPECT_EQ(o.snapshotPath, "w.txt");
    EXPECT_EQ(o.popoverSnapshotPath, "p.txt");
    EXPECT_EQ(o.suiteSnapshotPath, "s.txt");
    EXPECT_EQ(o.diagnosticsPath, "d.json");
    EXPECT_EQ(o.quitAfter, 600.0);
    EXPECT_TRUE(o.quitAfterSnapshot);
    EXPECT_FALSE(o.qaUnseenAlerts || o.qaRunawayMemoryMB || o.dumpCountsPath);
    EXPECT_EQ(LaunchOptions(Args{}), LaunchOptions());
}

}  // namespace
}  // namespace wharfy::app
