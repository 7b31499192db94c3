#include "podman_engine.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "core/containers/http.h"
#include "core/containers/runtime_detector.h"

namespace wharfy::testing {
namespace {

constexpr const char* kPodman = "/usr/bin/podman";
constexpr const char* kBusybox = "/bin/busybox";

bool isExecutable(const std::string& path) {
    return ::access(path.c_str(), X_OK) == 0;
}

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' '))
        s.pop_back();
    return s;
}

bool writePrivateFile(const std::string& path, const std::string& text) {
    int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ::close(fd);
    return ok;
}

}  // namespace

int freeLoopbackPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int port = -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
        port = ntohs(address.sin_port);
    ::close(fd);
    return port;
}

std::optional<std::string> dockerTool(const std::string& home) {
    return DockerBinary::find(home, isExecutable);
}

std::map<std::string, std::string> PodmanEngine::environment() const {
    return {{"HOME", home()},
            {"PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"},
            {"CONTAINERS_CONF", dir_.path() + "/containers.conf"},
            {"XDG_RUNTIME_DIR", xdgRuntimeDir()}};
}

ProcessResult PodmanEngine::podman(const std::vector<std::string>& args) {
    std::vector<std::string> all{
        "--root",   dir_.path() + "/storage", "--runroot",        dir_.path() + "/run",
        "--tmpdir", dir_.path() + "/tmp",     "--storage-driver", "vfs"};
    all.insert(all.end(), args.begin(), args.end());
    return runner_.run(kPodman, all, environment());
}

std::optional<std::string> PodmanEngine::podmanOutput(const std::vector<std::string>& args) {
    auto r = podman(args);
    if (r.status != 0) return std::nullopt;
    return trimmed(r.output);
}

std::string PodmanEngine::uniqueName(const std::string& stem) {
    return "wharfy-" + stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(++counter_);
}

std::optional<std::string> PodmanEngine::importImage(const std::string& tag) {
    // A unique message makes a distinct image even from the same files, so a
    // second import under one tag leaves the first one dangling.
    auto id = podmanOutput(
        {"import", "--quiet", "--message", uniqueName("import"), dir_.path() + "/image.tar", tag});
    if (!id) return std::nullopt;
    return id->starts_with("sha256:") ? id->substr(7) : *id;
}

bool PodmanEngine::waitUntilNotRunning(const std::string& name, double seconds) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        auto state = podmanOutput({"inspect", "--format", "{{.State.Status}}", name});
        if (!state || *state != "running") return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return false;
}

std::unique_ptr<PodmanEngine> PodmanEngine::start(std::string& whyNot) {
    if (::geteuid() != 0) {
        whyNot = "the Podman engine tests run as root (rootful podman with runc)";
        return nullptr;
    }
    for (const char* tool : {kPodman, "/usr/sbin/runc", kBusybox, "/usr/bin/tar"}) {
        if (!isExecutable(tool)) {
            whyNot = std::string(tool) + " is missing (scripts/install-deps --test installs it)";
            return nullptr;
        }
    }
    std::unique_ptr<PodmanEngine> engine(new PodmanEngine());
    const std::string& root = engine->dir_.path();
    if (root.empty()) {
        whyNot = "no temporary folder";
        return nullptr;
    }
    for (const char* sub : {"/xdg", "/xdg/podman", "/home", "/image", "/image/bin", "/tmp"})
        ::mkdir((root + sub).c_str(), 0700);
    // crun fails on this machine's cgroups; runc with cgroupfs works. The
    // ulimits keep containers within what the CI sandbox allows.
    const std::string conf =
        "[containers]\ndefault_ulimits = [\"nofile=1024:1024\", \"nproc=1024:1024\"]\n"
        "[engine]\nruntime = \"runc\"\ncgroup_manager = \"cgroupfs\"\nevents_logger = \"file\"\n";
    std::error_code ec;
    std::filesystem::copy_file(kBusybox, root + "/image/bin/busybox", ec);
    if (!writePrivateFile(root + "/containers.conf", conf) || ec) {
        whyNot = "could not prepare the engine's folder";
        return nullptr;
    }
    ::chmod((root + "/image/bin/busybox").c_str(), 0755);
    auto tar = engine->runner_.run("/usr/bin/tar",
                                   {"-C", root + "/image", "-cf", root + "/image.tar", "."},
                                   engine->environment());
    if (tar.status != 0) {
        whyNot = "tar failed: " + tar.error;
        return nullptr;
    }
    engine->socketPath_ = engine->xdgRuntimeDir() + "/podman/podman.sock";
    if (!engine->launchService(whyNot)) return nullptr;
    engine->image_ = "localhost/" + engine->uniqueName("busybox") + ":1";
    if (!engine->importImage(engine->image_)) {
        whyNot = "podman import failed: " + engine->podman({"import", root + "/image.tar"}).error;
        return nullptr;
    }
    return engine;
}

bool PodmanEngine::launchService(std::string& whyNot) {
    const std::string root = dir_.path();
    std::vector<std::string> args{
        kPodman,    "--root",      root + "/storage",      "--runroot", root + "/run",
        "--tmpdir", root + "/tmp", "--storage-driver",     "vfs",       "system",
        "service",  "--time=0",    "unix://" + socketPath_};
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envText;
    for (const auto& [k, v] : environment())
        envText.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& e : envText)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const std::string log = root + "/service.log";
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    int rc = ::posix_spawn(&service_, kPodman, &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        service_ = -1;
        whyNot = "could not start podman system service";
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (UnixSocketTransport(socketPath_, 2).get("/_ping").ok()) return true;
        int status = 0;
        if (::waitpid(service_, &status, WNOHANG) == service_) {
            service_ = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    std::ifstream in(log);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    whyNot = "podman system service did not answer: " + text.substr(0, 500);
    return false;
}

void PodmanEngine::cleanUp() {
    // Containers are only ever asked to stop with SIGTERM: the test
    // containers are chosen to exit on it, or are ended by their test.
    if (auto ids = podmanOutput({"ps", "-q"}); ids && !ids->empty()) {
        std::vector<std::string> running{"kill", "--signal", "TERM"};
        size_t start = 0;
        while (start < ids->size()) {
            size_t end = ids->find('\n', start);
            if (end == std::string::npos) end = ids->size();
            running.push_back(ids->substr(start, end - start));
            start = end + 1;
        }
        podman(running);
        for (size_t i = 3; i < running.size(); ++i)
            waitUntilNotRunning(running[i], 10);
    }
    if (auto ids = podmanOutput({"ps", "-a", "-q"}); ids && !ids->empty()) {
        std::vector<std::string> rm{"rm"};
        size_t start = 0;
        while (start < ids->size()) {
            size_t end = ids->find('\n', start);
            if (end == std::string::npos) end = ids->size();
            rm.push_back(ids->substr(start, end - start));
            start = end + 1;
        }
        podman(rm);
    }
    podman({"volume", "prune", "--force"});
    podman({"image", "prune", "--all", "--force"});
}

PodmanEngine::~PodmanEngine() {
    if (service_ > 0) {
        cleanUp();
        ::kill(service_, SIGTERM);
        int status = 0;
        for (int i = 0; i < 100 && ::waitpid(service_, &status, WNOHANG) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

}  // namespace wharfy::testing
