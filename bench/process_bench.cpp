// The process layer runs over every process on every refresh. These compare
// our reads with the standard tools on the same machine and load:
//   WHARFY_BENCH_LOAD=2000:300:20 build/bench/wharfy_bench --benchmark_filter=Process
#include <benchmark/benchmark.h>

#include "load.h"
#include "process/listening_sockets.h"
#include "process/process_reader.h"

using namespace nemarro::process;

static void ProcessListeningSocketsRead(benchmark::State& state) {
    size_t sockets = 0;
    for (auto _ : state) {
        auto all = ListeningSockets::read();
        sockets = all.size();
        benchmark::DoNotOptimize(all);
    }
    state.counters["sockets"] = static_cast<double>(sockets);
}
BENCHMARK(ProcessListeningSocketsRead)->Unit(benchmark::kMillisecond);

static void ProcessTableRead(benchmark::State& state) {
    size_t count = 0;
    for (auto _ : state) {
        count = 0;
        for (int32_t pid : ProcessReader::allPIDs()) {
            auto info = ProcessReader::bsdInfo(pid);
            auto usage = ProcessReader::usage(pid);
            count += info && usage;
            benchmark::DoNotOptimize(info);
            benchmark::DoNotOptimize(usage);
        }
    }
    state.counters["processes"] = static_cast<double>(count);
}
BENCHMARK(ProcessTableRead)->Unit(benchmark::kMillisecond);

static void ProcessTableReadCombined(benchmark::State& state) {
    size_t count = 0;
    for (auto _ : state) {
        count = 0;
        for (int32_t pid : ProcessReader::allPIDs()) {
            auto facts = ProcessReader::facts(pid);
            count += facts.has_value();
            benchmark::DoNotOptimize(facts);
        }
    }
    state.counters["processes"] = static_cast<double>(count);
}
BENCHMARK(ProcessTableReadCombined)->Unit(benchmark::kMillisecond);

static void ProcessToolSsListening(benchmark::State& state) {
    for (auto _ : state)
        if (!wharfy::bench::runTool("/usr/bin/ss", {"-ltnp"})) state.SkipWithError("ss failed");
}
BENCHMARK(ProcessToolSsListening)->Unit(benchmark::kMillisecond)->UseRealTime();

static void ProcessToolPs(benchmark::State& state) {
    for (auto _ : state)
        if (!wharfy::bench::runTool("/usr/bin/ps", {"-e", "-o", "pid,ppid,uid,rss,time,comm"}))
            state.SkipWithError("ps failed");
}
BENCHMARK(ProcessToolPs)->Unit(benchmark::kMillisecond)->UseRealTime();
