#pragma once

#include <map>

#include "process/process_sampler.h"

namespace wharfy::testing {

/// A process table the test edits between samples.
class FakeProcessSource final : public nemarro::process::ProcessSource {
  public:
    struct Entry {
        uint64_t start = 1;
        nemarro::process::RawUsage raw;
        bool hidden = false;
    };
    std::map<int32_t, Entry>* table;
    explicit FakeProcessSource(std::map<int32_t, Entry>* t) : table(t) {}
    std::vector<int32_t> allPIDs() override {
        std::vector<int32_t> pids;
        for (const auto& [pid, e] : *table)
            pids.push_back(pid);
        return pids;
    }
    std::optional<nemarro::process::ProcessIdentity> identity(int32_t pid) override {
        auto it = table->find(pid);
        if (it == table->end()) return std::nullopt;
        return nemarro::process::ProcessIdentity{pid, it->second.start};
    }
    std::optional<nemarro::process::RawUsage> usage(int32_t pid) override {
        auto it = table->find(pid);
        if (it == table->end() || it->second.hidden) return std::nullopt;
        return it->second.raw;
    }
};

}  // namespace wharfy::testing
