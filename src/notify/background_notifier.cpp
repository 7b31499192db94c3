#include "notify/background_notifier.h"

#include <utility>

namespace wharfy {

BackgroundNotifier::BackgroundNotifier(std::shared_ptr<Notifier> notifier, std::size_t maxWaiting)
    : notifier_(std::move(notifier)), maxWaiting_(maxWaiting), worker_([this] { run(); }) {}

BackgroundNotifier::~BackgroundNotifier() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        waiting_.clear();
    }
    wake_.notify_one();
    worker_.join();
}

bool BackgroundNotifier::post(NotificationRequest request, Answer answer) {
    return enqueue([this, request = std::move(request), answer = std::move(answer)] {
        answer(notifier_->post(request));
    });
}

bool BackgroundNotifier::requestPermission(Answer answer) {
    return enqueue([this, answer = std::move(answer)] { answer(notifier_->requestPermission()); });
}

bool BackgroundNotifier::enqueue(std::function<void()> call) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_ || waiting_.size() >= maxWaiting_) return false;
        waiting_.push_back(std::move(call));
    }
    wake_.notify_one();
    return true;
}

void BackgroundNotifier::run() {
    for (;;) {
        std::function<void()> call;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
            if (stopping_) return;
            call = std::move(waiting_.front());
            waiting_.pop_front();
        }
        call();
    }
}

}  // namespace wharfy
