#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace wharfy::app {

/// The main thread's loop as the model sees it. Everything the model owns is
/// touched only from tasks this loop runs; slow work goes to `background`
/// and comes back through `post`. The real loop waits on I/O and timers only.
class EventLoop {
  public:
    using Task = std::function<void()>;
    using TimerId = uint64_t;

    /// Where any thread may post tasks for the loop. It outlives the loop:
    /// once the loop is gone, posts are dropped.
    class Mailbox {
      public:
        virtual ~Mailbox() = default;
        virtual void post(Task task) = 0;
    };

    virtual ~EventLoop() = default;

    /// The loop's mailbox, for work that may finish after the loop ends.
    virtual std::shared_ptr<Mailbox> mailbox() = 0;

    /// Runs `task` on the loop's thread, after what is already queued. Safe
    /// from any thread.
    virtual void post(Task task) = 0;
    /// Runs `task` on the loop's thread once `seconds` have passed.
    virtual TimerId after(double seconds, Task task) = 0;
    /// Cancels a timer that has not fired; unknown ids are ignored.
    virtual void cancel(TimerId timer) = 0;
    /// Runs `work` on a background thread.
    virtual void background(Task work) = 0;
    /// Calls `ready` on the loop's thread each time `fd` can be read, until
    /// `unwatch`. The descriptor stays the caller's.
    virtual void watch(int fd, Task ready) = 0;
    virtual void unwatch(int fd) = 0;
    /// The wall-clock time, seconds since 1970: the `now` of every rule.
    virtual double now() const = 0;
};

/// Runs `work` on a background thread and then `done(result)` on the loop.
/// `alive` guards the owner: when it has expired, `done` is dropped.
template <typename Work, typename Done>
void runInBackground(EventLoop& loop, std::weak_ptr<void> alive, Work work, Done done) {
    loop.background([mailbox = loop.mailbox(), alive = std::move(alive), work = std::move(work),
                     done = std::move(done)]() mutable {
        using Value = decltype(work());
        auto value = std::make_shared<Value>(work());
        mailbox->post([alive = std::move(alive), value, done = std::move(done)]() mutable {
            if (alive.lock()) done(std::move(*value));
        });
    });
}

}  // namespace wharfy::app
