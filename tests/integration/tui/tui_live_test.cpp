// The real wharfy in a tmux pane, driven with keys like a user would.
#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "podman_engine.h"
#include "spawned_process.h"
#include "system/command_runner.h"
#include "test_process.h"
#include "tmux_session.h"

namespace wharfy::testing {
namespace {

bool contains(const std::string& text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

struct InterfaceLive : ::testing::Test {
    TempDir dir;

    void SetUp() override {
        if (TmuxSession::tmuxPath().empty()) GTEST_SKIP() << "tmux is not installed";
        for (const char* sub : {"/home", "/config", "/state", "/run"})
            ::mkdir((dir.path() + sub).c_str(), 0700);
    }
    std::map<std::string, std::string> environment() const {
        return {{"HOME", dir.path() + "/home"},
                {"PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"},
                {"LANG", "C.UTF-8"},
                {"XDG_CONFIG_HOME", dir.path() + "/config"},
                {"XDG_STATE_HOME", dir.path() + "/state"},
                {"XDG_RUNTIME_DIR", dir.path() + "/run"}};
    }
    std::unique_ptr<TmuxSession> open(int cols, int rows,
                                      std::map<std::string, std::string> env = {}) {
        if (env.empty()) env = environment();
        // A suite folder of the test's own: the user's real one is never touched.
        env["TMPDIR"] = dir.path();
        std::vector<std::string> command{"/usr/bin/env"};
        for (const auto& [k, v] : env)
            command.push_back(k + "=" + v);
        command.push_back(WHARFY_EXECUTABLE);
        command.push_back("--suite-folder");
        command.push_back(dir.path() + "/suite");
        auto pane = TmuxSession::start(dir.path(), command, cols, rows, env);
        if (pane &&
            !pane->waitFor([](const std::string& t) { return contains(t, "refreshed"); }, 20))
            ADD_FAILURE() << "the interface did not draw:\n" << pane->capture();
        return pane;
    }
    static bool restored(TmuxSession& pane) {
        return pane.query("#{pane_dead} #{alternate_on}") == "1 0" &&
               !contains(pane.capture(), "Wharfy");
    }
};

/// A listener of the test helper in a temporary git project.
std::optional<TestProcess> listenerIn(const std::string& folder,
                                      const std::string& executable = TestProcess::helperPath()) {
    ::mkdir(folder.c_str(), 0700);
    SystemActionRunner git(30);
    git.run("/usr/bin/git", {"init", "-q", folder}, {{"HOME", folder}});
    return TestProcess::start({"--listen", "127.0.0.1:0"}, executable, folder);
}

TEST_F(InterfaceLive, FindStopAndSeeThePortFree) {
    auto helper = listenerIn(dir.path() + "/web");
    ASSERT_TRUE(helper);
    const std::string port = std::to_string(helper->ports().at(0));
    auto pane = open(120, 40);
    ASSERT_TRUE(pane);
    // On a busy machine the row may be below the first screen: search first.
    pane->sendKeys({"/"});
    pane->sendKeys({"-l", port});
    ASSERT_TRUE(
        pane->waitFor([&](const std::string& t) { return contains(t, " " + port + "  "); }, 20))
        << pane->capture();
    pane->sendKeys({"Enter", "F9"});
    const auto confirm = pane->waitFor(
        [](const std::string& t) {
            return contains(t, "Sends SIGTERM once. Wharfy never forces a stop.");
        },
        15);
    ASSERT_TRUE(confirm) << pane->capture();
    EXPECT_TRUE(contains(*confirm, "Send the polite stop request (SIGTERM) to"));
    EXPECT_TRUE(contains(*confirm, "(pid " + std::to_string(helper->pid()) + ")"));
    EXPECT_TRUE(contains(*confirm, "[ Cancel ]"));
    pane->sendKeys({"y"});
    EXPECT_TRUE(pane->waitFor(
        [&](const std::string& t) { return contains(t, "Stopped. Port " + port + " is free."); },
        20))
        << pane->capture();
    EXPECT_TRUE(helper->wait(5).has_value()) << "the helper is still running";

    // A shell holding a port is refused, and nothing is signalled.
    const std::string bash = dir.path() + "/bash";
    ASSERT_TRUE(copyExecutable(TestProcess::helperPath(), bash));
    auto shell = listenerIn(dir.path() + "/shell", bash);
    ASSERT_TRUE(shell);
    const std::string shellPort = std::to_string(shell->ports().at(0));
    pane->sendKeys({"Escape", "/"});
    pane->sendKeys({"-l", shellPort});
    ASSERT_TRUE(pane->waitFor(
        [&](const std::string& t) { return contains(t, " " + shellPort + "  "); }, 20));
    pane->sendKeys({"Enter", "F9"});
    EXPECT_TRUE(pane->waitFor(
        [](const std::string& t) { return contains(t, "Wharfy never stops bash."); }, 15))
        << pane->capture();
    EXPECT_FALSE(shell->wait(1).has_value()) << "the shell was signalled";

    // Resized, it redraws in the new size without wrapping.
    ASSERT_TRUE(pane->resize(80, 24));
    const auto small = pane->waitFor(
        [](const std::string& t) {
            return std::count(t.begin(), t.end(), '\n') == 24 && t.starts_with(" Wharfy");
        },
        10);
    ASSERT_TRUE(small) << pane->capture();
    EXPECT_TRUE(contains(*small, "REACHABLE FROM"));
    EXPECT_TRUE(contains(*small, "q Quit"));

    // q gives the pane its normal screen back, with nothing left over.
    pane->sendKeys({"q"});
    EXPECT_TRUE(pane->waitFor([&](const std::string&) { return restored(*pane); }, 10))
        << pane->capture();
}

TEST_F(InterfaceLive, EndingSignalsAndACrashRestoreTheTerminal) {
    for (int signal : {SIGTERM, SIGHUP, SIGSEGV}) {
        auto pane = open(100, 30);
        ASSERT_TRUE(pane);
        const auto pid = pane->panePid();
        ASSERT_TRUE(pid);
        ::kill(*pid, signal);
        EXPECT_TRUE(pane->waitFor([&](const std::string&) { return restored(*pane); }, 10))
            << "signal " << signal << ":\n"
            << pane->capture();
    }
}

TEST_F(InterfaceLive, CleanupRemovesExactlyTheDanglingImageAndTheUnusedVolumeShown) {
    std::string whyNot;
    auto engine = PodmanEngine::start(whyNot);
    if (!engine) GTEST_SKIP() << whyNot;
    if (!dockerTool(engine->home())) GTEST_SKIP() << "no docker command-line tool";
    const auto keptId = engine->importImage(engine->uniqueName("kept"));
    const std::string danglingTag = engine->uniqueName("dangling");
    const auto danglingId = engine->importImage(danglingTag);
    ASSERT_TRUE(keptId && danglingId);
    ASSERT_EQ(engine->podman({"untag", *danglingId}).status, 0);
    const std::string unused = engine->uniqueName("unused");
    const std::string used = engine->uniqueName("used");
    ASSERT_EQ(engine->podman({"volume", "create", unused}).status, 0);
    ASSERT_EQ(engine->podman({"volume", "create", used}).status, 0);
    ASSERT_EQ(engine
                  ->podman({"create", "--name", engine->uniqueName("user"), "-v", used + ":/data",
                            engine->image(), "true"})
                  .status,
              0);

    auto env = engine->environment();
    env["LANG"] = "C.UTF-8";
    env["XDG_CONFIG_HOME"] = dir.path() + "/config";
    env["XDG_STATE_HOME"] = dir.path() + "/state";
    auto pane = open(120, 40, env);
    ASSERT_TRUE(pane);
    pane->sendKeys({"2"});
    ASSERT_TRUE(pane->waitFor([](const std::string& t) { return contains(t, "Reclaimable"); }, 60))
        << pane->capture();
    pane->sendKeys({"c"});
    const auto menu = pane->waitFor(
        [&](const std::string& t) { return contains(t, "Remove volume " + unused); }, 15);
    ASSERT_TRUE(menu) << pane->capture();
    EXPECT_TRUE(contains(*menu, "Remove 1 dangling image ("));
    EXPECT_TRUE(contains(*menu, danglingId->substr(0, 12) + " ("));
    EXPECT_FALSE(contains(*menu, "Remove volume " + used));

    auto run = [&](const std::string& entry) {
        // Move the cursor to the entry, then review and confirm it.
        for (int i = 0; i < 10 && !contains(pane->capture(), "▸ " + entry); ++i)
            pane->sendKeys({"Down"});
        pane->sendKeys({"Enter"});
        const auto confirm =
            pane->waitFor([](const std::string& t) { return contains(t, "Runs: "); }, 15);
        ASSERT_TRUE(confirm) << pane->capture();
        pane->sendKeys({"y"});
        ASSERT_TRUE(pane->waitFor(
            [](const std::string& t) { return contains(t, "The command succeeded."); }, 60))
            << pane->capture();
        pane->sendKeys({"Escape"});
    };
    run("Remove 1 dangling image");
    ASSERT_TRUE(pane->waitFor([](const std::string& t) { return !contains(t, "Ran: "); }, 10));
    pane->sendKeys({"c"});
    ASSERT_TRUE(pane->waitFor(
        [&](const std::string& t) { return contains(t, "Remove volume " + unused); }, 15));
    run("Remove volume " + unused);

    EXPECT_NE(engine->podman({"image", "exists", *danglingId}).status, 0)
        << "the dangling image is still there";
    EXPECT_EQ(engine->podman({"image", "exists", *keptId}).status, 0);
    EXPECT_NE(engine->podman({"volume", "exists", unused}).status, 0);
    EXPECT_EQ(engine->podman({"volume", "exists", used}).status, 0);
    pane->sendKeys({"q"});
}

TEST(SnapshotsLive, WrittenFromTheRealMachineWithoutATerminal) {
    TempDir dir;
    const std::string window = dir.path() + "/window.txt";
    const std::string popover = dir.path() + "/popover.txt";
    const std::string suite = dir.path() + "/suite.txt";
    auto wharfy = SpawnedProcess::start(
        {WHARFY_EXECUTABLE, "--snapshot", window, "--snapshot-popover", popover,
         "--snapshot-suite-popover", suite, "--snapshot-size", "100x30", "--open", "containers",
         "--quit-after-snapshot", "--suite-folder", dir.path() + "/suite"},
        {{"HOME", dir.path()},
         {"PATH", "/usr/bin:/bin"},
         {"TMPDIR", dir.path()},
         {"XDG_RUNTIME_DIR", dir.path()},
         {"XDG_STATE_HOME", dir.path()},
         {"XDG_CONFIG_HOME", dir.path()}});
    ASSERT_TRUE(wharfy);
    // It prints nothing and ends by itself once the pictures are written.
    EXPECT_EQ(wharfy->readLine(60), std::nullopt);
    const std::string text = readTextFile(window);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 30);
    EXPECT_TRUE(contains(text, " Wharfy ")) << text;
    EXPECT_TRUE(contains(text, "[2 Containers]") || contains(text, " 2 Containers ")) << text;
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_TRUE(contains(readTextFile(popover), "listening"));
    EXPECT_TRUE(contains(readTextFile(suite), "Suite"));
    struct stat st {};
    ASSERT_EQ(::stat(window.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

}  // namespace
}  // namespace wharfy::testing
