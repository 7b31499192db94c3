#include "core/ports/service_labels.h"

#include <gtest/gtest.h>

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

TEST(LaunchdJobs, NoOutputGivesNoLabelsAndLookupsAreRememberedPerScan) {
    FakeCommandRunner runner;
    EXPECT_FALSE(LaunchdJobs::read(runner).label(1));
    EXPECT_EQ(runner.calls, (std::vector<std::vector<std::string>>{{"/bin/launchctl", "list"}}));

    int lookups = 0;
    LaunchdJobs lazy([&](int32_t pid) -> std::optional<std::string> {
        ++lookups;
        if (pid == 5) return "system/nginx.service";
        return std::nullopt;
    });
    LaunchdJobs copy = lazy;
    EXPECT_EQ(lazy.label(5), "system/nginx.service");
    EXPECT_EQ(copy.label(5), "system/nginx.service");
    EXPECT_FALSE(lazy.label(6));
    EXPECT_FALSE(lazy.label(6));
    EXPECT_EQ(lookups, 2);
}

TEST(LaunchdLabels, StopCommandsAppNamesAndKeepAlive) {
    LaunchdLabels l;
    EXPECT_EQ(l.stopCommand("homebrew.mxcl.redis", 501), "brew services stop redis");
    EXPECT_EQ(l.stopCommand("com.example.agent", 501),
              "launchctl bootout gui/501/com.example.agent");
    EXPECT_EQ(l.appName("application.com.example.Tool.12345.67890", "proc"), "Tool");
    EXPECT_EQ(l.appName("application.123.456", "proc"), "proc");
    EXPECT_TRUE(l.isAppJob("application.x"));
    EXPECT_TRUE(l.mayBeSystemJob("com.apple.cupsd"));
    EXPECT_FALSE(l.mayBeSystemJob("com.example.apple"));

    EXPECT_TRUE(LaunchdLabels::printSaysKeepAlive(
        "gui/501/x = {\n\tstate = running\n\tproperties = keepalive | runatload\n}\n"));
    EXPECT_FALSE(LaunchdLabels::printSaysKeepAlive("gui/501/x = {\n\tproperties = runatload\n}\n"));
    EXPECT_FALSE(LaunchdLabels::printSaysKeepAlive("\tkeepalive = 1\n"));

    FakeCommandRunner runner;
    runner.answers[{"/bin/launchctl", "print", "gui/501/com.x"}] = "  properties = keepalive\n";
    EXPECT_EQ(l.keepsAlive("com.x", 501, runner), true);
    EXPECT_EQ(l.keepsAlive("com.y", 501, runner), std::nullopt);
}

TEST(SystemdLabels, UnitOfAProcessFromItsCgroup) {
    struct Case {
        const char* cgroup;
        std::optional<std::string> label;
    };
    const Case cases[] = {
        {"0::/system.slice/nginx.service\n", "system/nginx.service"},
        {"0::/system.slice/system-getty.slice/getty@tty1.service\n", "system/getty@tty1.service"},
        {"0::/system.slice/containerd.service/payload\n", "system/containerd.service"},
        {"0::/user.slice/user-1000.slice/user@1000.service/app.slice/redis.service\n",
         "user/redis.service"},
        {"0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
         "app-gnome-org.gnome.Terminal-2345.scope\n",
         "user/app-gnome-org.gnome.Terminal-2345.scope"},
        // terminal tabs, login sessions, the managers, containers and no systemd
        {"0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
         "app-org.gnome.Terminal.slice/vte-spawn-1a2b.scope\n",
         std::nullopt},
        {"0::/user.slice/user-1000.slice/session-2.scope\n", std::nullopt},
        {"0::/user.slice/user-1000.slice/user@1000.service/init.scope\n", std::nullopt},
        {"0::/user.slice/user-1000.slice/user@1000.service\n", std::nullopt},
        {"0::/init.scope\n", std::nullopt},
        {"0::/system.slice/docker-4f3a.scope\n", std::nullopt},
        {"0::/\n", std::nullopt},
        {"", std::nullopt},
        // hybrid hierarchy: the systemd line decides
        {"12:memory:/x\n1:name=systemd:/system.slice/cron.service\n0::/\n", "system/cron.service"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(SystemdLabels::labelFromCgroup(c.cgroup), c.label) << c.cgroup;
}

TEST(SystemdLabels, AppNamesSkipLaunchersAndInstanceParts) {
    SystemdLabels l;
    struct Case {
        const char* label;
        const char* name;
    };
    const Case cases[] = {
        {"user/app-gnome-org.gnome.Terminal-2345.scope", "Terminal"},
        {"user/app-flatpak-org.mozilla.firefox-1234.scope", "firefox"},
        {"user/app-org.kde.konsole@3f2a9c1d0e.service", "konsole"},
        {"user/app-gnome-firefox-4f3a2b1c9d8e.scope", "firefox"},
        {"user/app-code-1234.scope", "code"},
        {"user/app-gnome-my\\x2dtool-99.scope", "my-tool"},
        {"user/app-1234.scope", "proc"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(l.isAppJob(c.label)) << c.label;
        EXPECT_EQ(l.appName(c.label, "proc"), c.name) << c.label;
    }
    EXPECT_FALSE(l.isAppJob("user/redis.service"));
    EXPECT_FALSE(l.isAppJob("user/app-plain.service"));  // no instance: an ordinary service
}

TEST(SystemdLabels, StopCommandsAndKeepsAliveThroughSystemctl) {
    SystemdLabels l;
    EXPECT_EQ(l.stopCommand("user/redis.service", 1000), "systemctl --user stop redis.service");
    EXPECT_EQ(l.stopCommand("system/nginx.service", 1000), "sudo systemctl stop nginx.service");
    EXPECT_EQ(l.stopCommand("user/homebrew.mxcl.redis.service", 1000), "brew services stop redis");
    EXPECT_TRUE(l.mayBeSystemJob("system/nginx.service"));
    EXPECT_FALSE(l.mayBeSystemJob("user/redis.service"));

    FakeCommandRunner runner;
    auto key = [](std::vector<std::string> v) { return v; };
    runner.answers[key({"/usr/bin/systemctl", "--user", "show", "--property=Restart", "--value",
                        "a.service"})] = "on-failure\n";
    runner.answers[key(
        {"/usr/bin/systemctl", "show", "--property=Restart", "--value", "b.service"})] = "no\n";
    runner.answers[key(
        {"/usr/bin/systemctl", "show", "--property=Restart", "--value", "c.service"})] = "\n";
    EXPECT_EQ(l.keepsAlive("user/a.service", 1000, runner), true);
    EXPECT_EQ(l.keepsAlive("system/b.service", 1000, runner), false);
    EXPECT_EQ(l.keepsAlive("system/c.service", 1000, runner), std::nullopt);
    EXPECT_EQ(l.keepsAlive("system/d.service", 1000, runner), std::nullopt);
}

}  // namespace
}  // namespace wharfy
