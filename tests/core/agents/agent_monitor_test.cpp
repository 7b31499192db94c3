#include <gtest/gtest.h>

#include <cmath>

#include "core/agents/agent_monitor.h"

namespace wharfy {
namespace {

using Cpu = RunawayReason::Cpu;
using Memory = RunawayReason::Memory;
constexpr uint64_t kSmall = 100'000'000;
constexpr uint64_t kLimit = 4'294'967'296ULL;

// One session's samples every `step` seconds over [from, to].
void feed(AgentMonitor& monitor, double from, double to, double step, std::optional<double> cpu,
          uint64_t footprint = kSmall) {
    for (double t = from; t <= to; t += step)
        monitor.ingestLoads({{"s", cpu, footprint}}, t);
}

TEST(AgentMonitorTest, AverageIsTimeWeightedOverTheWindow) {
    using S = AgentMonitor::Sample;
    struct Case {
        std::vector<S> samples;
        double window;
        std::optional<double> mean, coverage;
    };
    const Case cases[] = {
        {{{100, 50, 0}}, 30, std::nullopt, std::nullopt},  // the first sample has no interval
        {{{70, 0, 0}, {80, 10, 0}, {100, 40, 0}}, 30, 30.0, 1.0},
        {{{0, 0, 0}, {90, 60, 0}, {100, 0, 0}}, 30, 40.0, 1.0},         // cut at the window start
        {{{60, 0, 0}, {70, 80, 0}}, 30, std::nullopt, std::nullopt},    // at the start is outside
        {{{90, 0, 0}, {100, 20, 0}, {110, 90, 0}}, 30, 20.0, 1.0 / 3},  // after now is ignored
        {{{80, 0, 0}, {90, std::nullopt, 0}, {100, 50, 0}}, 40, 50.0, 0.25},  // a gap
        {{{100, 0, 0}, {100, 50, 0}}, 30, std::nullopt, std::nullopt},        // no time covered
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        auto got = AgentMonitor::average(cases[i].samples, cases[i].window, 100);
        EXPECT_EQ(got ? std::optional(got->mean) : std::nullopt, cases[i].mean) << i;
        if (got) {
            EXPECT_DOUBLE_EQ(got->coverage, *cases[i].coverage) << i;
        }
    }
}

TEST(AgentMonitorTest, RunawayAndBusyBoundaries) {
    struct Case {
        const char* what;
        double seconds, step;
        std::optional<double> cpu;
        uint64_t footprint;
        std::optional<RunawayReason> runaway;
        bool busy;
    };
    const Case cases[] = {
        {"ten minutes at 95%", 600, 10, 95.0, kSmall, RunawayReason{Cpu{95.0}}, true},
        {"coverage 0.9 is enough", 540, 10, 95.0, kSmall, RunawayReason{Cpu{95.0}}, true},
        {"coverage 0.8 is not", 480, 10, 95.0, kSmall, std::nullopt, true},
        {"exactly 90% is a runaway", 600, 10, 90.0, kSmall, RunawayReason{Cpu{90.0}}, true},
        {"exactly 10% is not busy", 600, 10, 10.0, kSmall, std::nullopt, false},
        {"every other reading missing", 600, 5, std::nullopt, kSmall, std::nullopt, true},
        {"exactly 4 GiB is not a runaway", 600, 10, 95.0, kLimit, RunawayReason{Cpu{95.0}}, true},
        {"one byte more is, first", 600, 10, 95.0, kLimit + 1, RunawayReason{Memory{kLimit + 1}},
         true},
        {"one sample: no average", 0, 10, 99.0, kLimit + 1, RunawayReason{Memory{kLimit + 1}},
         false},
    };
    for (const auto& c : cases) {
        AgentMonitor monitor;
        if (c.cpu) {
            feed(monitor, 10'000 - c.seconds, 10'000, c.step, c.cpu, c.footprint);
        } else {  // 95% readings every 10 s, with an unmeasured refresh between each two
            for (double t = 9'400; t <= 10'000; t += c.step)
                monitor.ingestLoads(
                    {{"s", std::fmod(t, 10) == 0 ? 95.0 : std::optional<double>(), c.footprint}},
                    t);
        }
        auto status = monitor.status("s", 10'000);
        EXPECT_EQ(status.runaway, c.runaway) << c.what;
        EXPECT_EQ(status.isBusy, c.busy) << c.what;
        EXPECT_EQ(status.cpuLastFiveMinutes.has_value(), c.seconds > 0) << c.what;
    }
}

TEST(AgentMonitorTest, HistoryAndAlertsFollowTheSessions) {
    AgentMonitor monitor;
    feed(monitor, 0, 800, 10, 50.0);
    EXPECT_EQ(monitor.history("s")->front().time, 140.0);  // the window plus a minute is kept

    const uint64_t huge = 8'000'000'000ULL;
    using Due = std::vector<std::pair<std::string, RunawayReason>>;
    const std::pair<double, size_t> refreshes[] = {{0, 1}, {1000, 0}, {1799, 0}, {1800, 1}};
    AgentMonitor alerts;
    for (auto [now, due] : refreshes) {
        alerts.ingestLoads({{"big", std::nullopt, huge}, {"calm", 1.0, kSmall}}, now);
        auto got = alerts.alertsDue(now);
        EXPECT_EQ(got.size(), due) << now;
        if (due) {
            EXPECT_EQ(got, (Due{{"big", RunawayReason{Memory{huge}}}}));
        }
    }
    // A refresh without it ends the session, and forgets its alert.
    alerts.ingestLoads({{"calm", 1.0, kSmall}}, 1900);
    EXPECT_EQ(alerts.history("big"), nullptr);
    alerts.ingestLoads({{"big", std::nullopt, huge}}, 1910);
    EXPECT_EQ(alerts.alertsDue(1910).size(), 1u);
}

}  // namespace
}  // namespace wharfy
