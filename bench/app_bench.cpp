// What one refresh of the long-running app costs, next to the floor of
// reading /proc/PID/stat for every process, measured in the same run:
//   WHARFY_BENCH_LOAD=2000:300:20 build/bench/wharfy_bench --benchmark_filter=App
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "app/containers_command.h"
#include "app/model/live_machine_reader.h"
#include "load.h"

namespace {

using namespace wharfy;

std::string home() {
    const char* h = std::getenv("HOME");
    return h ? h : "/root";
}

/// One steady tick's reads: the process table with ports and sessions, and
/// the runtimes found (their engines, when there are any, read as well).
void AppSteadyTick(benchmark::State& state) {
    app::LiveMachineReader reader(::geteuid(), home(), std::nullopt);
    reader.readProcesses();  // the first read fills the caches
    size_t rows = 0, sessions = 0;
    for (auto _ : state) {
        auto reading = reader.readProcesses();
        rows = reading.ports.size();
        sessions = reading.sessions.size();
        benchmark::DoNotOptimize(app::readRuntimes(reader));
    }
    state.counters["rows"] = static_cast<double>(rows);
    state.counters["sessions"] = static_cast<double>(sessions);
}
BENCHMARK(AppSteadyTick)->Unit(benchmark::kMillisecond);

/// The floor: open and read /proc/PID/stat once for every process.
void AppStatFloor(benchmark::State& state) {
    char buffer[4096];
    size_t processes = 0;
    for (auto _ : state) {
        processes = 0;
        DIR* proc = ::opendir("/proc");
        if (!proc) {
            state.SkipWithError("no /proc");
            return;
        }
        while (const dirent* entry = ::readdir(proc)) {
            if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
            const std::string path = std::string("/proc/") + entry->d_name + "/stat";
            const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0) continue;
            benchmark::DoNotOptimize(::read(fd, buffer, sizeof buffer));
            ::close(fd);
            ++processes;
        }
        ::closedir(proc);
    }
    state.counters["processes"] = static_cast<double>(processes);
}
BENCHMARK(AppStatFloor)->Unit(benchmark::kMillisecond);

}  // namespace
