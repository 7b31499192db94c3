#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/loop/event_loop.h"
#include "suite/suite_app.h"
#include "suite_ui/folder_watch.h"

namespace nemarro::suite_ui {

/// The request by which one app of the suite asks another to show its window.
class OpenRequests {
  public:
    virtual ~OpenRequests() = default;
    /// Asks `app` to open. Never blocks the caller; a failure is logged.
    virtual void requestOpen(suite::SuiteApp app) = 0;
};

/// Starts listening for requests addressed to `app`; `onOpen` runs on the loop
/// for each one. Destroying the result stops listening.
using OpenRequestsFactory =
    std::function<std::unique_ptr<OpenRequests>(suite::SuiteApp app, std::function<void()> onOpen)>;

/// The request's name among the suite's apps.
inline constexpr const char* kOpenRequestName = "com.nemarro.suite.open";

/// Open requests as a D-Bus signal on the session bus at `busAddress`: path
/// "/com/nemarro/suite", interface "com.nemarro.suite", member "Open", one
/// string argument, the target app's id. Only signals whose argument is this
/// app's id are delivered to it. Without a bus address, requests are
/// unavailable, which is logged once.
std::unique_ptr<OpenRequests> openRequestsOverDBus(wharfy::app::EventLoop& loop,
                                                   std::optional<std::string> busAddress,
                                                   suite::SuiteApp app,
                                                   std::function<void()> onOpen, Log log);

}  // namespace nemarro::suite_ui
