// Roles of processes placed where systemd places them, in the kernel's real
// cgroup hierarchies: a unit's label belongs to its main process, and its
// descendants reach it through their ancestors.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "live_scanner.h"
#include "printers.h"
#include "test_process.h"

namespace wharfy {
namespace {

using testing::LiveScanner;
using testing::on;
using testing::TempDir;
using testing::TestProcess;

/// Folders made for one test in the cgroup hierarchies systemd reads (the
/// name=systemd one and the unified one), with processes moved into them.
/// On destruction, what is left is moved back to the root and the folders
/// this made are removed, deepest first.
class CgroupPlacement {
  public:
    explicit CgroupPlacement(const std::string& path) : path_(path) {
        std::ifstream mounts("/proc/self/mounts");
        for (std::string line; std::getline(mounts, line);) {
            std::istringstream fields(line);
            std::string device, where, type, options;
            fields >> device >> where >> type >> options;
            if (type == "cgroup2" ||
                (type == "cgroup" && options.find("name=systemd") != std::string::npos))
                roots_.push_back(where);
        }
        if (roots_.empty()) failure_ = "no cgroup hierarchy that systemd reads is mounted";
        for (const auto& root : roots_) {
            std::string dir = root;
            for (const auto& piece : std::filesystem::path(path).relative_path()) {
                dir += "/" + piece.string();
                if (::mkdir(dir.c_str(), 0755) == 0) {
                    made_.emplace_back(root, dir);
                } else if (errno != EEXIST) {
                    failure_ = "cannot create " + dir + ": " + std::strerror(errno);
                    return;
                }
            }
        }
    }
    ~CgroupPlacement() {
        for (auto it = made_.rbegin(); it != made_.rend(); ++it) {
            const auto& [root, dir] = *it;
            std::ifstream procs(dir + "/cgroup.procs");
            for (pid_t pid; procs >> pid;)
                write(root + "/cgroup.procs", pid);
            for (int tries = 0; ::rmdir(dir.c_str()) != 0 && errno == EBUSY && tries < 200; ++tries)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    CgroupPlacement(const CgroupPlacement&) = delete;
    CgroupPlacement& operator=(const CgroupPlacement&) = delete;

    /// Why the placement cannot be used; empty when it can.
    const std::string& failure() const { return failure_; }
    /// Moves `pid` into the folder in every hierarchy.
    bool move(pid_t pid) const {
        for (const auto& root : roots_)
            if (!write(root + path_ + "/cgroup.procs", pid)) return false;
        return true;
    }

  private:
    static bool write(const std::string& file, pid_t pid) {
        std::ofstream out(file);
        out << pid << std::flush;
        return out.good();
    }
    std::string path_;
    std::vector<std::string> roots_;
    std::vector<std::pair<std::string, std::string>> made_;  // (root, folder)
    std::string failure_;
};

/// The children of a single-threaded process.
std::vector<pid_t> childrenOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
    std::vector<pid_t> out;
    for (pid_t child; in >> child;)
        out.push_back(child);
    return out;
}

class LiveCgroupTest : public ::testing::Test {
  protected:
    // Orphans of the helpers become our children and are reaped before the
    // cgroups are removed.
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to move processes between cgroups";
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    void TearDown() override {
        for (int tries = 0; tries < 400;) {
            pid_t r = ::waitpid(-1, nullptr, WNOHANG);
            if (r < 0) break;
            if (r == 0) {
                ++tries;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        }
    }
    /// Makes the cgroup `path`; false (with the reason recorded) when it cannot be.
    bool place(const std::string& path) {
        cgroup.emplace(path);
        reason = cgroup->failure();
        return reason.empty();
    }

    const std::string tag = std::to_string(::getpid());
    std::optional<CgroupPlacement> cgroup;
    std::string reason;
};

TEST_F(LiveCgroupTest, RootDaemonInASystemUnitAndItsForkedWorkerAreTheService) {
    const std::string unit = "wharfy-demo-" + tag + ".service";
    if (!place("/system.slice/" + unit)) GTEST_SKIP() << reason;
    auto daemon = TestProcess::start({"--listen", "127.0.0.1:0", "--fork-on-usr1"});
    ASSERT_TRUE(daemon);
    ASSERT_TRUE(cgroup->move(daemon->pid()));
    ::kill(daemon->pid(), SIGUSR1);  // the worker is forked inside the unit
    for (int i = 0; i < 1000 && childrenOf(daemon->pid()).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(childrenOf(daemon->pid()).size(), 1u);

    LiveScanner scanner("/nonexistent-home");
    auto rows = on(static_cast<uint16_t>(daemon->ports()[0]), scanner.scan());
    ASSERT_EQ(rows.size(), 2u);
    for (const auto& row : rows) {
        auto service = row.role.as<ListenerRole::BackgroundService>();
        ASSERT_TRUE(service) << row.pid << " is " << row.role.rawValue();
        EXPECT_EQ(service->label, "system/" + unit);
        EXPECT_EQ(service->stopCommand, "sudo systemctl stop " + unit);
    }
}

TEST_F(LiveCgroupTest, ListenerStartedFromAShellInAnEditorsScopeIsAPlainProcessOfItsProject) {
    const std::string uid = std::to_string(::geteuid());
    const std::string scope = "app-gnome-editor-" + tag + ".scope";
    if (!place("/user.slice/user-" + uid + ".slice/user@" + uid + ".service/app.slice/" + scope))
        GTEST_SKIP() << reason;
    TempDir home;
    const std::string repo = home.path() + "/src/site";
    std::filesystem::create_directories(repo + "/.git");
    const std::string helper = TestProcess::helperPath();
    // editor → an interactive sh in its terminal → a server typed at the prompt
    auto editor = TestProcess::start(
        {"--stdin", "'" + helper + "' --listen 127.0.0.1:0\n", "--spawn", "/bin/sh"}, helper, repo);
    ASSERT_TRUE(editor);
    struct GroupKiller {
        pid_t group;
        ~GroupKiller() { ::killpg(group, SIGKILL); }
    } killer{editor->pid()};
    const auto shells = childrenOf(editor->pid());
    ASSERT_EQ(shells.size(), 1u);
    const auto servers = childrenOf(shells[0]);
    ASSERT_EQ(servers.size(), 1u);
    for (pid_t pid : {editor->pid(), shells[0], servers[0]})
        ASSERT_TRUE(cgroup->move(pid));

    LiveScanner scanner(home.path());
    auto rows = on(static_cast<uint16_t>(editor->ports()[0]), scanner.scan());
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].pid, servers[0]);
    EXPECT_EQ(rows[0].role, (ListenerRole{ListenerRole::PlainProcess{}}));
    EXPECT_EQ(rows[0].project, (ProjectInfo{"~/src/site", true}));
    // The scope's label is the editor's own.
    EXPECT_EQ(scanner.role(editor->pid()), (ListenerRole{ListenerRole::PartOfApp{"editor"}}));
}

TEST_F(LiveCgroupTest, AnotherUsersUnitIsStoppedThroughThatUsersManager) {
    const uid_t nobody = 65534;
    const std::string unit = "wharfy-x-" + tag + ".service";
    const std::string id = std::to_string(nobody);
    if (!place("/user.slice/user-" + id + ".slice/user@" + id + ".service/app.slice/" + unit))
        GTEST_SKIP() << reason;
    auto server = TestProcess::start({"--uid", id, "--listen", "127.0.0.1:0"});
    ASSERT_TRUE(server);
    ASSERT_TRUE(cgroup->move(server->pid()));

    const passwd* pw = ::getpwuid(nobody);
    const std::string manager = pw ? std::string(pw->pw_name) : id;
    LiveScanner scanner("/nonexistent-home");
    auto rows = on(static_cast<uint16_t>(server->ports()[0]), scanner.scan());
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_FALSE(rows[0].isOwnedByUser);
    auto service = rows[0].role.as<ListenerRole::BackgroundService>();
    ASSERT_TRUE(service) << rows[0].role.rawValue();
    EXPECT_EQ(service->label, "user/" + id + "/" + unit);
    EXPECT_EQ(service->stopCommand, "systemctl --user -M " + manager + "@ stop " + unit);
}

}  // namespace
}  // namespace wharfy
