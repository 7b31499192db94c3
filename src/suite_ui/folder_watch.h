#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/loop/event_loop.h"

namespace nemarro::suite_ui {

/// Where a participant's problems are told; the app decides where they go.
using Log = std::function<void(const std::string& message)>;

/// A watch on folders that stops when it is destroyed (and closes what it opened).
class FolderWatch {
  public:
    virtual ~FolderWatch() = default;
};

/// Starts watching `folders`: `changed` runs on the loop after a file in one
/// of them is written, renamed in or out, created or deleted. Absent when
/// nothing could be watched.
using FolderWatchFactory = std::function<std::unique_ptr<FolderWatch>(
    const std::vector<std::string>& folders, std::function<void()> changed)>;

/// The kernel's file-system events (inotify), read on `loop`. Folders that
/// cannot be watched are logged and left out.
std::unique_ptr<FolderWatch> watchWithInotify(wharfy::app::EventLoop& loop,
                                              const std::vector<std::string>& folders,
                                              std::function<void()> changed, const Log& log);

}  // namespace nemarro::suite_ui
