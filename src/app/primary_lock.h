#pragma once

#include <functional>
#include <memory>
#include <string>

namespace nemarro::suite {
class HostLock;
}

namespace wharfy::app {

/// One primary Wharfy per user: only the process holding this lock records
/// history, posts notifications and takes part in the suite. Any front end
/// may compete for it. The wait runs on a thread of its own, so a second
/// instance keeps working (or waiting) and takes over the moment the first
/// ends, even when it crashed.
class PrimaryLock {
  public:
    using Log = std::function<void(const std::string&)>;

    /// `path` is the lock file; its folder is made 0700 when missing.
    PrimaryLock(std::string path, Log log);
    ~PrimaryLock();
    PrimaryLock(const PrimaryLock&) = delete;
    PrimaryLock& operator=(const PrimaryLock&) = delete;

    /// Starts waiting. `acquired` runs once, on the lock's own thread, when
    /// the lock is held: hand the news to the loop from there.
    void start(std::function<void()> acquired);
    bool isHeld() const;
    /// Lets the lock go; a released lock is never taken again.
    void release();

    const std::string& path() const { return path_; }

  private:
    std::string path_;
    Log log_;
    std::unique_ptr<nemarro::suite::HostLock> lock_;
};

}  // namespace wharfy::app
