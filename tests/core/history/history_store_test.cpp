// The history store on real files under a temporary XDG_STATE_HOME, with real
// time zones through TZ.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "core/history/history_store.h"
#include "core/history/history_summary.h"
#include "history_test_support.h"
#include "test_process.h"

namespace wharfy {
namespace {

namespace fs = std::filesystem;
using testing::kBerlin;
using testing::ScopedTimeZone;
using testing::TempDir;
using testing::utc;

struct StoreFixture {
    TempDir state;  // stands for $XDG_STATE_HOME
    HistoryStore store{historyDirectory(state.path(), "/nonexistent-home"),
                       std::make_shared<LocalCalendar>()};
    const std::string& folder() const { return store.directory(); }
    void write(const std::string& name, const std::string& text) const {
        fs::create_directories(folder());
        std::ofstream(folder() + "/" + name, std::ios::binary) << text;
    }
    static std::string lineAt(const char* time) {
        return HistoryCodec::encode({utc(time), {{1, time, "One network", {}}}, {}});
    }
};

std::vector<std::string> processes(const std::vector<HistoryEntry>& entries) {
    std::vector<std::string> out;
    for (const auto& e : entries)
        out.push_back(e.ports.empty() ? "" : e.ports[0].process);
    return out;
}

mode_t modeOf(const std::string& path) {
    struct stat st {};
    ::lstat(path.c_str(), &st);
    return st.st_mode & 07777;
}

TEST(HistoryStoreTest, DayFilesFollowTheLocalCalendarAcrossClockChanges) {
    struct Case {
        const char* tz;
        const char* time;
        const char* file;
    };
    const Case cases[] = {
        {"UTC0", "2026-03-07T23:59:59Z", "2026-03-07.jsonl"},
        {"UTC0", "2026-03-08T00:00:00Z", "2026-03-08.jsonl"},
        {kBerlin, "2026-03-07T22:59:59Z", "2026-03-07.jsonl"},  // 23:59:59 CET
        {kBerlin, "2026-03-07T23:00:00Z", "2026-03-08.jsonl"},
        {kBerlin, "2026-03-29T21:59:59Z", "2026-03-29.jsonl"},  // 23:59:59 CEST, a 23-hour day
        {kBerlin, "2026-03-29T22:00:00Z", "2026-03-30.jsonl"},
        {kBerlin, "2026-10-25T22:59:59Z", "2026-10-25.jsonl"},  // a 25-hour day
        {kBerlin, "2026-10-25T23:00:00Z", "2026-10-26.jsonl"},
        // Clocks that skip midnight: 2026-03-08 begins at 01:00 local.
        {"XST3XDT,M3.2.0/0,M11.1.0/0", "2026-03-08T02:59:59Z", "2026-03-07.jsonl"},
        {"XST3XDT,M3.2.0/0,M11.1.0/0", "2026-03-08T03:00:00Z", "2026-03-08.jsonl"},
    };
    for (const auto& c : cases) {
        ScopedTimeZone tz(c.tz);
        HistoryStore store("/h", std::make_shared<LocalCalendar>());
        EXPECT_EQ(store.fileURL(utc(c.time)), std::string("/h/") + c.file) << c.tz << " " << c.time;
        // The day a file name stands for starts exactly where the day file's entries start.
        const std::string name = c.file;
        if (store.fileURL(utc(c.time) - 1) != store.fileURL(utc(c.time))) {
            EXPECT_EQ(store.day(name), utc(c.time)) << c.tz << " " << c.file;
        }
    }
}

TEST(HistoryStoreTest, OnlyWholeDayNamesCount) {
    ScopedTimeZone tz("UTC0");
    HistoryStore store("/h", std::make_shared<LocalCalendar>());
    EXPECT_EQ(store.day("2026-03-07.jsonl"), utc("2026-03-07T00:00:00Z"));
    EXPECT_EQ(store.day("2024-02-29.jsonl"), utc("2024-02-29T00:00:00Z"));
    for (const char* name :
         {"2026-03-07.jsonl.bak", "notes.txt", "2026-3-07.jsonl", "2026-02-30.jsonl",
          "2026-13-01.jsonl", "x2026-03-07.jsonl", "2026-03-07.JSONL", "2026-03-07.jsonl/"})
        EXPECT_FALSE(store.day(name)) << name;
}

TEST(HistoryStoreTest, KeepsSevenDaysAndLeavesEverythingElseAlone) {
    ScopedTimeZone tz("UTC0");
    StoreFixture f;
    for (int day = 1; day <= 10; ++day) {
        char time[32];
        std::snprintf(time, sizeof time, "2026-03-%02dT12:00:00Z", day);
        f.write(std::string(time, 10) + ".jsonl", StoreFixture::lineAt(time));
    }
    f.write("2026-03-07.jsonl.bak", StoreFixture::lineAt("2026-03-07T13:00:00Z"));
    f.write("notes.txt", "notes");
    f.write("2026-02-30.jsonl", StoreFixture::lineAt("2026-03-02T00:00:00Z"));
    // An old day name that is a link (to a file outside) and one that is a folder.
    const std::string outside = f.state.path() + "/outside.jsonl";
    std::ofstream(outside) << StoreFixture::lineAt("2026-03-01T00:00:00Z");
    fs::remove(f.folder() + "/2026-03-02.jsonl");
    fs::create_symlink(outside, f.folder() + "/2026-03-02.jsonl");
    fs::create_directory(f.folder() + "/2026-02-01.jsonl");

    const double now = utc("2026-03-10T08:00:00Z");
    EXPECT_EQ(processes(f.store.read(now)),
              (std::vector<std::string>{"2026-03-04T12:00:00Z", "2026-03-05T12:00:00Z",
                                        "2026-03-06T12:00:00Z", "2026-03-07T12:00:00Z",
                                        "2026-03-08T12:00:00Z", "2026-03-09T12:00:00Z",
                                        "2026-03-10T12:00:00Z"}));
    EXPECT_EQ(f.store.prune(now),
              (std::vector<std::string>{"2026-03-01.jsonl", "2026-03-03.jsonl"}));
    for (const char* kept : {"2026-03-07.jsonl.bak", "notes.txt", "2026-02-30.jsonl",
                             "2026-03-02.jsonl", "2026-02-01.jsonl", "2026-03-04.jsonl"})
        EXPECT_TRUE(fs::exists(fs::symlink_status(f.folder() + "/" + kept))) << kept;
    EXPECT_TRUE(fs::exists(outside));
    EXPECT_EQ(f.store.prune(now), std::vector<std::string>{});
}

TEST(HistoryStoreTest, TheSeventhDayStaysAcrossALongDay) {
    ScopedTimeZone tz(kBerlin);
    StoreFixture f;
    // 2026-10-25 has 25 hours; six days before 2026-10-28 is 2026-10-22.
    for (const char* day : {"2026-10-21", "2026-10-22", "2026-10-28"})
        f.write(std::string(day) + ".jsonl",
                StoreFixture::lineAt((std::string(day) + "T10:00:00Z").c_str()));
    const double now = utc("2026-10-28T10:00:00Z");
    EXPECT_EQ(f.store.read(now).size(), 2u);
    EXPECT_EQ(f.store.prune(now), std::vector<std::string>{"2026-10-21.jsonl"});
}

TEST(HistoryStoreTest, AppendMakesPrivateFoldersAndFilesAndOneLinePerEntry) {
    ScopedTimeZone tz("UTC0");
    StoreFixture f;
    HistoryEntry entry{utc("2026-03-07T14:05:09Z"), {{80, "nginx", "All networks", {}}}, {}};
    ASSERT_TRUE(f.store.append(entry));
    entry.time += 60;
    ASSERT_TRUE(f.store.append(entry));
    EXPECT_EQ(modeOf(f.state.path() + "/wharfy"), 0700u);
    EXPECT_EQ(modeOf(f.folder()), 0700u);
    EXPECT_EQ(modeOf(f.folder() + "/2026-03-07.jsonl"), 0600u);
    std::ifstream in(f.folder() + "/2026-03-07.jsonl", std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(text, HistoryCodec::encode({entry.time - 60, entry.ports, {}}) +
                        HistoryCodec::encode(entry));
}

TEST(HistoryStoreTest, ATruncatedLineCostsOnlyThatLine) {
    ScopedTimeZone tz("UTC0");
    StoreFixture f;
    const std::string whole = StoreFixture::lineAt("2026-03-07T10:00:00Z");
    f.write("2026-03-07.jsonl", whole + "\n\n" + whole.substr(0, whole.size() / 2));
    const double now = utc("2026-03-07T12:00:00Z");
    EXPECT_EQ(f.store.read(now).size(), 1u);
    ASSERT_TRUE(f.store.append(*HistoryCodec::decode(whole)));
    EXPECT_EQ(f.store.read(now).size(), 2u) << "the next line starts on a line of its own";
}

TEST(HistoryStoreTest, LinksInPlaceOfTheFolderOrADayFileAreRefused) {
    ScopedTimeZone tz("UTC0");
    const HistoryEntry entry{utc("2026-03-07T10:00:00Z"), {}, {}};
    const double now = utc("2026-03-07T12:00:00Z");

    StoreFixture dayLink;
    const std::string target = dayLink.state.path() + "/target";
    std::ofstream(target) << "";
    fs::create_directories(dayLink.folder());
    fs::create_symlink(target, dayLink.folder() + "/2026-03-07.jsonl");
    auto refused = dayLink.store.append(entry);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, HistoryError::Kind::openFile);
    EXPECT_EQ(fs::file_size(target), 0u);

    TempDir state;
    const std::string real = state.path() + "/real";
    fs::create_directories(real);
    std::ofstream(real + "/2026-03-07.jsonl") << StoreFixture::lineAt("2026-03-07T09:00:00Z");
    std::ofstream(real + "/2026-02-01.jsonl") << "";
    const std::string folder = historyDirectory(state.path(), "/");
    fs::create_directories(fs::path(folder).parent_path());
    fs::create_symlink(real, folder);
    std::ofstream(state.path() + "/file") << "";
    for (const std::string& unsafe : {folder, state.path() + "/file"}) {
        HistoryStore store(unsafe, std::make_shared<LocalCalendar>());
        EXPECT_FALSE(store.folderIsSafe()) << unsafe;
        auto failed = store.append(entry);
        ASSERT_FALSE(failed) << unsafe;
        EXPECT_EQ(failed.error().kind, HistoryError::Kind::unsafeFolder);
        EXPECT_EQ(store.read(now).size(), 0u);
        EXPECT_EQ(store.prune(now).size(), 0u);
    }
    EXPECT_TRUE(fs::exists(real + "/2026-02-01.jsonl"));
    EXPECT_TRUE(HistoryStore(state.path() + "/missing", nullptr).folderIsSafe());
}

TEST(HistoryStoreTest, FourProcessesAppendingAtOnceNeverInterleave) {
    ScopedTimeZone tz("UTC0");
    StoreFixture f;
    constexpr int kWorkers = 4, kLines = 500;
    const double base = utc("2026-03-07T10:00:00Z");
    std::vector<pid_t> workers;
    for (int w = 0; w < kWorkers; ++w) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            // 100 ports make each line about 7 KB, well past any pipe-sized atomic write.
            HistoryEntry entry{0, {}, {{"Codex", "w" + std::to_string(w), {}, 0}}};
            for (int p = 0; p < 100; ++p)
                entry.ports.push_back({static_cast<uint16_t>(p), "worker", "One network", {}});
            bool ok = true;
            for (int i = 0; i < kLines && ok; ++i) {
                entry.time = base + i;
                ok = f.store.append(entry).ok();
            }
            ::_exit(ok ? 0 : 1);
        }
        workers.push_back(pid);
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (pid_t pid : workers) {
        int status = -1;
        while (::waitpid(pid, &status, WNOHANG) == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (status == -1) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            ADD_FAILURE() << "a worker did not finish within 60 s";
        }
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    const auto entries = f.store.read(base);
    EXPECT_EQ(entries.size(), size_t{kWorkers * kLines}) << "every line decodes";
    std::set<std::pair<std::string, double>> seen;
    for (const auto& e : entries) {
        ASSERT_EQ(e.ports.size(), 100u);
        seen.insert({*e.sessions.at(0).project, e.time});
    }
    EXPECT_EQ(seen.size(), size_t{kWorkers * kLines}) << "each line once";
}

TEST(HistoryStoreTest, RecorderWritesOnChangeOrEveryFiveMinutes) {
    const std::vector<HistoryPort> a{{3000, "node", "All networks", {}}};
    const std::vector<HistoryPort> ab{{3000, "node", "All networks", {}},
                                      {5432, "postgres", "One network", {}}};
    const HistorySession session{"Codex", {}, {}, 1};
    struct Step {
        double time;
        const std::vector<HistoryPort>* ports;
        bool sessions;
        bool recorded;
    };
    const Step steps[] = {
        {0, &a, false, true},     // the first offer
        {299, &a, true, false},   // same ports, sessions do not count
        {300, &a, false, true},   // the interval has passed
        {310, &ab, false, true},  // a listener more: at once
        {320, &a, false, true},   // one less: at once
        {330, &a, false, false},
    };
    HistoryRecorder recorder;
    for (const auto& s : steps) {
        HistoryEntry e{s.time, *s.ports, {}};
        if (s.sessions) e.sessions.push_back(session);
        EXPECT_EQ(recorder.shouldRecord(e), s.recorded) << s.time;
    }
    EXPECT_EQ(recorder.lastTime, 320.0);
}

TEST(HistoryStoreTest, SummaryPerDayNewestFirst) {
    ScopedTimeZone tz("UTC0");
    const HistoryPort node{3000, "node", "All networks", "shop"};
    const HistoryPort nodeLocal{3000, "node", "This computer only", "shop"};
    const HistoryPort db{5432, "postgres", "One network", {}};
    auto at = [](const char* time, std::vector<HistoryPort> ports,
                 std::vector<HistorySession> sessions = {}) {
        return HistoryEntry{utc(time), std::move(ports), std::move(sessions)};
    };
    const std::vector<HistoryEntry> entries{
        at("2026-02-28T10:00:00Z", {db}),  // eight days ago: outside the week
        at("2026-03-06T09:00:00Z", {db, node}, {{"Codex", "shop", {}, 100}}),
        at("2026-03-06T09:05:00Z", {db, node}, {{"Codex", "shop", 80.0, 300}}),
        at("2026-03-06T17:00:00Z", {db, nodeLocal}, {{"Codex", "shop", 20.0, 200}}),
        at("2026-03-07T08:00:00Z", {db, node}, {{"Aider", {}, {}, 5}}),
    };
    HistoryStore store("/h", std::make_shared<LocalCalendar>());
    const auto summary =
        HistorySummary::build(entries, store.calendar(), utc("2026-03-07T12:00:00Z"));
    using P = HistorySummary::Port;
    using S = HistorySummary::Session;
    const double nine = utc("2026-03-06T09:00:00Z"), five = nine + 300,
                 seventeen = utc("2026-03-06T17:00:00Z"), eight = utc("2026-03-07T08:00:00Z");
    const HistorySummary expected{
        {{{2026, 3, 7},
          1,
          {{3000, "node", "All networks", "shop", eight, eight},
           {5432, "postgres", "One network", {}, eight, eight}},
          {S{"Aider", {}, 5, {}, eight, eight}}},
         {{2026, 3, 6},
          3,
          {P{3000, "node", "All networks", "shop", nine, five},
           P{3000, "node", "This computer only", "shop", seventeen, seventeen},
           P{5432, "postgres", "One network", {}, nine, seventeen}},
          {S{"Codex", "shop", 300, 80.0, nine, seventeen}}}},
        4};
    EXPECT_EQ(summary, expected);
}

}  // namespace
}  // namespace wharfy
