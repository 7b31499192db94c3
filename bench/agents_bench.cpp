// The session builder runs over every process on every refresh. This times a
// full LiveAgentSource.sessions next to the sampler's table read it rests on,
// with one fake agent session of 50 processes among the load:
//   WHARFY_BENCH_LOAD=2000:300:20 build/bench/wharfy_bench --benchmark_filter=Agents
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/agents/agent_session.h"
#include "load.h"
#include "process/process_reader.h"
#include "process/process_sampler.h"

extern char** environ;

namespace {

using namespace nemarro::process;
namespace fs = std::filesystem;

// A copy of the load generator installed where native Claude Code lives in a
// private home, so that it and its children form one session. It stops when
// its standard input closes.
class FakeAgent {
  public:
    FakeAgent() {
        std::string pattern = (fs::temp_directory_path() / "wharfy-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) return;
        home_ = pattern;
        const fs::path exe = fs::path(home_) / ".local/share/claude/versions/9.9.9";
        std::error_code ec;
        fs::create_directories(exe.parent_path(), ec);
        if (!fs::copy_file(wharfy::bench::loadGeneratorPath(), exe, ec)) return;
        load_ = wharfy::bench::LoadGenerator::start(exe.string(), 49, 0, 0);
    }
    ~FakeAgent() {
        load_.reset();
        std::error_code ec;
        if (!home_.empty()) fs::remove_all(home_, ec);
    }
    bool running() const { return load_ != nullptr; }
    const std::string& home() const { return home_; }

  private:
    std::string home_;
    std::unique_ptr<wharfy::bench::LoadGenerator> load_;
};

FakeAgent& fakeAgent() {
    static FakeAgent agent;
    return agent;
}

ProcessSampler liveSampler() {
    return ProcessSampler(std::make_unique<LiveProcessSource>(), TickClock::current(),
                          &ProcessSampler::monotonicNow);
}

void AgentsSamplerRead(benchmark::State& state) {
    auto sampler = liveSampler();
    size_t count = 0;
    for (auto _ : state) {
        auto sample = sampler.sample();
        count = sample.processes.size();
        benchmark::DoNotOptimize(sample);
    }
    state.counters["processes"] = static_cast<double>(count);
}
BENCHMARK(AgentsSamplerRead)->Unit(benchmark::kMillisecond);

wharfy::SessionBuilder builderFor(const FakeAgent& agent) {
    return wharfy::SessionBuilder(
        wharfy::AgentCatalog(agent.home()),
        wharfy::ProjectResolver(agent.home(), true, &wharfy::ProjectResolver::pathExists),
        static_cast<uint32_t>(::getuid()));
}

// The builder alone on one sample, with the live argument and directory reads:
// what sessions adds to the sampler's read.
void AgentsBuildOnly(benchmark::State& state) {
    FakeAgent& agent = fakeAgent();
    if (!agent.running()) {
        state.SkipWithError("the fake agent did not start");
        return;
    }
    auto builder = builderFor(agent);
    auto sampler = liveSampler();
    const auto sample = sampler.sample();
    std::vector<char> buffer;
    for (auto _ : state) {
        auto all = builder.build(
            sample.processes, [&](int32_t pid) { return ProcessReader::arguments(pid, buffer); },
            [](int32_t pid) { return ProcessReader::currentDirectory(pid); });
        benchmark::DoNotOptimize(all);
    }
}
BENCHMARK(AgentsBuildOnly)->Unit(benchmark::kMillisecond);

void AgentsLiveSessions(benchmark::State& state) {
    FakeAgent& agent = fakeAgent();
    if (!agent.running()) {
        state.SkipWithError("the fake agent did not start");
        return;
    }
    auto builder = builderFor(agent);
    wharfy::LiveAgentSource source;
    size_t sessions = 0, processes = 0;
    for (auto _ : state) {
        auto all = source.sessions(builder);
        sessions = all.size();
        processes = 0;
        for (const auto& s : all)
            processes += s.processCount();
        benchmark::DoNotOptimize(all);
    }
    state.counters["sessions"] = static_cast<double>(sessions);
    state.counters["sessionProcesses"] = static_cast<double>(processes);
}
BENCHMARK(AgentsLiveSessions)->Unit(benchmark::kMillisecond);

}  // namespace
