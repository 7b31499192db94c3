// The history is read whenever the summary reloads: at launch and after each
// line written. A heavy week: a line every 5 minutes for seven days, 300
// listening ports and three sessions per line.
//   build/bench/wharfy_bench --benchmark_filter=History
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>

#include "core/history/history_store.h"
#include "core/history/history_summary.h"

namespace {

using namespace wharfy;

constexpr int kDays = 7;
constexpr int kLinesPerDay = 24 * 12;
constexpr int kPorts = 300;

/// A folder holding a week of history; removed at exit.
struct Week {
    std::string root;
    std::unique_ptr<HistoryStore> store;
    double now = 0;
    uint64_t bytes = 0;
    int lines = 0;

    /// With `everyLineDiffers`, one listener changes on every line; otherwise
    /// once an hour, as on a working machine.
    explicit Week(bool everyLineDiffers) {
        char tmpl[] = "/tmp/wharfy-history-bench-XXXXXX";
        root = ::mkdtemp(tmpl);
        store = std::make_unique<HistoryStore>(historyDirectory(root, "/"),
                                               std::make_shared<LocalCalendar>());
        now = 1'772'892'309;  // a Saturday afternoon
        const double start = store->cutoff(now);
        HistoryEntry entry;
        for (int p = 0; p < kPorts; ++p)
            entry.ports.push_back(
                {static_cast<uint16_t>(3000 + p), "node-" + std::to_string(p % 40),
                 p % 3 ? "This computer only" : "All networks",
                 p % 5 ? std::optional<std::string>("project-" + std::to_string(p % 25))
                       : std::nullopt});
        entry.sessions = {{"Claude Code", "shop", 35.5, 900'000'000},
                          {"Codex", "api", {}, 400'000'000},
                          {"Aider", {}, 2.0, 150'000'000}};
        for (int i = 0; i < kDays * kLinesPerDay; ++i) {
            entry.time = start + i * 300.0;
            if (everyLineDiffers || i % 12 == 0)
                entry.ports[static_cast<size_t>(i % kPorts)].port =
                    static_cast<uint16_t>(10000 + i % 50000);
            if (!store->append(entry)) std::abort();
            ++lines;
        }
        for (const auto& f : std::filesystem::directory_iterator(store->directory()))
            bytes += f.file_size();
    }
    ~Week() { std::filesystem::remove_all(root); }
};

/// The two weeks, written once: listeners that change hourly, or on every line.
const Week& week(bool everyLineDiffers) {
    static const Week hourly(false);
    if (!everyLineDiffers) return hourly;
    static const Week always(true);
    return always;
}

void report(benchmark::State& state, const Week& week, const HistorySummary& summary) {
    state.counters["lines"] = week.lines;
    state.counters["weekMB"] = static_cast<double>(week.bytes) / 1e6;
    state.counters["lineKB"] = static_cast<double>(week.bytes) / week.lines / 1e3;
    state.counters["days"] = static_cast<double>(summary.days.size());
}

void HistoryReadAndSummary(benchmark::State& state) {
    const Week& week = ::week(state.range(0) != 0);
    HistorySummary summary;
    for (auto _ : state) {
        const auto entries = week.store->read(week.now);
        summary = HistorySummary::build(entries, week.store->calendar(), week.now);
    }
    if (summary.entries != week.lines) state.SkipWithError("lines were lost");
    report(state, week, summary);
}
BENCHMARK(HistoryReadAndSummary)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void HistoryStreamedSummary(benchmark::State& state) {
    const Week& week = ::week(state.range(0) != 0);
    HistorySummary summary;
    for (auto _ : state) {
        HistorySummaryBuilder builder(week.store->calendar(), week.now);
        week.store->forEachEntry(week.now, [&](const HistoryEntry& e) { builder.add(e); });
        summary = std::move(builder).finish();
    }
    if (summary.entries != week.lines) state.SkipWithError("lines were lost");
    report(state, week, summary);
}
BENCHMARK(HistoryStreamedSummary)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
