#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "suite/host_lock.h"

namespace wharfy::testing {

/// Counts acquisitions and tells when the lock thread has ended: the thread
/// owns the only copy of the callback, so the callback's token expires with it.
class HostLockProbe {
  public:
    std::function<void()> onAcquire() {
        auto token = std::make_shared<int>(0);
        token_ = token;
        return [this, token] {
            std::lock_guard guard(mutex_);
            ++acquired_;
            changed_.notify_all();
        };
    }
    nemarro::suite::HostLock::Log log() {
        return [this](const std::string& message) {
            std::lock_guard guard(mutex_);
            messages_.push_back(message);
        };
    }
    bool waitAcquired() {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, std::chrono::seconds(20), [this] { return acquired_ > 0; });
    }
    bool waitThreadEnded() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!token_.expired() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return token_.expired();
    }
    int acquired() {
        std::lock_guard guard(mutex_);
        return acquired_;
    }
    std::vector<std::string> messages() {
        std::lock_guard guard(mutex_);
        return messages_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int acquired_ = 0;
    std::vector<std::string> messages_;
    std::weak_ptr<int> token_;
};

}  // namespace wharfy::testing
