#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "suite/suite_state_machine.h"
#include "suite_printers.h"

using namespace nemarro::suite;

namespace {

struct Rec {
    SuiteApp app;
    double at;
    bool hosting = false;
    GlanceState state = GlanceState::running;
    GlanceLevel level = GlanceLevel::ok;
    std::vector<GlanceMetric> metrics = {};
};

GlanceRecord record(const Rec& r) {
    GlanceRecord g;
    g.app = r.app;
    g.at = r.at;
    g.ttl = 10;
    g.hosting = r.hosting;
    g.state = r.state;
    g.level = r.level;
    g.metrics = r.metrics;
    return g;
}

std::map<SuiteApp, GlanceRecord> records(const std::vector<Rec>& list) {
    std::map<SuiteApp, GlanceRecord> out;
    for (const Rec& r : list)
        out[r.app] = record(r);
    return out;
}

// "+wharfy" for a running row, "-wharfy" for a not-running one.
std::string rowsText(const SuiteStateMachine& m) {
    std::string out;
    for (const SuiteRow& row : m.rows()) {
        if (!out.empty()) out += ' ';
        if (const auto* running = std::get_if<RunningRow>(&row))
            out += "+" + std::string(id(running->record.app));
        else
            out += "-" + std::string(id(std::get<NotRunningRow>(row).app));
    }
    return out;
}

struct Step {
    double t;
    /// Records given at this step; every one is written at `t` unless its `at` says otherwise.
    std::vector<Rec> given;
    bool active;
    std::string rows;
    bool hostMissing = false;
    bool wakeFirst = false;
};

struct Scenario {
    const char* name;
    std::vector<Step> steps;
};

constexpr SuiteApp V = SuiteApp::varnel;
constexpr SuiteApp K = SuiteApp::kobble;
constexpr SuiteApp W = SuiteApp::wharfy;
constexpr SuiteApp L = SuiteApp::lintra;

TEST(SuiteStateMachine, FollowsTheRecordsOverTime) {
    const auto now = [](SuiteApp app, double t, bool hosting = false) {
        return Rec{app, t, hosting};
    };
    const auto stopped = [](SuiteApp app, double t) {
        return Rec{app, t, false, GlanceState::stopped};
    };
    const std::vector<Scenario> scenarios = {
        {"one app alone stays inactive; its row lasts 60 s after its last fresh update",
         {{100, {now(W, 100)}, false, "+wharfy"},
          {110, {now(W, 100)}, false, "+wharfy"},  // at + ttl is still fresh
          {110.5, {now(W, 100)}, false, "-wharfy"},
          {170, {now(W, 100)}, false, "-wharfy"},
          {170.5, {now(W, 100)}, false, ""}}},
        {"two apps turn it on at once; it turns off at the first update 10 s after one stops",
         {{0, {now(V, 0), now(W, 0)}, true, "+varnel +wharfy", false},
          {1, {now(V, 1), stopped(W, 1)}, true, "+varnel -wharfy"},
          {10.9, {now(V, 10.9), stopped(W, 1)}, true, "+varnel -wharfy", true},
          {11, {now(V, 11), stopped(W, 1)}, false, "+varnel -wharfy"},
          {60, {now(V, 60), stopped(W, 1)}, false, "+varnel -wharfy"},
          {60.5, {now(V, 60.5), stopped(W, 1)}, false, "+varnel"}}},
        {"a second app back within 10 s restarts the off delay",
         {{0, {now(V, 0), now(W, 0)}, true, "+varnel +wharfy"},
          {5, {now(V, 5)}, true, "+varnel -wharfy"},
          {9, {now(V, 9), now(W, 9)}, true, "+varnel +wharfy", true},
          {12, {now(V, 12)}, true, "+varnel -wharfy", true},
          {21.9, {now(V, 21.9)}, true, "+varnel -wharfy", true},
          {22, {now(V, 22)}, false, "+varnel -wharfy"}}},
        {"a record dated 3 s ahead is not fresh; 2 s ahead is",
         {{0, {now(V, 0), now(W, 3)}, false, "+varnel"},
          {0.5, {now(V, 0.5), now(W, 2.5)}, true, "+varnel +wharfy"}}},
        {"apps that do not take part and stopped records never count",
         {{0, {now(V, 0), now(L, 0)}, false, "+varnel"},
          {1, {now(V, 1), stopped(K, 1)}, false, "+varnel"}}},
        {"after a wake the suite stays on for 10 s, then the off delay starts",
         {{0, {now(V, 0), now(W, 0)}, true, "+varnel +wharfy"},
          {5, {now(V, 5)}, true, "+varnel -wharfy", false, true},  // woke at 5
          {14.9, {now(V, 14.9)}, true, "+varnel -wharfy", true},
          {15, {now(V, 15)}, true, "+varnel -wharfy", true},
          {24.9, {now(V, 24.9)}, true, "+varnel -wharfy", true},
          {25, {now(V, 25)}, false, "+varnel -wharfy"}}},
        {"a wake does not turn an inactive suite on",
         {{0, {now(V, 0)}, false, "+varnel", false, true}}},
        {"without a host, the host is missing only after 5 s; a hosting record resets it",
         {{0, {now(V, 0), now(W, 0)}, true, "+varnel +wharfy", false},
          {5, {now(V, 5), now(W, 5)}, true, "+varnel +wharfy", false},
          {5.5, {now(V, 5.5), now(W, 5.5)}, true, "+varnel +wharfy", true},
          {6, {now(V, 6, true), now(W, 6)}, true, "+varnel +wharfy", false},
          {11, {now(V, 11), now(W, 11)}, true, "+varnel +wharfy", false},
          {11.5, {now(V, 11.5), now(W, 11.5)}, true, "+varnel +wharfy", true}}},
        {"a stale hosting record does not count as a seen host",
         {{0, {now(V, 0), now(W, 0)}, true, "+varnel +wharfy"},
          {6, {now(V, 6), now(W, 6), Rec{K, -20, true}}, true, "+varnel +wharfy", true}}},
    };
    for (const Scenario& scenario : scenarios) {
        SuiteStateMachine m;
        for (const Step& step : scenario.steps) {
            if (step.wakeFirst) m.didWake(step.t);
            m.update(records(step.given), step.t);
            const std::string where = std::string(scenario.name) + " at " + std::to_string(step.t);
            EXPECT_EQ(m.isActive, step.active) << where;
            EXPECT_EQ(rowsText(m), step.rows) << where;
            EXPECT_EQ(m.hostMissing(), step.hostMissing) << where;
            EXPECT_EQ(m.showsOwnIcon(false), !step.active || step.hostMissing) << where;
            EXPECT_TRUE(m.showsOwnIcon(true)) << where;
        }
    }
}

TEST(SuiteStateMachine, WorstLevelCountsRunningRowsOnly) {
    SuiteStateMachine m;
    EXPECT_EQ(m.worstLevel(), GlanceLevel::ok);
    m.update(records({{V, 0, false, GlanceState::running, GlanceLevel::notice},
                      {W, 0, false, GlanceState::running, GlanceLevel::alert}}),
             0);
    EXPECT_EQ(m.worstLevel(), GlanceLevel::alert);
    m.update(records({{V, 1, false, GlanceState::running, GlanceLevel::notice},
                      {W, 1, false, GlanceState::stopped, GlanceLevel::alert}}),
             1);
    EXPECT_EQ(m.worstLevel(), GlanceLevel::notice);
}

TEST(SuiteStateMachine, MenuBarShowsAtMostTwoValues) {
    const GlanceMetric cpu{"cpu", "CPU", 12.0, "%", GlanceLevel::ok};
    const GlanceMetric mem{"mem", "Memory", 3.5, "GB", GlanceLevel::ok};
    const GlanceMetric servers{"servers", "Servers", 4.0, "", GlanceLevel::ok};
    SuiteStateMachine m;
    m.update(records({{V, 0},
                      {K, 0, false, GlanceState::running, GlanceLevel::ok, {cpu, mem}},
                      {W, 0, false, GlanceState::running, GlanceLevel::ok, {servers}},
                      {SuiteApp::tessik, 0, false, GlanceState::stopped, GlanceLevel::ok, {cpu}}}),
             0);
    using Values = std::vector<std::pair<MetricRef, GlanceMetric>>;
    struct Row {
        const char* name;
        std::optional<std::vector<MetricRef>> chosen;
        Values expected;
    };
    const std::vector<Row> rows = {
        {"no choice: the first app in catalog order that has a metric",
         std::nullopt,
         {{MetricRef{K, "cpu"}, cpu}}},
        {"an empty choice is no choice", std::vector<MetricRef>{}, {{MetricRef{K, "cpu"}, cpu}}},
        {"only the first two of three",
         std::vector<MetricRef>{{W, "servers"}, {K, "mem"}, {K, "cpu"}},
         {{MetricRef{W, "servers"}, servers}, {MetricRef{K, "mem"}, mem}}},
        {"a metric that disappeared is skipped, without a replacement",
         std::vector<MetricRef>{{K, "disk"}, {W, "servers"}, {K, "cpu"}},
         {{MetricRef{W, "servers"}, servers}}},
        {"an app that is not running resolves nothing, and nothing falls back",
         std::vector<MetricRef>{{SuiteApp::tessik, "cpu"}},
         {}},
    };
    for (const Row& row : rows)
        EXPECT_EQ(m.menuBarValues(row.chosen), row.expected) << row.name;
}

TEST(PublishSchedule, RewritesChangesAtOnceAndTheSameRecordEveryHalfTTL) {
    GlanceRecord written = record({W, 100});
    written.ttl = 30;
    written.metrics = {{"servers", "Servers", 4.0, "", GlanceLevel::ok}};
    struct Row {
        const char* name;
        void (*change)(GlanceRecord&);
        double now;
        bool due;
    };
    const std::vector<Row> rows = {
        {"unchanged, 14 s later", [](GlanceRecord&) {}, 114, false},
        {"unchanged, 15 s later", [](GlanceRecord&) {}, 115, true},
        {"a metric value changed", [](GlanceRecord& r) { r.metrics[0].value = 5.0; }, 100.5, true},
        {"hosting changed", [](GlanceRecord& r) { r.hosting = true; }, 100.5, true},
        {"the ttl changed", [](GlanceRecord& r) { r.ttl = 20; }, 100.5, true},
        {"a shorter ttl halves sooner", [](GlanceRecord&) {}, 110, false},
    };
    for (const Row& row : rows) {
        PublishSchedule schedule;
        EXPECT_TRUE(schedule.isDue(written, 100)) << "nothing written yet";
        schedule.didWrite(written);
        GlanceRecord next = written;
        next.at = row.now;
        row.change(next);
        EXPECT_EQ(schedule.isDue(next, row.now), row.due) << row.name;
        schedule.forceNext();
        EXPECT_TRUE(schedule.isDue(next, row.now)) << row.name << ", forced";
    }
}

}  // namespace
