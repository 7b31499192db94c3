#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "suite/host_lock.h"

namespace wharfy::testing {

/// Lock files that answer from a script, or pass through to `real` ones, and
/// record every call, for the host lock's waiting rules. Each queue is consumed
/// in order; once empty, opens and locks succeed and files are still named.
/// Safe to use from the lock thread.
class FakeLockFiles final : public nemarro::suite::LockFiles {
  public:
    explicit FakeLockFiles(std::shared_ptr<nemarro::suite::LockFiles> real = nullptr)
        : real_(std::move(real)) {}

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
        Opened opened{nextFd_, take(openErrors, 0)};
        if (real_)
            opened = real_->open(path);
        else if (opened.error != 0)
            opened.fd = -1;
        else
            ++nextFd_;
        if (opened.fd < 0) {
            record("open " + path + " failed");
            return opened;
        }
        open_.insert(opened.fd);
        record("open " + path + " " + std::to_string(opened.fd));
        return opened;
    }
    int lock(int fd) override {
        std::unique_lock guard(mutex_);
        record("lock " + std::to_string(fd));
        changed_.wait(guard, [&] { return blocked_.count(fd) == 0; });
        if (!real_) return take(lockResults, 0);
        guard.unlock();  // the real lock may block for as long as another holds it
        return real_->lock(fd);
    }
    bool stillNamed(int fd, const std::string& path) override {
        std::lock_guard guard(mutex_);
        const bool answer = real_ ? real_->stillNamed(fd, path) : take(named, true);
        record("named " + std::to_string(fd) + (answer ? "" : " stale"));
        return answer;
    }
    void close(int fd) override {
        std::lock_guard guard(mutex_);
        open_.erase(fd);
        if (real_) real_->close(fd);
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
    /// Waits until `count` calls starting with `prefix` have been recorded; false after 20 s.
    bool waitForCall(const std::string& prefix, size_t count = 1) {
        std::unique_lock guard(mutex_);
        return changed_.wait_for(guard, std::chrono::seconds(20),
                                 [&] { return countOf(prefix) >= count; });
    }

  private:
    size_t countOf(const std::string& prefix) const {
        size_t n = 0;
        for (const auto& c : calls_)
            if (c.rfind(prefix, 0) == 0) ++n;
        return n;
    }
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

    std::shared_ptr<nemarro::suite::LockFiles> real_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::set<int> blocked_;
    int nextFd_ = 3;
    std::set<int> open_;
    std::vector<std::string> calls_;
};

}  // namespace wharfy::testing
