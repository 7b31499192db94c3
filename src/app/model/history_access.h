#pragma once

#include <memory>
#include <optional>

#include "core/history/history_store.h"
#include "core/history/history_summary.h"

namespace wharfy::app {

/// The history folder as the model uses it. Calls block and are made from
/// background threads.
class HistoryAccess {
  public:
    virtual ~HistoryAccess() = default;
    /// Appends one line; the failure is a sentence for the log.
    virtual Result<Ok, std::string> append(const HistoryEntry& entry) = 0;
    /// The week up to `now`, summarised.
    virtual HistorySummary summary(double now) = 0;
    /// Deletes the day files that fell out of the week.
    virtual void prune(double now) = 0;
};

/// Over a history store.
class StoreHistoryAccess final : public HistoryAccess {
  public:
    explicit StoreHistoryAccess(HistoryStore store) : store_(std::move(store)) {}
    Result<Ok, std::string> append(const HistoryEntry& entry) override {
        auto written = store_.append(entry);
        if (!written) return written.error().description();
        return Ok{};
    }
    HistorySummary summary(double now) override {
        HistorySummaryBuilder builder(store_.calendar(), now);
        store_.forEachEntry(now, [&](const HistoryEntry& entry) { builder.add(entry); });
        return std::move(builder).finish();
    }
    void prune(double now) override { store_.prune(now); }

  private:
    HistoryStore store_;
};

}  // namespace wharfy::app
