#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/model/history_access.h"
#include "app/model/machine_reader.h"

namespace wharfy::testing {

/// A machine the test describes. Calls are recorded in order; the reads of a
/// runtime can be held until the test releases them, as a hung engine would.
class FakeMachineReader final : public app::MachineReader {
  public:
    app::ProcessReading processes;
    std::map<std::string, app::RuntimeReading> runtimeReadings;
    std::map<std::string, Result<CachedSizes, std::string>> sizeReadings;

    app::ProcessReading readProcesses() override {
        std::lock_guard lock(mutex_);
        calls_.push_back("processes");
        return processes;
    }
    app::RuntimeReading readRuntime(const RuntimeInfo& runtime) override {
        std::unique_lock lock(mutex_);
        calls_.push_back("runtime " + runtime.id());
        released_.wait(lock, [&] { return !held_.contains(runtime.id()); });
        auto it = runtimeReadings.find(runtime.id());
        return it == runtimeReadings.end() ? app::RuntimeReading{} : it->second;
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
