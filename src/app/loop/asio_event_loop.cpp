#include "app/loop/asio_event_loop.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>

#include <chrono>
#include <csignal>

namespace wharfy::app {

class AsioEventLoop::AsioMailbox final : public EventLoop::Mailbox {
  public:
    explicit AsioMailbox(asio::io_context* io) : io_(io) {}
    void post(Task task) override {
        std::lock_guard lock(mutex_);
        if (io_) asio::post(*io_, std::move(task));
    }
    void close() {
        std::lock_guard lock(mutex_);
        io_ = nullptr;
    }

  private:
    std::mutex mutex_;
    asio::io_context* io_;
};

struct AsioEventLoop::Watch {
    asio::posix::stream_descriptor descriptor;
    std::function<void()> ready;
    bool active = true;
    Watch(asio::io_context& io, int fd, std::function<void()> r)
        : descriptor(io, fd), ready(std::move(r)) {}
};

AsioEventLoop::AsioEventLoop(WorkerPool::Log log)
    : guard_(asio::make_work_guard(io_)),
      mailbox_(std::make_shared<AsioMailbox>(&io_)),
      signals_(io_),
      refreshSignals_(io_),
      pool_(8, std::chrono::seconds(30), std::move(log)) {}

AsioEventLoop::~AsioEventLoop() {
    mailbox_->close();
    for (auto& [fd, w] : watches_) {
        w->active = false;
        w->descriptor.release();  // the descriptor belongs to whoever watched it
    }
    pool_.shutdown(std::chrono::milliseconds(500));
}

std::shared_ptr<EventLoop::Mailbox> AsioEventLoop::mailbox() {
    return mailbox_;
}

void AsioEventLoop::post(Task task) {
    mailbox_->post(std::move(task));
}

EventLoop::TimerId AsioEventLoop::after(double seconds, Task task) {
    const TimerId id = nextTimer_++;
    auto timer = std::make_unique<asio::steady_timer>(io_);
    timer->expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds < 0 ? 0 : seconds)));
    timer->async_wait([this, id, task = std::move(task)](const asio::error_code& error) {
        if (error) return;
        timers_.erase(id);
        task();
    });
    timers_.emplace(id, std::move(timer));
    return id;
}

void AsioEventLoop::cancel(TimerId timer) {
    // Destroying the timer cancels its wait, whose handler then sees the
    // error and touches nothing.
    timers_.erase(timer);
}

double AsioEventLoop::now() const {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void AsioEventLoop::onEndingSignal(std::function<void(int)> handler) {
    signalHandler_ = std::move(handler);
    signals_.add(SIGTERM);
    signals_.add(SIGINT);
    signals_.add(SIGHUP);
    struct Wait {
        AsioEventLoop* loop;
        void operator()(const asio::error_code& error, int signal) const {
            if (error) return;
            if (loop->signalHandler_) loop->signalHandler_(signal);
            loop->signals_.async_wait(*this);
        }
    };
    signals_.async_wait(Wait{this});
}

void AsioEventLoop::onRefreshSignal(std::function<void()> handler) {
    refreshHandler_ = std::move(handler);
    refreshSignals_.add(SIGUSR1);
    struct Wait {
        AsioEventLoop* loop;
        void operator()(const asio::error_code& error, int) const {
            if (error) return;
            if (loop->refreshHandler_) loop->refreshHandler_();
            loop->refreshSignals_.async_wait(*this);
        }
    };
    refreshSignals_.async_wait(Wait{this});
}

void AsioEventLoop::watch(int fd, Task ready) {
    auto w = std::make_shared<Watch>(io_, fd, std::move(ready));
    watches_[fd] = w;
    struct Wait {
        std::weak_ptr<Watch> watch;
        void operator()(const asio::error_code& error) const {
            auto w = watch.lock();
            if (!w || error || !w->active) return;
            w->ready();
            if (w->active)
                w->descriptor.async_wait(asio::posix::stream_descriptor::wait_read, *this);
        }
    };
    w->descriptor.async_wait(asio::posix::stream_descriptor::wait_read, Wait{w});
}

void AsioEventLoop::unwatch(int fd) {
    auto it = watches_.find(fd);
    if (it == watches_.end()) return;
    auto w = it->second;
    watches_.erase(it);
    w->active = false;
    w->descriptor.cancel();
    w->descriptor.release();
    // Keep the watch alive until its cancelled wait has run.
    asio::post(io_, [w] {});
}

void AsioEventLoop::run() {
    io_.restart();
    io_.run();
}

void AsioEventLoop::stop() {
    io_.stop();
}

}  // namespace wharfy::app
