#include "suite/host_lock.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "suite/suite_folder.h"

namespace nemarro::suite {

struct HostLock::Shared {
    Shared(std::vector<std::string> p, std::shared_ptr<LockFiles> f, Log l, Options o)
        : paths(std::move(p)), files(std::move(f)), log(std::move(l)), options(o) {}

    const std::vector<std::string> paths;
    const std::shared_ptr<LockFiles> files;
    const Log log;
    const Options options;

    std::mutex mutex;
    std::condition_variable wake;
    bool started = false;
    bool held = false;
    bool cancelled = false;
    std::vector<int> fds;

    bool isCancelled() {
        std::lock_guard guard(mutex);
        return cancelled;
    }

    /// Pauses before the next attempt; true when the pause ended by release.
    bool pause() {
        std::unique_lock guard(mutex);
        return wake.wait_for(guard, std::chrono::duration<double>(options.retrySeconds),
                             [this] { return cancelled; });
    }

    void report(const std::string& message) {
        if (log) log(message);
    }

    /// The descriptor of `path`, locked; absent when released first.
    std::optional<int> waitFor(const std::string& path) {
        bool loggedOpen = false;
        bool loggedLock = false;
        for (;;) {
            if (isCancelled()) return std::nullopt;
            const LockFiles::Opened opened = files->open(path);
            if (opened.fd < 0) {
                if (!loggedOpen)
                    report("cannot open " + path + ": errno " + std::to_string(opened.error) +
                           "; retrying every 5 s");
                loggedOpen = true;
                if (pause()) return std::nullopt;
                continue;
            }
            int error = 0;
            do {
                error = files->lock(opened.fd);
            } while (error == EINTR);
            if (error != 0) {
                files->close(opened.fd);
                if (!loggedLock)
                    report("cannot lock " + path + ": errno " + std::to_string(error) +
                           "; retrying every 5 s");
                loggedLock = true;
                if (pause()) return std::nullopt;
                continue;
            }
            // The file may have been deleted or replaced while this process waited:
            // then the lock is on a file nobody else will ever open.
            if (!files->stillNamed(opened.fd, path)) {
                files->close(opened.fd);
                continue;
            }
            return opened.fd;
        }
    }

    void run(const std::function<void()>& onAcquire) {
        for (const std::string& path : paths) {
            auto fd = waitFor(path);
            if (!fd) return;
            bool keep = false;
            {
                std::lock_guard guard(mutex);
                if (!cancelled) {
                    fds.push_back(*fd);
                    keep = true;
                }
            }
            if (!keep) {
                files->close(*fd);
                return;
            }
        }
        {
            std::lock_guard guard(mutex);
            if (cancelled) return;
            held = true;
        }
        if (onAcquire) onAcquire();
    }
};

std::vector<std::string> HostLock::standardized(std::vector<std::string> paths) {
    for (std::string& path : paths)
        path = SuiteFolder::at(path).path;
    std::sort(paths.begin(), paths.end());
    paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
    return paths;
}

HostLock::HostLock(std::vector<std::string> paths, std::shared_ptr<LockFiles> files, Log log,
                   Options options)
    : shared_(std::make_shared<Shared>(standardized(std::move(paths)), std::move(files),
                                       std::move(log), options)) {}

HostLock::~HostLock() {
    release();
}

const std::vector<std::string>& HostLock::paths() const {
    return shared_->paths;
}

void HostLock::start(std::function<void()> onAcquire) {
    {
        std::lock_guard guard(shared_->mutex);
        if (shared_->started) return;
        shared_->started = true;
        if (shared_->paths.empty()) return;
    }
    // The thread owns a share of the state: it may stay blocked in the lock
    // call long after this object is gone.
    try {
        std::thread([shared = shared_, onAcquire = std::move(onAcquire)] {
            prepareHostLockThread();
            shared->run(onAcquire);
        }).detach();
    } catch (const std::system_error& e) {
        shared_->report(std::string("cannot start the host lock thread: ") + e.what());
    }
}

bool HostLock::isHeld() const {
    std::lock_guard guard(shared_->mutex);
    return shared_->held;
}

void HostLock::release() {
    std::vector<int> taken;
    {
        std::lock_guard guard(shared_->mutex);
        shared_->cancelled = true;
        shared_->held = false;
        taken.swap(shared_->fds);
    }
    shared_->wake.notify_all();
    for (int fd : taken)
        shared_->files->close(fd);
}

}  // namespace nemarro::suite
