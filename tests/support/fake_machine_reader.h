#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/model/history_access.h"
#include "app/model/machine_actions.h"
#include "app/model/machine_reader.h"

namespace wharfy::testing {

/// A machine the test describes. Calls are recorded in order; the reads of a
/// runtime can be held until the test releases them, as a hung engine would.
class FakeMachineReader final : public app::MachineReader {
  public:
    app::ProcessReading processes;
    /// Found in this order; each answers as its `runtime` says.
    std::vector<RuntimeCandidate> runtimes;
    std::map<std::string, app::RuntimeReading> runtimeReadings;
    std::map<std::string, Result<CachedSizes, std::string>> sizeReadings;

    app::ProcessReading readProcesses() override {
        std::lock_guard lock(mutex_);
        calls_.push_back("processes");
        return processes;
    }
    std::vector<RuntimeCandidate> findRuntimes() override {
        std::lock_guard lock(mutex_);
        calls_.push_back("find");
        return runtimes;
    }
    app::RuntimeReading readRuntime(const RuntimeCandidate& candidate) override {
        std::unique_lock lock(mutex_);
        const std::string id = candidate.runtime.id();
        calls_.push_back("runtime " + id);
        released_.wait(lock, [&] { return !held_.contains(id); });
        auto it = runtimeReadings.find(id);
        app::RuntimeReading reading = it == runtimeReadings.end() ? app::RuntimeReading{} : it->second;
        reading.runtime = candidate.runtime;
        return reading;
    }
    Result<CachedSizes, std::string> readSizes(const RuntimeInfo& runtime,
                                               bool afterChange) override {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::string(afterChange ? "fresh sizes " : "sizes ") + runtime.id());
        auto it = sizeReadings.find(runtime.id());
        if (it == sizeReadings.end()) return std::string("no sizes");
        return it->second;
    }

    /// Reads of this runtime block until `release`.
    void hold(const std::string& id) {
        std::lock_guard lock(mutex_);
        held_.insert(id);
    }
    void release(const std::string& id) {
        std::lock_guard lock(mutex_);
        held_.erase(id);
        released_.notify_all();
    }
    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable released_;
    std::set<std::string> held_;
    std::vector<std::string> calls_;
};

/// Plans and actions the test decides: the plan (or refusal) for a process
/// name, and every stop carried out, recorded.
class FakeMachineActions final : public app::MachineActions {
  public:
    std::map<std::string, Result<StopPlan, std::string>> plans;

    Result<StopPlan, std::string> planStop(const PortRow& row) override {
        return planFor(row.processName, row.port);
    }
    Result<StopPlan, std::string> planStop(const nemarro::process::ProcessRef& process) override {
        return planFor(process.name, std::nullopt);
    }
    Result<StopPlan, std::string> planStop(const AgentSession& session) override {
        return planFor(session.root.name, std::nullopt);
    }
    Result<StopReport, std::string> stop(const StopPlan& plan, bool) override {
        std::lock_guard lock(mutex_);
        stopped_.push_back(plan);
        return StopReport{plan, {ProcessStopOutcome::StoppedPortFree{}}, {}};
    }
    Result<DockerCommand, std::string> command(const RuntimeInfo&,
                                               const ContainerAction&) override {
        return DockerCommand{"/usr/bin/docker", {"container", "prune"}};
    }
    Result<ActionReport, std::string> perform(const RuntimeInfo&,
                                              const ContainerAction& action) override {
        std::lock_guard lock(mutex_);
        performed_.push_back(action);
        ActionReport report;
        report.command = DockerCommand{"/usr/bin/docker", {"container", "prune"}};
        report.succeeded = true;
        return report;
    }

    std::vector<StopPlan> stopped() const {
        std::lock_guard lock(mutex_);
        return stopped_;
    }

  private:
    Result<StopPlan, std::string> planFor(const std::string& name, std::optional<uint16_t> port) {
        std::lock_guard lock(mutex_);
        auto it = plans.find(name);
        if (it == plans.end()) return std::string("no plan");
        if (!it->second) return it->second;
        StopPlan plan = it->second.value();
        if (!plan.port) plan.port = port;
        return plan;
    }
    mutable std::mutex mutex_;
    std::vector<StopPlan> stopped_;
    std::vector<ContainerAction> performed_;
};

/// A history folder in memory.
class FakeHistory final : public app::HistoryAccess {
  public:
    Result<Ok, std::string> append(const HistoryEntry& entry) override {
        std::lock_guard lock(mutex_);
        entries_.push_back(entry);
        return Ok{};
    }
    HistorySummary summary(double) override {
        std::lock_guard lock(mutex_);
        ++summaries_;
        HistorySummary summary;
        summary.entries = static_cast<int>(entries_.size());
        return summary;
    }
    void prune(double) override {}

    std::vector<HistoryEntry> entries() const {
        std::lock_guard lock(mutex_);
        return entries_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<HistoryEntry> entries_;
    int summaries_ = 0;
};

/// Settings kept in memory, recording every write.
class MemorySettings final : public app::SettingsStore {
  public:
    std::map<std::string, nlohmann::json, std::less<>> values;
    std::vector<std::string> writes;

    std::optional<nlohmann::json> value(std::string_view key) const override {
        auto it = values.find(key);
        if (it == values.end()) return std::nullopt;
        return it->second;
    }
    Result<Ok, FileError> set(std::string_view key, nlohmann::json value) override {
        writes.emplace_back(key);
        values[std::string(key)] = std::move(value);
        return Ok{};
    }
};

}  // namespace wharfy::testing
