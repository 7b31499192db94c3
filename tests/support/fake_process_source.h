#pragma once

#include <map>
#include <optional>
#include <vector>

#include "process/process_sampler.h"

namespace wharfy::testing {

/// A process table held in memory for the sampler; tests change it between
/// samples (advance CPU ticks, add or remove processes). Shared with the
/// test through a pointer, since the sampler owns its source.
class FakeProcessSource final : public nemarro::process::ProcessSource {
  public:
    struct Entry {
        nemarro::process::ProcessIdentity identity;
        nemarro::process::RawUsage usage;
    };

    /// Keyed by pid; listed in pid order.
    std::map<int32_t, Entry> table;
    int listings = 0;

    std::vector<int32_t> allPIDs() override {
        ++listings;
        std::vector<int32_t> pids;
        for (const auto& [pid, entry] : table)
            pids.push_back(pid);
        return pids;
    }
    std::optional<nemarro::process::ProcessIdentity> identity(int32_t pid) override {
        auto found = table.find(pid);
        if (found == table.end()) return std::nullopt;
        return found->second.identity;
    }
    std::optional<nemarro::process::RawUsage> usage(int32_t pid) override {
        auto found = table.find(pid);
        if (found == table.end()) return std::nullopt;
        return found->second.usage;
    }
};

}  // namespace wharfy::testing
