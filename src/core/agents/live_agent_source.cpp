#include "core/agents/agent_session.h"
#include "process/process_reader.h"
#include "process/tick_clock.h"

namespace wharfy {

using nemarro::process::LiveProcessSource;
using nemarro::process::ProcessReader;
using nemarro::process::ProcessSampler;
using nemarro::process::TickClock;

LiveAgentSource::LiveAgentSource()
    : LiveAgentSource(ProcessSampler(std::make_unique<LiveProcessSource>(), TickClock::current(),
                                     &ProcessSampler::monotonicNow)) {}

LiveAgentSource::LiveAgentSource(ProcessSampler sampler) : sampler_(std::move(sampler)) {}

std::vector<AgentSession> LiveAgentSource::sessions(const SessionBuilder& builder) {
    // The lock covers the sampler's memory of the previous sample as well as
    // the shared argument buffer.
    std::lock_guard guard(lock_);
    auto sample = sampler_.sample();
    return builder.build(
        sample.processes,
        [this](int32_t pid) { return ProcessReader::arguments(pid, argumentBuffer_); },
        [](int32_t pid) { return ProcessReader::currentDirectory(pid); });
}

}  // namespace wharfy
