// The port scan runs on every refresh while the app is on screen. Measured
// on the same load next to the standard tools:
//   WHARFY_BENCH_LOAD=2000:300:20 build/bench/wharfy_bench --benchmark_filter=Ports
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "core/ports/live_environment.h"
#include "core/ports/port_scanner.h"
#include "load.h"

namespace {

using namespace wharfy;

struct Scanner {
    std::shared_ptr<CommandRunner> runner = std::make_shared<SystemCommandRunner>(10);
    std::unique_ptr<PortEnvironment> environment = makeLivePortEnvironment(runner);
    ListenerClassifier classifier = makeLiveClassifier(::geteuid(), "/root", runner);
    std::vector<PortRow> scan() {
        ProjectResolver resolver("/root", true, &ProjectResolver::pathExists);
        return PortScanner(*environment, classifier, resolver, ::geteuid()).scan();
    }
};

void PortsSteadyStateScan(benchmark::State& state) {
    Scanner scanner;
    scanner.scan();  // the first scan fills the holder cache
    size_t rows = 0;
    for (auto _ : state)
        rows = scanner.scan().size();
    state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(PortsSteadyStateScan)->Unit(benchmark::kMillisecond);

void PortsFirstScan(benchmark::State& state) {
    for (auto _ : state) {
        Scanner scanner;
        benchmark::DoNotOptimize(scanner.scan());
    }
}
BENCHMARK(PortsFirstScan)->Unit(benchmark::kMillisecond);

void PortsWharfyJsonCold(benchmark::State& state) {
    for (auto _ : state)
        if (!bench::runTool(bench::wharfyPath(), {"--ports-json"}))
            state.SkipWithError("wharfy failed");
}
BENCHMARK(PortsWharfyJsonCold)->Unit(benchmark::kMillisecond)->UseRealTime();

void PortsToolSs(benchmark::State& state) {
    for (auto _ : state)
        if (!bench::runTool("/usr/bin/ss", {"-ltnp"})) state.SkipWithError("ss failed");
}
BENCHMARK(PortsToolSs)->Unit(benchmark::kMillisecond)->UseRealTime();

void PortsToolLsof(benchmark::State& state) {
    for (auto _ : state)
        if (!bench::runTool("/usr/bin/lsof", {"-nP", "-iTCP", "-sTCP:LISTEN"}))
            state.SkipWithError("lsof failed");
}
BENCHMARK(PortsToolLsof)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
