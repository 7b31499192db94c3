// Several real participants, each in its own process, over one real suite
// folder. Their clocks run ten times as fast (the same clock in every
// process), so the suite's 10 s and 60 s pass in 1 s and 6 s; the same rules
// run on an injected clock in the unit tests.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "line_child.h"
#include "suite/glance_store.h"
#include "test_process.h"

namespace nemarro::suite_ui {
namespace {

using nlohmann::json;
using wharfy::testing::LineChild;
using wharfy::testing::TempDir;

constexpr double kScale = 10;

double wallNow() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

/// One participant's process and the state lines it printed.
struct Peer {
    std::string app;
    std::optional<LineChild> child;
    std::vector<json> lines;

    const json& latest() const { return lines.back(); }
    /// Reads lines until `done(latest)`; false at the end of output or after `seconds`.
    bool waitFor(const std::function<bool(const json&)>& done, double seconds = 20) {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (lines.empty() || !done(latest())) {
            const double left =
                std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
            if (left <= 0) return false;
            auto line = child->readLine(left);
            if (!line) return false;
            lines.push_back(json::parse(*line));
        }
        return true;
    }
    /// Takes in what has been printed so far.
    void catchUp() {
        while (auto line = child->readLine(0.05))
            lines.push_back(json::parse(*line));
    }
    /// Shuts down and waits for the exit status.
    std::optional<int> quit() {
        child->send("quit");
        while (auto line = child->readLine(10))
            lines.push_back(json::parse(*line));
        return child->wait(10);
    }
};

/// The row of `app` in a state line: "running", "notRunning", or "" when absent.
std::string rowState(const json& line, const std::string& app) {
    for (const auto& row : line["rows"])
        if (row["app"] == app) return row["state"];
    return "";
}
int runningCount(const json& line) {
    int n = 0;
    for (const auto& row : line["rows"])
        n += row["state"] == "running" ? 1 : 0;
    return n;
}
std::string hostingApp(const json& line) {
    for (const auto& row : line["rows"])
        if (row.value("hosting", false)) return row["app"];
    return "";
}

struct ParticipantsTest : ::testing::Test {
    TempDir dir;
    std::string folder = dir.path() + "/suite";
    // Shared by every process, so their clocks agree.
    double epoch = wallNow();

    Peer start(const std::string& app, bool surface) {
        std::vector<std::string> args{"--app",    app,
                                      "--folder", folder,
                                      "--scale",  std::to_string(kScale),
                                      "--epoch",  std::to_string(epoch)};
        if (surface) args.push_back("--surface");
        Peer peer{app, LineChild::start(WHARFY_SUITE_PARTICIPANT, args), {}};
        EXPECT_TRUE(peer.child) << "could not start the participant " << app;
        return peer;
    }
    /// The participants' clock, now.
    double suiteNow() const { return epoch + (wallNow() - epoch) * kScale; }
    void writeFile(const std::string& name, const std::string& bytes) {
        const std::string temporary = folder + "/glances/." + name;
        std::ofstream(temporary, std::ios::trunc) << bytes;
        std::rename(temporary.c_str(), (folder + "/glances/" + name).c_str());
    }
};

TEST_F(ParticipantsTest, OneHostIsElectedAndTheOtherTakesOverWhenItQuits) {
    Peer varnel = start("varnel", true);
    Peer kobble = start("kobble", true);
    Peer wharfy = start("wharfy", true);
    ASSERT_TRUE(kobble.waitFor([](const json& l) {
        return runningCount(l) == 3 && (hostingApp(l) == "varnel" || hostingApp(l) == "wharfy");
    })) << "kobble sees three apps and a host";
    const std::string host = hostingApp(kobble.latest());
    Peer& elected = host == "varnel" ? varnel : wharfy;
    Peer& other = host == "varnel" ? wharfy : varnel;
    ASSERT_TRUE(elected.waitFor([](const json& l) { return l["isHost"] == true; }));
    other.catchUp();
    EXPECT_EQ(other.latest()["isHost"], false) << other.app;
    kobble.catchUp();
    EXPECT_EQ(kobble.latest()["isHost"], false) << "kobble cannot host";

    ASSERT_EQ(elected.quit(), 0);
    EXPECT_TRUE(other.waitFor([](const json& l) { return l["isHost"] == true; }))
        << other.app << " takes over";
    EXPECT_TRUE(kobble.waitFor([&](const json& l) {
        return hostingApp(l) == other.app && rowState(l, host) == "notRunning";
    }));
    auto last =
        suite::GlanceStore{suite::SuiteFolder::at(folder)}.read(*suite::suiteAppFromId(host));
    ASSERT_TRUE(last && std::holds_alternative<suite::GlanceRecord>(*last));
    const auto& record = std::get<suite::GlanceRecord>(*last);
    EXPECT_EQ(record.state, suite::GlanceState::stopped);
    EXPECT_FALSE(record.hosting);
    EXPECT_TRUE(record.metrics.empty());
}

TEST_F(ParticipantsTest, TheSuiteTurnsOffTenSecondsAfterFallingToOneAppAndKeepsGoneRowsAMinute) {
    Peer varnel = start("varnel", false);
    Peer kobble = start("kobble", false);
    Peer wharfy = start("wharfy", false);
    ASSERT_TRUE(wharfy.waitFor([](const json& l) { return runningCount(l) == 3; }));
    ASSERT_EQ(wharfy.latest()["isActive"], true);
    ASSERT_EQ(varnel.quit(), 0);
    ASSERT_EQ(kobble.quit(), 0);

    ASSERT_TRUE(wharfy.waitFor([](const json& l) { return runningCount(l) == 1; }));
    const json fall = wharfy.latest();
    EXPECT_EQ(fall["isActive"], true) << "the off delay has only begun";
    EXPECT_EQ(rowState(fall, "varnel"), "notRunning");
    EXPECT_EQ(rowState(fall, "kobble"), "notRunning");
    double varnelLastRunning = 0;
    for (const json& line : wharfy.lines)
        if (rowState(line, "varnel") == "running") varnelLastRunning = line["now"].get<double>();

    ASSERT_TRUE(wharfy.waitFor([](const json& l) { return l["isActive"] == false; }));
    EXPECT_GE(wharfy.latest()["now"].get<double>() - fall["now"].get<double>(), 10.0);

    const size_t seen = wharfy.lines.size();
    ASSERT_TRUE(wharfy.waitFor([](const json& l) { return rowState(l, "varnel").empty(); }));
    EXPECT_GT(wharfy.latest()["now"].get<double>() - varnelLastRunning, 60.0);
    for (size_t i = seen; i + 1 < wharfy.lines.size(); ++i)
        EXPECT_EQ(rowState(wharfy.lines[i], "varnel"), "notRunning") << wharfy.lines[i].dump();
    EXPECT_EQ(wharfy.quit(), 0);
}

TEST_F(ParticipantsTest, InvalidRecordsOfOtherAppsNeverMakeTheSuiteActive) {
    ASSERT_TRUE(suite::SuiteFolder::at(folder).prepare());
    const auto record = [&](const char* app, const char* hosting, int ttl) {
        return std::string(R"({"app":")") + app + R"(","at":)" + std::to_string(suiteNow()) +
               R"(,"contract":1,"hosting":)" + hosting + R"(,"level":"ok","metrics":[],)" +
               R"("state":"running","ttl":)" + std::to_string(ttl) + "}";
    };
    Peer wharfy = start("wharfy", true);
    ASSERT_TRUE(wharfy.waitFor([](const json& l) { return runningCount(l) == 1; }));
    // Twenty seconds of the suite's time, with the files rewritten (and so
    // read again) every two.
    for (int i = 0; i < 10; ++i) {
        writeFile("kobble.json", record("kobble", "1", 30));
        writeFile("tessik.json", record("tessik", "false", 61));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    wharfy.catchUp();
    for (const json& line : wharfy.lines) {
        EXPECT_EQ(line["isActive"], false) << line.dump();
        EXPECT_EQ(runningCount(line), 1) << line.dump();
    }

    writeFile("kobble.json", record("kobble", "false", 30));
    EXPECT_TRUE(wharfy.waitFor([](const json& l) { return l["isActive"] == true; }))
        << "the same record made valid counts";
    EXPECT_EQ(wharfy.quit(), 0);
}

}  // namespace
}  // namespace nemarro::suite_ui
