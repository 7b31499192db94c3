#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "notify/notifier.h"

namespace wharfy {

/// Runs a notifier's blocking calls on one worker thread, so that posting never
/// blocks the caller. Each answer is handed to a callback on the worker thread;
/// the caller moves it onto its own thread. At most `maxWaiting` calls wait
/// behind the one in progress, so a hung desktop cannot make the queue grow.
class BackgroundNotifier {
  public:
    using Answer = std::function<void(bool)>;

    explicit BackgroundNotifier(std::shared_ptr<Notifier> notifier, std::size_t maxWaiting = 16);
    /// Drops the calls that have not started, without answering them, and waits
    /// for the one in progress (bounded by the notifier's own time-outs).
    ~BackgroundNotifier();
    BackgroundNotifier(const BackgroundNotifier&) = delete;
    BackgroundNotifier& operator=(const BackgroundNotifier&) = delete;

    /// Queues a post. False when the queue is full: the request is dropped and
    /// `answer` is never called.
    bool post(NotificationRequest request, Answer answer);
    /// Queues a permission request; false when the queue is full, as for `post`.
    bool requestPermission(Answer answer);

  private:
    bool enqueue(std::function<void()> call);
    void run();

    std::shared_ptr<Notifier> notifier_;
    const std::size_t maxWaiting_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> waiting_;
    bool stopping_ = false;
    std::thread worker_;
};

}  // namespace wharfy
