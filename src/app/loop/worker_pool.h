#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace wharfy::app {

/// Threads for the slow reads (processes, engines, files), so that the
/// main thread only ever waits on its own loop. Threads start on demand up to
/// `maxThreads` and end after a while without work. A job that blocks (a
/// hung engine up to its deadline) holds one thread and delays no other job
/// while a thread is free.
class WorkerPool {
  public:
    using Job = std::function<void()>;

    using Log = std::function<void(const std::string&)>;

    /// `log` hears of a job that failed with an exception; by default
    /// standard error.
    explicit WorkerPool(size_t maxThreads = 8,
                        std::chrono::milliseconds idleExit = std::chrono::seconds(30),
                        Log log = {});
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Queues `job`; ignored once shutdown has begun.
    void submit(Job job);

    /// Stops taking jobs, lets queued ones be dropped, and waits up to `grace`
    /// for running jobs to finish. Jobs still running after that are left to
    /// end on their own (every read has a deadline); their threads never touch
    /// the pool's owner again. Returns whether everything finished in time.
    bool shutdown(std::chrono::milliseconds grace);

    /// Threads running now (for tests and diagnostics).
    size_t threadCount() const;

  private:
    struct State {
        mutable std::mutex mutex;
        std::condition_variable wake;
        std::condition_variable idle;
        std::deque<Job> queue;
        size_t threads = 0;
        size_t waiting = 0;
        size_t busy = 0;
        bool stopping = false;
        Log log;
    };
    static void work(const std::shared_ptr<State>& state, std::chrono::milliseconds idleExit);

    std::shared_ptr<State> state_;
    size_t maxThreads_;
    std::chrono::milliseconds idleExit_;
};

}  // namespace wharfy::app
