#include "core/ports/port_scanner.h"

#include <gtest/gtest.h>

#include "printers.h"

#include <map>
#include <set>

#include "fake_port_environment.h"

namespace wharfy {
namespace {

using C = nemarro::process::ListeningSocket::AddressClass;
using R = ListenerRole;
using testing::FakePortEnvironment;

class PortScannerTest : public ::testing::Test {
  protected:
    FakePortEnvironment env;
    std::set<std::string> gitFolders;
    ListenerClassifier classifier{
        501, "/Users/ana", std::make_shared<LaunchdLabels>(),
        [](const std::string&) { return false; },
        [](const std::string&) -> std::optional<bool> { return std::nullopt; }};

    std::vector<PortRow> scan(const CpuByProcess& cpu = {}) {
        ProjectResolver resolver("/Users/ana", /*hasFullDiskAccess=*/false,
                                 [this](const std::string& p) { return gitFolders.count(p) > 0; });
        PortScanner scanner(env, classifier, resolver, 501);
        return scanner.scan(cpu);
    }
    R roleOf(int32_t pid) {
        for (const auto& row : scan())
            if (row.pid == pid) return row.role;
        ADD_FAILURE() << "no row for pid " << pid;
        return {};
    }
};

TEST_F(PortScannerTest, OneProcessOnBothLoopbacksIsOneRowWithItsFacts) {
    auto& p = env.add(300, 200, "node", 501, "/opt/homebrew/bin/node");
    p.arguments = {{"node", "server.js"}};
    p.cwd = "/Users/ana/src/app/server";
    p.footprint = 52'000'000;
    env.add(200, 1, "-zsh", 501, "/bin/zsh").arguments = {{"-zsh"}};
    env.listen(300, 3000, "::1", C::loopback);
    env.listen(300, 3000, "127.0.0.1", C::loopback);
    gitFolders.insert("/Users/ana/src/app/.git");

    const uint64_t start = env.processes[300].info.startTime;
    auto rows = scan({{{300, start}, 12.5}});
    ASSERT_EQ(rows.size(), 1u);
    const PortRow& r = rows[0];
    EXPECT_EQ(r.addresses, (std::vector<std::string>{"127.0.0.1", "::1"}));
    EXPECT_EQ(r.addressClass, AddressClass::thisMacOnly);
    EXPECT_EQ(r.role, (R{R::PlainProcess{}}));
    EXPECT_EQ(r.project, (ProjectInfo{"~/src/app", true}));
    EXPECT_EQ(r.footprint, 52'000'000u);
    EXPECT_EQ(r.cpuPercent, 12.5);
    EXPECT_EQ(r.startTime, start);
    EXPECT_EQ(r.commandLine, (std::vector<std::string>{"node", "server.js"}));
    EXPECT_TRUE(r.isOwnedByUser);
    EXPECT_EQ(r.id(), "300@" + std::to_string(start) + ":3000");
}

TEST_F(PortScannerTest, WorkersSharingASocketAreRowsSortedByPortThenPid) {
    for (int32_t pid : {402, 401, 400}) {
        env.add(pid, 1, "nginx", 501, "/opt/nginx");
        env.listen(pid, 8080, "0.0.0.0", C::any, 77);
    }
    env.listen(400, 80, "127.0.0.1", C::loopback, 78);
    auto rows = scan();
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[0].port, 80);
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_EQ(rows[i].port, 8080);
        EXPECT_EQ(rows[i].pid, static_cast<int32_t>(399 + i));
        EXPECT_EQ(rows[i].addressClass, AddressClass::allNetworks);
    }
    EXPECT_EQ(PortScanner::rows(8080, rows).size(), 3u);
}

TEST_F(PortScannerTest, ZombiesAndVanishedProcessesGiveNoRow) {
    env.add(500, 1, "dead", 501).info.status = 5;
    env.listen(500, 9000, "127.0.0.1", C::loopback);
    env.listen(501, 9001, "127.0.0.1", C::loopback);  // no such process
    EXPECT_TRUE(scan().empty());
}

TEST_F(PortScannerTest, OtherOwnersComeFromTheMachineWideTable) {
    env.add(300, 1, "node", 501, "/usr/local/bin/node");
    env.listen(300, 3000, "127.0.0.1", C::loopback);
    env.netstat = {{300, "node", "127.0.0.1", 3000},  // covered by the process's own row
                   {88, "postgres", "127.0.0.1", 5432}, {88, "postgres", "*", 5432},
                   {88, "postgres", "127.0.0.1", 5432}, {0, "(root)", "::1", 25},
                   {0, "(mail)", "127.0.0.2", 25}};
    auto rows = scan();
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[0].processName, "(root)");
    EXPECT_EQ(rows[1].processName, "(mail)");
    EXPECT_EQ(rows[1].port, 25);
    const PortRow& pg = rows[3];
    EXPECT_EQ(pg.port, 5432);
    EXPECT_EQ(pg.addresses, (std::vector<std::string>{"*", "127.0.0.1"}));
    EXPECT_EQ(pg.addressClass, AddressClass::allNetworks);
    EXPECT_EQ(pg.role, (R{R::OtherUser{}}));
    EXPECT_FALSE(pg.isOwnedByUser);
    EXPECT_FALSE(pg.startTime || pg.footprint || pg.cpuPercent || pg.project || pg.executablePath ||
                 pg.commandLine);
    EXPECT_EQ(pg.id(), "88@0:5432");
}

TEST_F(PortScannerTest, ServiceAncestorsClaimPlainProcessesUnlessAShellStartedThemByHand) {
    // launchd job → sh -c → node: the job would restart node.
    env.add(100, 1, "devserver", 501, "/opt/dev").label = "com.example.dev";
    env.add(200, 100, "sh", 501, "/bin/sh").arguments = {{"sh", "-c", "node server.js"}};
    env.add(300, 200, "node", 501, "/opt/node");
    env.listen(300, 3000, "127.0.0.1", C::loopback);
    EXPECT_EQ(roleOf(300),
              (R{R::BackgroundService{"com.example.dev",
                                      "launchctl bootout gui/501/com.example.dev", std::nullopt}}));

    // The same job above an interactive login shell: node stays the user's own.
    env.processes[200].info.name = "-zsh";
    env.processes[200].arguments = {{"-zsh", "-l"}};
    EXPECT_EQ(roleOf(300), (R{R::PlainProcess{}}));

    // A script run by the shell makes it a wrapper again.
    env.processes[200].arguments = {{"-zsh", "run.sh"}};
    EXPECT_TRUE(roleOf(300).is<R::BackgroundService>());

    // System and app labels above never make a service.
    env.processes[200].arguments = {{"sh", "-c", "x"}};
    env.processes[100].label = "com.apple.Terminal";
    EXPECT_EQ(roleOf(300), (R{R::PlainProcess{}}));
}

TEST_F(PortScannerTest, AncestorWalkStopsAfterEightLevels) {
    // Listener 1000 with parents 999, 998, ... 990.
    for (int32_t pid = 990; pid <= 1000; ++pid)
        env.add(pid, pid - 1, "step", 501, "/opt/step");
    env.listen(1000, 4000, "127.0.0.1", C::loopback);

    env.processes[992].label = "com.example.eighth";  // 8 levels up: found
    EXPECT_TRUE(roleOf(1000).is<R::BackgroundService>());
    env.processes[992].label.reset();
    env.processes[991].label = "com.example.ninth";  // 9 levels up: out of reach
    EXPECT_EQ(roleOf(1000), (R{R::PlainProcess{}}));
}

TEST_F(PortScannerTest, AncestorWalkNeverReadsPidOne) {
    // Two levels below init: the walk would reach pid 1 well within its limit.
    env.processes[1].info = {0, 0, 1, "launchd", 3};
    env.processes[1].label = "com.example.root";
    env.add(20, 1, "step", 501, "/opt/step");
    env.add(21, 20, "node", 501, "/opt/node");
    env.listen(21, 4000, "127.0.0.1", C::loopback);
    EXPECT_EQ(roleOf(21), (R{R::PlainProcess{}}));
    for (int32_t read : env.processReads)
        EXPECT_NE(read, 1) << "pid 1 was read";
}

TEST_F(PortScannerTest, AppProcessesAreTheAppsOnlyWhenTheAppStartedThem) {
    const std::string bundle = "/Applications/Foo.app/Contents/";
    env.add(100, 1, "Foo", 501, bundle + "MacOS/Foo").label = "application.com.foo.Foo.1.2";
    env.add(101, 100, "helper", 501, bundle + "Resources/helper");
    env.listen(101, 5000, "127.0.0.1", C::loopback);
    EXPECT_EQ(roleOf(101), (R{R::PartOfApp{"Foo"}}));

    // The same tool started by hand from a terminal is a plain process.
    env.processes[101].info.ppid = 50;
    env.add(50, 1, "zsh", 501, "/bin/zsh").arguments = {{"zsh"}};
    EXPECT_EQ(roleOf(101), (R{R::PlainProcess{}}));

    // Its own job label makes it a service.
    env.processes[101].label = "com.foo.helper";
    EXPECT_TRUE(roleOf(101).is<R::BackgroundService>());
}

TEST_F(PortScannerTest, AFolderIsLookedUpOncePerScanAndAgainOnTheNext) {
    for (int32_t pid : {300, 301}) {
        env.add(pid, 1, "node", 501, "/opt/node").cwd = "/Users/ana/src/app";
        env.listen(pid, static_cast<uint16_t>(pid + 2700), "127.0.0.1", C::loopback);
    }
    std::vector<std::string> probed;
    PortScanner scanner(env, classifier,
                        ProjectResolver("/Users/ana", true,
                                        [&](const std::string& p) {
                                            probed.push_back(p);
                                            return gitFolders.count(p) > 0;
                                        }),
                        501);
    auto rows = scanner.scan();
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(probed, (std::vector<std::string>{"/Users/ana/src/app/.git", "/Users/ana/src/.git"}));
    EXPECT_EQ(rows[1].project, (ProjectInfo{"~/src/app", false}));

    gitFolders.insert("/Users/ana/src/app/.git");
    rows = scanner.scan();
    EXPECT_EQ(rows[0].project, (ProjectInfo{"~/src/app", true}));
    EXPECT_EQ(rows[1].project, (ProjectInfo{"~/src/app", true}));
}

TEST_F(PortScannerTest, ProjectsOnlyForTheUsersPlainProcessesAndServicesWithPrivacyKept) {
    auto& mine = env.add(300, 1, "node", 501, "/opt/node");
    mine.cwd = "/Users/ana/Documents/site";
    auto& theirs = env.add(301, 1, "node", 502, "/opt/node");
    theirs.cwd = "/Users/bob/src/x";
    auto& app = env.add(302, 1, "Foo", 501, "/Applications/Foo.app/Contents/MacOS/Foo");
    app.cwd = "/Users/ana/src/x";
    app.label = "application.com.foo.Foo.1";
    gitFolders = {"/Users/ana/Documents/site/.git", "/Users/bob/src/x/.git", "/Users/ana/src/.git"};
    env.listen(300, 3000, "127.0.0.1", C::loopback);
    env.listen(301, 3001, "127.0.0.1", C::loopback);
    env.listen(302, 3002, "127.0.0.1", C::loopback);
    auto rows = scan();
    ASSERT_EQ(rows.size(), 3u);
    // Without full disk access the protected folder is shown, never probed.
    EXPECT_EQ(rows[0].project, (ProjectInfo{"~/Documents/site", false}));
    EXPECT_FALSE(rows[1].project);
    EXPECT_FALSE(rows[1].isOwnedByUser);
    EXPECT_FALSE(rows[2].project);
}

// A systemd machine: every process sits in a unit, and labels go to each
// unit's main process only.
class SystemdScanTest : public ::testing::Test {
  protected:
    FakePortEnvironment env;
    int keepsAliveAsked = 0;
    ListenerClassifier classifier{1000,
                                  "/home/ana",
                                  std::make_shared<SystemdLabels>(),
                                  {},
                                  [this](const std::string&) -> std::optional<bool> {
                                      ++keepsAliveAsked;
                                      return true;
                                  }};
    std::set<std::string> gitFolders{"/home/ana/src/shop/.git"};

    std::vector<PortRow> scan() {
        ProjectResolver resolver("/home/ana", true,
                                 [this](const std::string& p) { return gitFolders.count(p) > 0; });
        return PortScanner(env, classifier, resolver, 1000).scan();
    }
    FakePortEnvironment::Process& add(int32_t pid, int32_t ppid, const std::string& name,
                                      const std::string& cgroup, std::vector<std::string> args = {},
                                      uint32_t uid = 1000) {
        auto& p = env.add(pid, ppid, name, uid, "/usr/bin/" + name);
        p.cgroup = "0::" + cgroup + "\n";
        p.arguments = std::move(args);
        return p;
    }
};

TEST_F(SystemdScanTest, UnitLabelsReachDescendantsUntilAShellOrAnotherUnit) {
    const std::string code =
        "/user.slice/user-1000.slice/user@1000.service/app.slice/"
        "app-gnome-code-4242.scope";
    const std::string session = "/user.slice/user-1000.slice/session-3.scope";
    add(1, 0, "systemd", "/init.scope").path = "/usr/lib/systemd/systemd";
    add(100, 1, "nginx", "/system.slice/nginx.service");
    add(101, 100, "nginx", "/system.slice/nginx.service");
    add(200, 1, "code", code);
    add(201, 200, "bash", code, {"bash"});  // the editor's terminal
    add(202, 201, "node", code, {"node", "server.js"}).cwd = "/home/ana/src/shop/web";
    add(203, 200, "bash", code, {"bash", "-c", "npm run dev"});  // a task the editor runs
    add(204, 203, "node", code, {"node", "dev.js"});
    add(300, 1, "sshd", "/system.slice/ssh.service");
    add(301, 300, "sshd", session);
    add(302, 301, "bash", session, {"bash", "-c", "node s.js"});  // ssh host 'node s.js'
    add(303, 302, "node", session);
    add(400, 1, "cupsd", "/system.slice/cups.service", {}, 0);
    add(401, 400, "cups-helper", "/system.slice/cups.service", {}, 0);
    add(500, 1, "python3", "/user.slice/user-1001.slice/user@1001.service/app.slice/api.service",
        {}, 1001);
    env.listen(100, 80, "0.0.0.0", C::any, 7);
    env.listen(101, 80, "0.0.0.0", C::any, 7);
    env.listen(202, 3000, "127.0.0.1", C::loopback);
    env.listen(204, 3001, "127.0.0.1", C::loopback);
    env.listen(303, 4000, "127.0.0.1", C::loopback);
    env.listen(401, 631, "127.0.0.1", C::loopback);
    env.listen(500, 5000, "0.0.0.0", C::any);

    const R nginx{
        R::BackgroundService{"system/nginx.service", "sudo systemctl stop nginx.service", true}};
    const std::map<int32_t, R> expected{
        {100, nginx},
        {101, nginx},  // the worker, through its master
        {202, {R::PlainProcess{}}},
        {204, {R::PlainProcess{}}},
        {303, {R::PlainProcess{}}},  // sshd's session is a unit of its own
        {401, {R::AppleSystem{}}},
        {500,
         {R::BackgroundService{"user/1001/api.service",
                               "systemctl --user -M 1001@ stop api.service", true}}},
    };
    auto rows = scan();
    ASSERT_EQ(rows.size(), expected.size());
    for (const auto& row : rows) {
        EXPECT_EQ(row.role, expected.at(row.pid)) << row.pid;
        if (row.pid == 202) {
            EXPECT_EQ(row.project, (ProjectInfo{"~/src/shop", true}));
        }
    }
    EXPECT_EQ(keepsAliveAsked, 2) << "once per unit, not once per row";
    scan();
    EXPECT_EQ(keepsAliveAsked, 4) << "and again on the next refresh";
}

}  // namespace
}  // namespace wharfy
