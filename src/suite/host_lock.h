#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace nemarro::suite {

/// The file side of the host lock, so the waiting rules can also run against a script.
class LockFiles {
  public:
    virtual ~LockFiles() = default;

    /// A descriptor, or the error number of a failed open.
    struct Opened {
        int fd = -1;
        int error = 0;
    };
    /// Opens `path` for reading and writing, creating it 0600, not following a
    /// final symbolic link, close-on-exec.
    virtual Opened open(const std::string& path) = 0;
    /// Takes an exclusive advisory lock, blocking while another holds it:
    /// 0, or the error number (EINTR included; the caller repeats).
    virtual int lock(int fd) = 0;
    /// Whether `path` (not followed) still names the open file: same device and inode.
    virtual bool stillNamed(int fd, const std::string& path) = 0;
    virtual void close(int fd) = 0;
};

/// The real files: open(2), flock(2), fstat(2) and lstat(2).
std::shared_ptr<LockFiles> liveLockFiles();

/// Gives the calling thread its name and a low priority; done by the lock thread itself.
void prepareHostLockThread();

/// The exclusive lock whose holder shows the suite's shared readout. One
/// thread per lock blocks until every lock file is held, then calls
/// `onAcquire` on that thread. The locks last until `release`, until the
/// descriptors close or until the process ends, so a crashed host frees them
/// at once. A released lock never restarts; compete again with a new one.
class HostLock {
  public:
    using Log = std::function<void(const std::string& message)>;

    /// Tunables; only tests change them.
    struct Options {
        /// Pause after a failed open or lock before the next attempt.
        double retrySeconds = 5;
    };

    /// The thread's name: the kernel keeps at most 15 characters.
    static constexpr const char* kThreadName = "NemarroHostLock";

    /// `paths` are standardized, de-duplicated and sorted, so every process
    /// takes the same locks in the same order. `log` receives error messages.
    HostLock(std::vector<std::string> paths, std::shared_ptr<LockFiles> files, Log log,
             Options options);
    HostLock(std::vector<std::string> paths, std::shared_ptr<LockFiles> files, Log log)
        : HostLock(std::move(paths), std::move(files), std::move(log), Options{}) {}
    /// Releases.
    ~HostLock();
    HostLock(const HostLock&) = delete;
    HostLock& operator=(const HostLock&) = delete;

    /// The lock files, in the order in which they are taken.
    const std::vector<std::string>& paths() const;

    /// Starts the lock thread and returns at once. A second call does nothing.
    /// `onAcquire` runs on the lock thread, and may run while the owner is
    /// being destroyed: it should only hand work to the owner's own thread.
    void start(std::function<void()> onAcquire);
    /// Whether every lock is held.
    bool isHeld() const;
    /// Gives up: wakes a retry pause, frees every lock held and closes any
    /// descriptor the thread acquires later. A thread blocked in the lock
    /// call stays blocked until the lock is free, then closes it.
    void release();

    /// The paths as the lock uses them: tidied, unique, sorted by bytes.
    static std::vector<std::string> standardized(std::vector<std::string> paths);

  private:
    struct Shared;
    std::shared_ptr<Shared> shared_;
};

}  // namespace nemarro::suite
