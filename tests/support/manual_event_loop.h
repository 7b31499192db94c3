#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "app/loop/event_loop.h"
#include "app/loop/worker_pool.h"

namespace wharfy::testing {

/// An event loop on a clock the test moves. Background work runs on real
/// threads (so a reader can block until the test releases it); what they
/// post waits in a queue until the test drains it on its own thread.
class ManualEventLoop final : public app::EventLoop {
  public:
    explicit ManualEventLoop(double start = 1'767'225'600.0)
        : now_(start), mailbox_(std::make_shared<Queue>()) {}

    std::shared_ptr<Mailbox> mailbox() override { return mailbox_; }
    void post(Task task) override { mailbox_->post(std::move(task)); }
    TimerId after(double seconds, Task task) override {
        const TimerId id = next_++;
        timers_.emplace(id, Timer{now_ + (seconds < 0 ? 0 : seconds), std::move(task)});
        return id;
    }
    void cancel(TimerId timer) override { timers_.erase(timer); }
    void background(Task work) override {
        ++backgroundJobs;
        pool_.submit(std::move(work));
    }
    double now() const override { return now_; }
    /// Watched descriptors are not polled; a test calls `ready(fd)` itself.
    void watch(int fd, Task ready) override { watches_[fd] = std::move(ready); }
    void unwatch(int fd) override { watches_.erase(fd); }
    /// Plays "`fd` can be read": runs its watcher, if any. Whether there was one.
    bool ready(int fd) {
        auto it = watches_.find(fd);
        if (it == watches_.end()) return false;
        Task copy = it->second;
        copy();
        return true;
    }

    /// Runs every posted task, including those posted meanwhile.
    void drain() {
        while (auto task = mailbox_->take())
            (*task)();
    }
    /// Drains until `done` holds, waiting for background results up to `limit`.
    template <typename Pred>
    bool drainUntil(Pred done, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        const auto end = std::chrono::steady_clock::now() + limit;
        for (;;) {
            drain();
            if (done()) return true;
            if (std::chrono::steady_clock::now() >= end) return false;
            mailbox_->waitForTask(std::chrono::milliseconds(20));
        }
    }
    /// Moves the clock forward, firing due timers in time order.
    void advance(double seconds) {
        const double target = now_ + seconds;
        for (;;) {
            drain();
            auto next = timers_.end();
            for (auto it = timers_.begin(); it != timers_.end(); ++it)
                if (it->second.at <= target &&
                    (next == timers_.end() || it->second.at < next->second.at))
                    next = it;
            if (next == timers_.end()) break;
            now_ = std::max(now_, next->second.at);
            Task task = std::move(next->second.task);
            timers_.erase(next);
            task();
        }
        now_ = target;
        drain();
    }
    /// Seconds until the earliest timer fires; absent when none is set.
    std::optional<double> nextTimerIn() const {
        std::optional<double> best;
        for (const auto& [id, t] : timers_)
            if (!best || t.at - now_ < *best) best = t.at - now_;
        return best;
    }
    size_t timerCount() const { return timers_.size(); }

    int backgroundJobs = 0;

  private:
    struct Timer {
        double at;
        Task task;
    };
    class Queue final : public Mailbox {
      public:
        void post(Task task) override {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
            ready_.notify_all();
        }
        std::optional<Task> take() {
            std::lock_guard lock(mutex_);
            if (tasks_.empty()) return std::nullopt;
            Task t = std::move(tasks_.front());
            tasks_.pop_front();
            return t;
        }
        void waitForTask(std::chrono::milliseconds limit) {
            std::unique_lock lock(mutex_);
            ready_.wait_for(lock, limit, [&] { return !tasks_.empty(); });
        }

      private:
        std::mutex mutex_;
        std::condition_variable ready_;
        std::deque<Task> tasks_;
    };

    double now_;
    std::shared_ptr<Queue> mailbox_;
    std::map<TimerId, Timer> timers_;
    std::map<int, Task> watches_;
    TimerId next_ = 1;
    app::WorkerPool pool_;
};

}  // namespace wharfy::testing
