#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "notify/notifier.h"

namespace wharfy::testing {

/// Records every post and permission request and answers both with `accepts`
/// (true unless set). Safe to use from a worker thread. `hold()` makes calls
/// wait until `release()` (or 10 s, so that a faulty test fails instead of
/// hanging), to play a desktop that does not answer.
class RecordingNotifier final : public Notifier {
  public:
    bool post(const NotificationRequest& request) override {
        std::unique_lock lock(mutex_);
        ++started_;
        changed_.notify_all();
        changed_.wait_for(lock, std::chrono::seconds(10), [this] { return !held_; });
        posted_.push_back(request);
        return accepts_;
    }

    bool requestPermission() override {
        std::unique_lock lock(mutex_);
        ++started_;
        changed_.notify_all();
        changed_.wait_for(lock, std::chrono::seconds(10), [this] { return !held_; });
        ++permissionRequests_;
        return accepts_;
    }

    void setAccepts(bool accepts) {
        std::lock_guard lock(mutex_);
        accepts_ = accepts;
    }
    void hold() {
        std::lock_guard lock(mutex_);
        held_ = true;
    }
    void release() {
        std::lock_guard lock(mutex_);
        held_ = false;
        changed_.notify_all();
    }
    /// Waits (at most 10 s) until `count` calls have started; whether they have.
    bool waitForStarted(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return started_ >= count; });
    }
    std::vector<NotificationRequest> posted() const {
        std::lock_guard lock(mutex_);
        return posted_;
    }
    int permissionRequests() const {
        std::lock_guard lock(mutex_);
        return permissionRequests_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool accepts_ = true;
    bool held_ = false;
    int started_ = 0;
    int permissionRequests_ = 0;
    std::vector<NotificationRequest> posted_;
};

/// A flag kept in memory, standing in for the settings file.
class MemoryFlagStore final : public FlagStore {
  public:
    explicit MemoryFlagStore(bool value = false) : value_(value) {}
    bool get() const override { return value_; }
    void set(bool value) override { value_ = value; }

  private:
    bool value_;
};

}  // namespace wharfy::testing
