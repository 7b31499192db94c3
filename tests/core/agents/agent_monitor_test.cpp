#include <gtest/gtest.h>

#include "core/agents/agent_monitor.h"

namespace wharfy {
namespace {

using Sample = AgentMonitor::Sample;
using Cpu = RunawayReason::Cpu;
using Memory = RunawayReason::Memory;

constexpr uint64_t kSmall = 100'000'000;
constexpr double kNow = 10'000.0;

// Feeds one session's samples, every `step` seconds from `from` to `to` (inclusive).
void feed(AgentMonitor& monitor, const std::string& id, double from, double to, double step,
          std::optional<double> cpu, uint64_t footprint = kSmall) {
    for (double t = from; t <= to + 1e-9; t += step)
        monitor.ingestLoads({{id, cpu, footprint}}, t);
}

TEST(AgentMonitorAverageTest, TimeWeightedOverTheWindow) {
    struct Case {
        const char* what;
        std::vector<Sample> samples;
        double window;
        std::optional<AgentMonitor::Average> expected;
    };
    const Case cases[] = {
        {"no samples", {}, 30, std::nullopt},
        {"the first sample has no interval", {{100, 50, 0}}, 30, std::nullopt},
        {"each reading stands for the time since the one before",
         {{70, 0, 0}, {80, 10, 0}, {100, 40, 0}},
         30,
         AgentMonitor::Average{30.0, 1.0}},
        {"the interval is cut at the window start",
         {{0, 0, 0}, {90, 60, 0}, {100, 0, 0}},
         30,
         AgentMonitor::Average{40.0, 1.0}},
        {"a sample exactly at the window start is outside",
         {{60, 0, 0}, {70, 80, 0}},
         30,
         std::nullopt},
        {"samples after now are ignored",
         {{90, 0, 0}, {100, 20, 0}, {110, 90, 0}},
         30,
         AgentMonitor::Average{20.0, 10.0 / 30.0}},
        {"a gap lowers coverage, not the mean",
         {{80, 0, 0}, {90, std::nullopt, 0}, {100, 50, 0}},
         40,
         AgentMonitor::Average{50.0, 10.0 / 40.0}},
        {"two samples at one time weigh nothing", {{100, 0, 0}, {100, 50, 0}}, 30, std::nullopt},
    };
    for (const auto& c : cases) {
        auto got = AgentMonitor::average(c.samples, c.window, 100);
        ASSERT_EQ(got.has_value(), c.expected.has_value()) << c.what;
        if (!got) continue;
        EXPECT_DOUBLE_EQ(got->mean, c.expected->mean) << c.what;
        EXPECT_DOUBLE_EQ(got->coverage, c.expected->coverage) << c.what;
    }
}

TEST(AgentMonitorTest, SingleSampleHasNoAverageButCanBeAMemoryRunaway) {
    AgentMonitor monitor;
    monitor.ingestLoads({{"a", 99.0, kSmall}, {"b", 99.0, 5'000'000'000ULL}}, kNow);
    auto a = monitor.status("a", kNow);
    EXPECT_EQ(a, (AgentStatus{99.0, std::nullopt, false, std::nullopt}));
    EXPECT_EQ(monitor.status("b", kNow).runaway, RunawayReason{Memory{5'000'000'000ULL}});
    EXPECT_EQ(monitor.status("unknown", kNow), AgentStatus{});
}

TEST(AgentMonitorTest, CpuRunawayNeedsTheWindowCovered) {
    struct Case {
        const char* what;
        double coveredSeconds;
        double cpu;
        bool runaway;
    };
    const Case cases[] = {
        {"ten minutes at 95%", 600, 95.0, true},
        {"nine minutes (coverage 0.9) at 95%", 540, 95.0, true},
        {"eight minutes (coverage 0.8) at 95%", 480, 95.0, false},
        {"exactly 90% with full coverage", 600, 90.0, true},
        {"just under 90%", 600, 89.9, false},
    };
    for (const auto& c : cases) {
        AgentMonitor monitor;
        feed(monitor, "s", kNow - c.coveredSeconds, kNow, 10, c.cpu);
        auto status = monitor.status("s", kNow);
        ASSERT_EQ(status.runaway.has_value(), c.runaway) << c.what;
        if (c.runaway) {
            EXPECT_DOUBLE_EQ(status.runaway->as<Cpu>()->averagePercent, c.cpu) << c.what;
        }
        EXPECT_DOUBLE_EQ(status.cpuNow.value_or(-1), c.cpu) << c.what;
        EXPECT_DOUBLE_EQ(status.cpuLastFiveMinutes.value_or(-1), c.cpu) << c.what;
    }
}

TEST(AgentMonitorTest, GapsReduceCoverageWithoutChangingTheMean) {
    AgentMonitor monitor;
    // Full ten minutes at 95%, but every other reading unmeasured: half the window is covered.
    for (int i = 0; i <= 60; ++i)
        monitor.ingestLoads({{"s", i % 2 ? std::optional<double>(95.0) : std::nullopt, kSmall}},
                            kNow - 600 + i * 10);
    auto status = monitor.status("s", kNow);
    EXPECT_EQ(status.runaway, std::nullopt);
    EXPECT_DOUBLE_EQ(status.cpuLastFiveMinutes.value_or(-1), 95.0);
    EXPECT_DOUBLE_EQ(AgentMonitor::average(*monitor.history("s"), 600, kNow)->coverage, 0.5);
}

TEST(AgentMonitorTest, MemoryThresholdIsStrictAndComesFirst) {
    const uint64_t limit = AgentMonitor::Thresholds{}.memoryBytes;
    ASSERT_EQ(limit, 4'294'967'296ULL);
    struct Case {
        uint64_t footprint;
        std::optional<RunawayReason> expected;
    };
    const Case cases[] = {
        {limit, RunawayReason{Cpu{95.0}}},
        {limit + 1, RunawayReason{Memory{limit + 1}}},
    };
    for (const auto& c : cases) {
        AgentMonitor monitor;
        feed(monitor, "s", kNow - 600, kNow, 10, 95.0, c.footprint);
        EXPECT_EQ(monitor.status("s", kNow).runaway, c.expected) << c.footprint;
    }
}

TEST(AgentMonitorTest, BusyIsStrictlyAboveTheThreshold) {
    struct Case {
        double cpu;
        bool busy;
    };
    for (const Case& c : {Case{10.0, false}, Case{10.5, true}, Case{0.0, false}}) {
        AgentMonitor monitor;
        feed(monitor, "s", kNow - 30, kNow, 5, c.cpu);
        EXPECT_EQ(monitor.status("s", kNow).isBusy, c.busy) << c.cpu;
    }
    AgentMonitor idle;
    feed(idle, "s", kNow - 30, kNow, 5, std::nullopt);
    EXPECT_FALSE(idle.status("s", kNow).isBusy);
    EXPECT_EQ(idle.status("s", kNow).cpuLastFiveMinutes, std::nullopt);
}

TEST(AgentMonitorTest, IngestForgetsEndedSessionsAndOldSamples) {
    AgentMonitor monitor;
    feed(monitor, "s", 0, 800, 10, 50.0);
    const auto* samples = monitor.history("s");
    ASSERT_NE(samples, nullptr);
    // Kept: a full runaway window plus a minute, boundary included.
    EXPECT_EQ(samples->front().time, 140.0);
    EXPECT_EQ(samples->back().time, 800.0);

    monitor.ingestLoads({{"other", 1.0, kSmall}}, 810);
    EXPECT_EQ(monitor.history("s"), nullptr);
    EXPECT_EQ(monitor.history("other")->size(), 1u);
}

TEST(AgentMonitorTest, AlertsRespectTheCooldownAndResetWhenASessionEnds) {
    AgentMonitor monitor;
    const uint64_t huge = 8'000'000'000ULL;
    monitor.ingestLoads({{"big", std::nullopt, huge}, {"calm", 1.0, kSmall}}, 0);

    using Due = std::vector<std::pair<std::string, RunawayReason>>;
    EXPECT_EQ(monitor.alertsDue(0), (Due{{"big", RunawayReason{Memory{huge}}}}));
    monitor.ingestLoads({{"big", std::nullopt, huge}, {"calm", 1.0, kSmall}}, 1000);
    EXPECT_EQ(monitor.alertsDue(1000), Due{});
    monitor.ingestLoads({{"big", std::nullopt, huge}}, 1799);
    EXPECT_EQ(monitor.alertsDue(1799), Due{});
    monitor.ingestLoads({{"big", std::nullopt, huge}}, 1800);
    EXPECT_EQ(monitor.alertsDue(1800).size(), 1u);

    // A refresh without it ends the session; when it comes back it is reported at once.
    monitor.ingestLoads({}, 1900);
    monitor.ingestLoads({{"big", std::nullopt, huge}}, 1910);
    EXPECT_EQ(monitor.alertsDue(1910).size(), 1u);
}

}  // namespace
}  // namespace wharfy
