// The views against the screen model: layout at several widths, escaping,
// the confirmation's words, the clean-up previews and the kept selection.
#include <gtest/gtest.h>

#include "app/tui/text_width.h"
#include "app/tui/views.h"
#include "samples.h"

namespace wharfy::app::tui {
namespace {

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

/// The screen row holding `part`, or -1.
int rowOf(const Screen& s, std::string_view part) {
    for (int y = 0; y < s.rows(); ++y)
        if (contains(s.line(y), part)) return y;
    return -1;
}

TEST(Views, PortsFitEveryWidthAndHideColumnsAt100And80) {
    ViewData data = samples::data();
    data.ports[1].processName = "a-very-long-process-name-that-cannot-fit-anywhere-at-all";
    struct Case {
        int cols;
        bool cpu, memory, kind;
    } cases[] = {{200, true, true, true}, {120, true, true, true},   {99, false, true, true},
                 {80, false, true, true}, {79, false, false, false}, {60, false, false, false}};
    for (const auto& c : cases) {
        const Screen s = renderWindow(data, UiState{}, c.cols, 24).screen;
        const int header = rowOf(s, "PORT");
        ASSERT_GE(header, 0) << c.cols;
        const std::string head = s.line(header);
        EXPECT_EQ(contains(head, "CPU"), c.cpu) << c.cols;
        EXPECT_EQ(contains(head, "MEMORY"), c.memory) << c.cols;
        EXPECT_EQ(contains(head, "KIND"), c.kind) << c.cols;
        EXPECT_TRUE(contains(head, "REACHABLE FROM")) << c.cols;
        EXPECT_TRUE(contains(s.text(), "node (812)")) << c.cols;
        EXPECT_TRUE(contains(s.text(), "5 Settings")) << c.cols;
        // Columns stay aligned: every row starts its reach under the header.
        const int reachColumn = displayWidth(head.substr(0, head.find("REACHABLE")));
        for (int y = header + 1; y <= header + 2; ++y) {
            const std::string line = s.line(y);
            const auto at = line.find(y == header + 1 ? "All networks" : "This computer");
            ASSERT_NE(at, std::string::npos) << c.cols << ": " << line;
            EXPECT_EQ(displayWidth(line.substr(0, at)), reachColumn) << c.cols;
        }
        EXPECT_TRUE(contains(s.text(), "…")) << c.cols << " cuts the long name";
    }
}

TEST(Views, HostileMachineTextIsEscapedAndNeverBreaksTheGrid) {
    ViewData data = samples::data();
    data.ports[0].processName = "evil\x1b[2J\x1b]0;pwned\x07\nname\xE2\x80\xAE";
    data.ports[0].commandLine = std::vector<std::string>{"rm\r",
                                                         "\x9b"
                                                         "31m",
                                                         "日本語"};
    data.runtimes[0].containers[0].names = {"/ctr\x1b[5m"};
    UiState state;
    state.selected[slot(ViewTab::ports)] = data.ports[0].id();
    const Screen s = renderWindow(data, state, 120, 30).screen;
    const std::string text = s.text();
    for (unsigned char c : text)
        EXPECT_TRUE(c >= 0x20 || c == '\n') << int(c);
    EXPECT_TRUE(contains(text, "evil\\e[2J\\e]0;pwned\\x07\\nname"));
    EXPECT_TRUE(contains(text, "rm\\r"));
    state.tab = ViewTab::containers;
    EXPECT_TRUE(contains(renderWindow(data, state, 120, 30).screen.text(), "ctr\\e[5m"));
}

TEST(Views, DetailPaneSaysWhatTheListenerIs) {
    ViewData data = samples::data();
    data.ports[0].executablePath = "/usr/bin/node";
    data.ports[0].role.value =
        ListenerRole::BackgroundService{"web.service", "systemctl --user stop web.service", true};
    UiState state;
    state.selected[slot(ViewTab::ports)] = data.ports[0].id();
    const std::string text = renderWindow(data, state, 120, 40).screen.text();
    for (const char* part : {"0.0.0.0", "node --port 3000", "/usr/bin/node", "you",
                             "~/src/web (git repository)", "systemctl --user stop web.service"})
        EXPECT_TRUE(contains(text, part)) << part;
}

TEST(Views, StopConfirmationShowsThePlanAndStartsOnCancel) {
    ViewData data = samples::data();
    StopPlan plan;
    plan.target = {{812, 1812}, "node", "/usr/bin/node", {"node", "server.js"}};
    plan.shown = plan.target;
    plan.port = 3000;
    data.pending = PendingAction{PendingAction::Stop{plan, false}};
    const std::string text = renderWindow(data, UiState{}, 120, 40).screen.text();
    EXPECT_TRUE(contains(text, "Send the polite stop request (SIGTERM) to node (pid 812)"));
    EXPECT_TRUE(contains(text, "Command line: node server.js"));
    EXPECT_TRUE(contains(text, "Sends SIGTERM once. Wharfy never forces a stop."));
    EXPECT_TRUE(contains(text, "[ Cancel ]"));
    EXPECT_FALSE(contains(text, "[ Stop ]"));
    UiState onStop;
    onStop.focusOnConfirm = true;
    EXPECT_TRUE(contains(renderWindow(data, onStop, 120, 40).screen.text(), "[ Stop ]"));
    // At 60 columns the words still show whole, over several lines.
    const std::string narrow = renderWindow(data, UiState{}, 60, 24).screen.text();
    EXPECT_TRUE(contains(narrow, "Sends SIGTERM once. Wharfy never forces"));
}

TEST(Views, CleanupMenuPreviewsExactlyWhatEachChoiceRemoves) {
    const CleanupMenu menu = cleanupMenu(samples::busyRuntime());
    ASSERT_EQ(menu.entries.size(), 5u);
    EXPECT_EQ(menu.entries[0].action.value,
              ContainerAction::Value{ContainerAction::StopContainer{"aaaaaaaaaaaa1111"}});
    EXPECT_EQ(menu.entries[1].title, "Remove 1 stopped container");
    EXPECT_EQ(menu.entries[1].items, std::vector<std::string>{"old (exited)"});
    EXPECT_EQ(
        menu.entries[1].action.value,
        ContainerAction::Value{ContainerAction::RemoveStoppedContainers{{"bbbbbbbbbbbb2222"}}});
    EXPECT_EQ(menu.entries[2].title, "Remove 1 dangling image (2.5 GB)");
    EXPECT_EQ(menu.entries[2].items, std::vector<std::string>{"dddddddddddd (2.5 GB)"});
    EXPECT_EQ(
        menu.entries[2].action.value,
        ContainerAction::Value{ContainerAction::RemoveDanglingImages{{"sha256:dddddddddddd0000"}}});
    // Only the unused volume, by name, with its size.
    EXPECT_EQ(menu.entries[3].title, "Remove volume scratch (12.0 MB)");
    EXPECT_EQ(menu.entries[3].action.value,
              ContainerAction::Value{ContainerAction::RemoveVolume{"scratch"}});
    EXPECT_EQ(menu.entries[4].title, "Clear the build cache (700.0 MB reclaimable)");

    RuntimeState unread = samples::busyRuntime();
    unread.sizes.reset();
    const CleanupMenu partial = cleanupMenu(unread);
    EXPECT_EQ(partial.entries.size(), 2u);  // the stop and the stopped containers
    EXPECT_TRUE(contains(partial.notes.back(), "Reading disk use"));
}

TEST(Views, ContainerConfirmationListsTheTargetsAndTheExactCommand) {
    ViewData data = samples::data();
    PendingAction::Container c{
        samples::podman(),
        {ContainerAction::RemoveVolume{"scratch"}},
        {"/usr/bin/docker", {"-H", "unix:///run/podman.sock", "volume", "rm", "scratch"}}};
    data.pending = PendingAction{c};
    const std::string text = renderWindow(data, UiState{}, 120, 40).screen.text();
    EXPECT_TRUE(contains(text, "Volume scratch (12.0 MB)"));
    EXPECT_TRUE(
        contains(text, "Runs: /usr/bin/docker -H unix:///run/podman.sock volume rm scratch"));
}

TEST(Views, SelectionFollowsIdentityAndMovesToTheNeighbourWhenGone) {
    UiState state;
    state.selected[0] = "b";
    // Reordered: the same identity stays selected.
    EXPECT_EQ(keepSelection(state, ViewTab::ports, {"a", "b", "c"}, {"c", "b", "a"}, "B"), state);
    // Gone: the row after it takes its place, and the pane says what went.
    UiState gone = keepSelection(state, ViewTab::ports, {"a", "b", "c"}, {"c", "a"}, "B");
    EXPECT_EQ(gone.selected[0], "c");
    EXPECT_EQ(gone.gone, "B");
    // The last row gone: the one before it.
    state.selected[0] = "c";
    EXPECT_EQ(keepSelection(state, ViewTab::ports, {"a", "b", "c"}, {"a", "b"}, "C").selected[0],
              "b");
}

TEST(Views, PopoverSummarisesInSixtyColumns) {
    ViewData data = samples::data();
    const std::string text = renderPopover(data).text();
    EXPECT_TRUE(contains(text, "2 listening · 1 open to network"));
    EXPECT_TRUE(contains(text, "3000  node (812)  web"));
    EXPECT_FALSE(contains(text, "5432"));  // only the listeners open to all networks
    EXPECT_TRUE(contains(text, "Podman: 1 of 2 containers running"));
}

TEST(Views, SuitePopoverListsTheRowsAndTheWorstLevel) {
    namespace suite = nemarro::suite;
    SuiteStrip strip;
    suite::GlanceRecord kobble;
    kobble.app = suite::SuiteApp::kobble;
    kobble.level = suite::GlanceLevel::alert;
    kobble.metrics = {{"queue", "Queue", 12.0, "", suite::GlanceLevel::alert}};
    strip.rows = {suite::RunningRow{kobble}, suite::NotRunningRow{suite::SuiteApp::lintra}};
    strip.worst = suite::GlanceLevel::alert;
    const std::string text = renderSuitePopover(strip).text();
    EXPECT_TRUE(contains(text, "worst level: alert"));
    EXPECT_TRUE(contains(text, "Queue 12.0"));
    EXPECT_TRUE(contains(text, "not running"));
    EXPECT_TRUE(contains(renderSuitePopover(std::nullopt).text(), "No other app"));
}

}  // namespace
}  // namespace wharfy::app::tui
