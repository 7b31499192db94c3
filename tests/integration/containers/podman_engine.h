#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "system/command_runner.h"
#include "test_process.h"

namespace wharfy::testing {

/// A private Podman API service for one test process: its own storage,
/// configuration and socket under a temporary folder, a busybox image made
/// locally, and clean-up of everything it made. Podman's socket sits where a
/// rootless Podman would put it, under `xdgRuntimeDir()`.
class PodmanEngine {
  public:
    /// Starts the engine; on failure `whyNot` says why, for GTEST_SKIP.
    static std::unique_ptr<PodmanEngine> start(std::string& whyNot);
    ~PodmanEngine();
    PodmanEngine(const PodmanEngine&) = delete;
    PodmanEngine& operator=(const PodmanEngine&) = delete;

    const std::string& socketPath() const { return socketPath_; }
    std::string xdgRuntimeDir() const { return dir_.path() + "/xdg"; }
    std::string home() const { return dir_.path() + "/home"; }
    /// The image every test container runs: one file, /bin/busybox.
    const std::string& image() const { return image_; }

    /// `podman <args>` against this engine's storage.
    ProcessResult podman(const std::vector<std::string>& args);
    /// Trimmed standard output of a successful `podman <args>`, else absent.
    std::optional<std::string> podmanOutput(const std::vector<std::string>& args);
    /// A fresh busybox image under `tag`: its id.
    std::optional<std::string> importImage(const std::string& tag);
    /// A name unique to this process and engine.
    std::string uniqueName(const std::string& stem);
    /// Waits until the container has left "running"; false after `seconds`.
    bool waitUntilNotRunning(const std::string& name, double seconds);

    /// The environment docker and podman run with.
    std::map<std::string, std::string> environment() const;

  private:
    PodmanEngine() = default;
    bool launchService(std::string& whyNot);
    void cleanUp();

    TempDir dir_;
    std::string socketPath_;
    std::string image_;
    pid_t service_ = -1;
    int counter_ = 0;
    SystemActionRunner runner_{60.0};
};

/// A TCP port on 127.0.0.1 that was free a moment ago.
int freeLoopbackPort();

/// Path of an executable docker command-line tool, if any.
std::optional<std::string> dockerTool(const std::string& home);

}  // namespace wharfy::testing
