#pragma once

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "app/loop/event_loop.h"
#include "app/loop/worker_pool.h"

namespace wharfy::app {

/// The real loop: an Asio io_context run by the main thread, steady timers,
/// the ending signals, descriptors to watch, and a worker pool.
class AsioEventLoop final : public EventLoop {
  public:
    /// `log` hears of background work that failed; by default standard error.
    explicit AsioEventLoop(WorkerPool::Log log = {});
    ~AsioEventLoop() override;

    std::shared_ptr<Mailbox> mailbox() override;
    void post(Task task) override;
    TimerId after(double seconds, Task task) override;
    void cancel(TimerId timer) override;
    void background(Task work) override { pool_.submit(std::move(work)); }
    double now() const override;

    /// Calls `handler` on the loop when SIGTERM, SIGINT or SIGHUP arrives.
    void onEndingSignal(std::function<void(int signal)> handler);
    /// Calls `handler` on the loop each time SIGUSR1 arrives: "refresh now".
    void onRefreshSignal(std::function<void()> handler);
    void watch(int fd, Task ready) override;
    void unwatch(int fd) override;

    /// Runs tasks until `stop`.
    void run();
    /// Makes `run` return; safe from any thread.
    void stop();
    /// Ends the background threads, waiting up to `grace` for running reads.
    bool shutdownWorkers(std::chrono::milliseconds grace) { return pool_.shutdown(grace); }

    asio::io_context& context() { return io_; }

  private:
    class AsioMailbox;
    struct Watch;

    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::shared_ptr<AsioMailbox> mailbox_;
    asio::signal_set signals_;
    std::function<void(int)> signalHandler_;
    asio::signal_set refreshSignals_;
    std::function<void()> refreshHandler_;
    std::map<TimerId, std::unique_ptr<asio::steady_timer>> timers_;
    std::map<int, std::shared_ptr<Watch>> watches_;
    TimerId nextTimer_ = 1;
    WorkerPool pool_;
};

}  // namespace wharfy::app
