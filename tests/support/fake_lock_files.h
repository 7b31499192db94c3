#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "suite/host_lock.h"

namespace wharfy::testing {

/// Lock files that answer from a script and record every call, for the host
/// lock's waiting rules. Each queue is consumed in order; once empty, opens
/// and locks succeed and files are still named. Safe to use from the lock thread.
class FakeLockFiles final : public nemarro::suite::LockFiles {
  public:
    /// Error numbers of the next opens; 0 opens.
    std::deque<int> openErrors;
    /// Results of the next locks; 0 locks.
    std::deque<int> lockResults;
    /// Answers of the next identity checks.
    std::deque<bool> named;

    /// lock(fd) of this descriptor waits until unblock(), as if another process held it.
    void block(int fd) {
        std::lock_guard guard(mutex_);
        blocked_.insert(fd);
    }
    void unblock() {
        {
            std::lock_guard guard(mutex_);
            blocked_.clear();
        }
        changed_.notify_all();
    }

    Opened open(const std::string& path) override {
        std::lock_guard guard(mutex_);
        const int error = take(openErrors, 0);
        if (error != 0) {
            record("open " + path + " failed");
            return {-1, error};
        }
        const int fd = nextFd_++;
        open_.insert(fd);
        record("open " + path + " " + std::to_string(fd));
        return {fd, 0};
    }
    int lock(int fd) override {
        std::unique_lock guard(mutex_);
        record("lock " + std::to_string(fd));
        changed_.wait(guard, [&] { return blocked_.count(fd) == 0; });
        return take(lockResults, 0);
    }
    bool stillNamed(int fd, const std::string&) override {
        std::lock_guard guard(mutex_);
        record("named " + std::to_string(fd));
        return take(named, true);
    }
    void close(int fd) override {
        std::lock_guard guard(mutex_);
        open_.erase(fd);
        record("close " + std::to_string(fd));
    }

    std::vector<std::string> calls() const {
        std::lock_guard guard(mutex_);
        return calls_;
    }
    std::set<int> openDescriptors() const {
        std::lock_guard guard(mutex_);
        return open_;
    }
    /// Waits until `call` has been recorded; false after `seconds`.
    bool waitForCall(const std::string& call, double seconds = 20) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, std::chrono::duration<double>(seconds), [&] {
            for (const auto& c : calls_)
                if (c == call) return true;
            return false;
        });
    }

  private:
    template <typename T>
    static T take(std::deque<T>& queue, T otherwise) {
        if (queue.empty()) return otherwise;
        T v = queue.front();
        queue.pop_front();
        return v;
    }
    void record(std::string call) {
        calls_.push_back(std::move(call));
        changed_.notify_all();
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::set<int> blocked_;
    int nextFd_ = 3;
    std::set<int> open_;
    std::vector<std::string> calls_;
};

}  // namespace wharfy::testing
