#include "app/loop/worker_pool.h"

#include <cstdio>
#include <exception>
#include <thread>

namespace wharfy::app {

WorkerPool::WorkerPool(size_t maxThreads, std::chrono::milliseconds idleExit, Log log)
    : state_(std::make_shared<State>()),
      maxThreads_(maxThreads ? maxThreads : 1),
      idleExit_(idleExit) {
    state_->log = std::move(log);
}

WorkerPool::~WorkerPool() {
    shutdown(std::chrono::seconds(2));
}

void WorkerPool::submit(Job job) {
    std::unique_lock lock(state_->mutex);
    if (state_->stopping) return;
    state_->queue.push_back(std::move(job));
    // Every queued job needs an idle thread of its own, else a new thread.
    if (state_->waiting >= state_->queue.size()) {
        state_->wake.notify_one();
        return;
    }
    if (state_->threads < maxThreads_) {
        ++state_->threads;
        lock.unlock();
        // The thread owns a share of the state, so it may outlive the pool.
        std::thread(&WorkerPool::work, state_, idleExit_).detach();
    }
}

void WorkerPool::work(const std::shared_ptr<State>& state, std::chrono::milliseconds idleExit) {
    std::unique_lock lock(state->mutex);
    for (;;) {
        ++state->waiting;
        const bool woke = state->wake.wait_for(
            lock, idleExit, [&] { return state->stopping || !state->queue.empty(); });
        --state->waiting;
        if (state->stopping || !woke) break;
        Job job = std::move(state->queue.front());
        state->queue.pop_front();
        ++state->busy;
        lock.unlock();
        try {
            job();
        } catch (const std::exception& e) {
            const std::string message = std::string("a background read failed: ") + e.what();
            if (state->log)
                state->log(message);
            else
                std::fprintf(stderr, "wharfy: %s\n", message.c_str());
        }
        lock.lock();
        --state->busy;
    }
    --state->threads;
    state->idle.notify_all();
}

bool WorkerPool::shutdown(std::chrono::milliseconds grace) {
    std::unique_lock lock(state_->mutex);
    state_->stopping = true;
    state_->queue.clear();
    state_->wake.notify_all();
    return state_->idle.wait_for(lock, grace, [&] { return state_->threads == 0; });
}

size_t WorkerPool::threadCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->threads;
}

}  // namespace wharfy::app
