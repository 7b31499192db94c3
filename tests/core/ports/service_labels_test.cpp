#include "core/ports/service_labels.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "fake_port_environment.h"

namespace wharfy {
namespace {

using testing::FakeCommandRunner;

TEST(LaunchdJobs, ParsesTheListAndSkipsDashesAndShortLines) {
    auto jobs = LaunchdJobs::parse(
        "PID\tStatus\tLabel\n"
        "812\t0\thomebrew.mxcl.postgresql@16\n"
        "-\t0\tcom.apple.idle\n"
        "4021\t0\tapplication.com.microsoft.VSCode.1234.5678\n"
        "77\t0\n"
        "99\t0\tlabel\twith tab\n"
        "812\t0\thomebrew.mxcl.later\n");
    EXPECT_EQ(jobs.label(812), "homebrew.mxcl.later");  // a later line wins
    EXPECT_EQ(jobs.label(4021), "application.com.microsoft.VSCode.1234.5678");
    EXPECT_EQ(jobs.label(99), "label\twith tab");
    EXPECT_FALSE(jobs.label(77));
    EXPECT_FALSE(jobs.label(1));
}

TEST(LaunchdJobs, AUnitsLabelBelongsToItsMainProcessOnly) {
    const std::string code =
        "0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
        "app-gnome-code-4242.scope";
    // pid → (parent, cgroup)
    const std::map<int32_t, std::pair<int32_t, std::string>> table{
        {1, {0, "0::/init.scope"}},
        {10, {1, "0::/system.slice/nginx.service"}},           // master
        {11, {10, "0::/system.slice/nginx.service"}},          // its worker
        {12, {11, "0::/system.slice/nginx.service/payload"}},  // a sub-group of the same unit
        {20, {1, code}},                                       // the editor
        {21, {20, code}},                                      // a shell in its terminal
        {30, {1, "0::/system.slice/ssh.service"}},
        {31, {30, "0::/user.slice/user-1000.slice/session-4.scope"}},
        {40, {-1, "0::/system.slice/orphan.service"}},  // parent unknown
    };
    std::vector<int32_t> placements;
    LaunchdJobs jobs(
        [&](int32_t pid) -> std::optional<UnitPlacement> {
            placements.push_back(pid);
            auto it = table.find(pid);
            if (it == table.end()) return std::nullopt;
            return SystemdLabels::placementFromCgroup(it->second.second);
        },
        [&](int32_t pid) -> std::optional<int32_t> {
            auto it = table.find(pid);
            if (it == table.end() || it->second.first < 0) return std::nullopt;
            return it->second.first;
        });
    EXPECT_EQ(jobs.label(10), "system/nginx.service");
    EXPECT_FALSE(jobs.label(11));
    EXPECT_FALSE(jobs.label(12));
    EXPECT_EQ(jobs.label(20), "user/1000/app-gnome-code-4242.scope");
    EXPECT_FALSE(jobs.label(21));
    EXPECT_EQ(jobs.label(40), "system/orphan.service");
    EXPECT_FALSE(jobs.label(99));

    EXPECT_TRUE(jobs.crossesUnit(31, 30));
    EXPECT_TRUE(jobs.crossesUnit(10, 1));
    EXPECT_FALSE(jobs.crossesUnit(11, 10));
    EXPECT_FALSE(jobs.crossesUnit(12, 11));
    EXPECT_FALSE(jobs.crossesUnit(99, 1));  // unknown
    EXPECT_FALSE(LaunchdJobs().crossesUnit(31, 30));

    // Each process is placed once per scan, also through a copy.
    const auto before = placements.size();
    LaunchdJobs copy = jobs;
    EXPECT_FALSE(copy.label(11));
    EXPECT_EQ(placements.size(), before);
    std::sort(placements.begin(), placements.end());
    EXPECT_EQ(std::adjacent_find(placements.begin(), placements.end()), placements.end());
}

TEST(LaunchdLabels, StopCommandsAppNamesAndKeepAlive) {
    LaunchdLabels l;
    EXPECT_EQ(l.stopCommand("homebrew.mxcl.redis", 501), "brew services stop redis");
    EXPECT_EQ(l.stopCommand("com.example.agent", 501),
              "launchctl bootout gui/501/com.example.agent");
    EXPECT_EQ(l.appName("application.com.example.Tool.12345.67890", "proc"), "Tool");
    EXPECT_EQ(l.appName("application.123.456", "proc"), "proc");
    EXPECT_TRUE(l.isAppJob("application.x"));
    EXPECT_EQ(l.systemJob("com.apple.cupsd"), ServiceLabels::SystemJob::ifSystemSigned);
    EXPECT_EQ(l.systemJob("com.example.apple"), ServiceLabels::SystemJob::no);

    EXPECT_TRUE(LaunchdLabels::printSaysKeepAlive(
        "gui/501/x = {\n\tstate = running\n\tproperties = keepalive | runatload\n}\n"));
    EXPECT_FALSE(LaunchdLabels::printSaysKeepAlive("gui/501/x = {\n\tproperties = runatload\n}\n"));
    EXPECT_FALSE(LaunchdLabels::printSaysKeepAlive("\tkeepalive = 1\n"));

    FakeCommandRunner runner;
    runner.answers[{"/bin/launchctl", "print", "gui/501/com.x"}] = "  properties = keepalive\n";
    EXPECT_EQ(l.keepsAlive("com.x", 501, runner), true);
    EXPECT_EQ(l.keepsAlive("com.y", 501, runner), std::nullopt);
}

TEST(SystemdLabels, PlacementOfAProcessFromItsCgroup) {
    struct Case {
        const char* cgroup;
        std::optional<std::string> unit;
        std::optional<std::string> label;
    };
    const std::string user = "/user.slice/user-1000.slice/user@1000.service";
    const Case cases[] = {
        {"0::/system.slice/nginx.service\n", "/system.slice/nginx.service", "system/nginx.service"},
        {"0::/system.slice/system-getty.slice/getty@tty1.service\n",
         "/system.slice/system-getty.slice/getty@tty1.service", "system/getty@tty1.service"},
        {"0::/system.slice/containerd.service/payload\n", "/system.slice/containerd.service",
         "system/containerd.service"},
        {"0::/user.slice/user-1000.slice/user@1000.service/app.slice/redis.service\n",
         user + "/app.slice/redis.service", "user/1000/redis.service"},
        {"0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
         "app-gnome-org.gnome.Terminal-2345.scope\n",
         user + "/app.slice/app-gnome-org.gnome.Terminal-2345.scope",
         "user/1000/app-gnome-org.gnome.Terminal-2345.scope"},
        // terminal tabs, login sessions, the managers and containers are no jobs
        {"0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
         "app-org.gnome.Terminal.slice/vte-spawn-1a2b.scope\n",
         user + "/app.slice/app-org.gnome.Terminal.slice/vte-spawn-1a2b.scope", std::nullopt},
        {"0::/user.slice/user-1000.slice/session-2.scope\n",
         "/user.slice/user-1000.slice/session-2.scope", std::nullopt},
        {"0::/user.slice/user-1000.slice/user@1000.service/init.scope\n", user + "/init.scope",
         std::nullopt},
        {"0::/user.slice/user-1000.slice/user@1000.service\n", user, std::nullopt},
        {"0::/system.slice/docker-4f3a.scope\n", "/system.slice/docker-4f3a.scope", std::nullopt},
        {"0::/\n", "/", std::nullopt},
        {"0::/machine.slice/libpod-9a\n", "/machine.slice/libpod-9a", std::nullopt},
        // hybrid hierarchy: the systemd line decides
        {"12:memory:/x\n1:name=systemd:/system.slice/cron.service\n0::/\n",
         "/system.slice/cron.service", "system/cron.service"},
        {"", std::nullopt, std::nullopt},
        {"0::relative\n", std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        auto p = SystemdLabels::placementFromCgroup(c.cgroup);
        EXPECT_EQ(p ? std::optional(p->unit) : std::nullopt, c.unit) << c.cgroup;
        EXPECT_EQ(p ? p->label : std::nullopt, c.label) << c.cgroup;
    }
}

TEST(SystemPrograms, LinuxBaseServicesAndFoldersAreTheSystems) {
    const auto& table = SystemPrograms::forLinux();
    for (const char* unit : {"ssh.service", "dbus.service", "systemd-resolved.service",
                             "postfix@-.service", "NetworkManager.service", "gdm3.service"})
        EXPECT_TRUE(table.isSystemService(unit)) << unit;
    for (const char* unit :
         {"nginx.service", "postgresql@15-main.service", "redis-server.service", "myflask.service",
          "sshguard.service", "networkmanager.service", "@.service", "systemd"})
        EXPECT_FALSE(table.isSystemService(unit)) << unit;
    EXPECT_TRUE(table.isSystemPath("/usr/lib/systemd/systemd-resolved"));
    EXPECT_TRUE(table.isSystemPath("/lib/systemd/systemd"));
    EXPECT_FALSE(table.isSystemPath("/usr/sbin/nginx"));
    EXPECT_FALSE(table.isSystemPath("/usr/lib/systemdx/y"));

    SystemdLabels l;
    EXPECT_EQ(l.systemJob("system/ssh.service"), ServiceLabels::SystemJob::yes);
    EXPECT_EQ(l.systemJob("system/nginx.service"), ServiceLabels::SystemJob::no);
    EXPECT_EQ(l.systemJob("user/1000/dbus.service"), ServiceLabels::SystemJob::no);
}

TEST(SystemdLabels, AppNamesSkipLaunchersAndInstanceParts) {
    SystemdLabels l;
    struct Case {
        const char* label;
        const char* name;
    };
    const Case cases[] = {
        {"user/1000/app-gnome-org.gnome.Terminal-2345.scope", "Terminal"},
        {"user/1000/app-flatpak-org.mozilla.firefox-1234.scope", "firefox"},
        {"user/1000/app-org.kde.konsole@3f2a9c1d0e.service", "konsole"},
        {"user/1000/app-gnome-firefox-4f3a2b1c9d8e.scope", "firefox"},
        {"user/1000/app-code-1234.scope", "code"},
        {"user/1000/app-gnome-my\\x2dtool-99.scope", "my-tool"},
        {"user/1000/app-1234.scope", "proc"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(l.isAppJob(c.label)) << c.label;
        EXPECT_EQ(l.appName(c.label, "proc"), c.name) << c.label;
    }
    EXPECT_FALSE(l.isAppJob("user/1000/redis.service"));
    EXPECT_FALSE(l.isAppJob("user/1000/app-plain.service"));  // no instance: an ordinary service
}

TEST(SystemdLabels, StopCommandsNameTheManagerThatRunsTheUnit) {
    SystemdLabels l([](uint32_t uid) -> std::optional<std::string> {
        if (uid == 1000) return "ana";
        if (uid == 1001) return "-rf";  // not a name to put on a command line
        return std::nullopt;
    });
    const std::pair<const char*, const char*> cases[] = {
        {"system/nginx.service", "sudo systemctl stop nginx.service"},
        {"user/1000/redis.service", "systemctl --user stop redis.service"},
        {"user/1000/homebrew.mxcl.redis.service", "brew services stop redis"},
        // Seen by root, "--user" alone would name root's own manager.
        {"user/1001/x.service", "systemctl --user -M 1001@ stop x.service"},
        {"user/1002/x.service", "systemctl --user -M 1002@ stop x.service"},
    };
    for (const auto& [label, command] : cases)
        EXPECT_EQ(l.stopCommand(label, 1000), command) << label;
    EXPECT_EQ(l.stopCommand("user/1000/x.service", 0), "systemctl --user -M ana@ stop x.service");
    EXPECT_EQ(SystemdLabels::owner("user/1000/x.service"), 1000u);
    EXPECT_FALSE(SystemdLabels::owner("system/x.service"));
}

TEST(SystemdLabels, KeepsAliveAsksTheUnitsManagerOnlyForSafeNames) {
    SystemdLabels l([](uint32_t) -> std::optional<std::string> { return "ana"; });
    FakeCommandRunner runner;
    using Args = std::vector<std::string>;
    auto show = [](Args manager, std::string unit) {
        Args call{"/usr/bin/systemctl"};
        call.insert(call.end(), manager.begin(), manager.end());
        call.insert(call.end(), {"show", "--property=Restart", "--value", "--", unit});
        return call;
    };
    runner.answers[show({"--user"}, "a.service")] = "on-failure\n";
    runner.answers[show({"--user", "-M", "ana@"}, "a.service")] = "always\n";
    runner.answers[show({}, "b.service")] = "no\n";
    runner.answers[show({}, "c.service")] = "\n";
    EXPECT_EQ(l.keepsAlive("user/1000/a.service", 1000, runner), true);
    EXPECT_EQ(l.keepsAlive("user/1000/a.service", 0, runner), true);
    EXPECT_EQ(l.keepsAlive("system/b.service", 1000, runner), false);
    EXPECT_EQ(l.keepsAlive("system/c.service", 1000, runner), std::nullopt);
    EXPECT_EQ(l.keepsAlive("system/d.service", 1000, runner), std::nullopt);
    const auto asked = runner.calls.size();
    for (const char* unsafe : {"system/--help.service", "system/a b.service", "system/x;y.service"})
        EXPECT_EQ(l.keepsAlive(unsafe, 1000, runner), std::nullopt) << unsafe;
    EXPECT_EQ(runner.calls.size(), asked);
}

}  // namespace
}  // namespace wharfy
