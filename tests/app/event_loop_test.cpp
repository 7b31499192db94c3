// The real event loop and its worker pool.
#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

#include "app/diagnostics.h"
#include "app/loop/asio_event_loop.h"

namespace wharfy::app {
namespace {

using namespace std::chrono_literals;

TEST(AsioEventLoop, TimersPostsBackgroundWorkAndSignalsAllRunOnTheLoopThread) {
    AsioEventLoop loop;
    std::vector<std::string> order;
    const auto loopThread = std::this_thread::get_id();
    bool offLoop = false;
    auto cancelled = loop.after(0.02, [&] { order.push_back("cancelled"); });
    loop.after(0.05, [&] { order.push_back("late"); });
    loop.after(0.01, [&] { order.push_back("early"); });
    loop.cancel(cancelled);
    std::thread([&] { loop.post([&] { order.push_back("posted"); }); }).join();
    auto alive = std::make_shared<int>(0);
    runInBackground(
        loop, alive,
        [&] {
            offLoop = std::this_thread::get_id() != loopThread;
            return 42;
        },
        [&](int v) { order.push_back("background " + std::to_string(v)); });
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    loop.watch(pipeFds[0], [&] {
        char c;
        if (::read(pipeFds[0], &c, 1) == 1) order.push_back(std::string("read ") + c);
        loop.unwatch(pipeFds[0]);
    });
    ASSERT_EQ(::write(pipeFds[1], "x", 1), 1);
    loop.onEndingSignal([&](int signal) {
        order.push_back(signal == SIGHUP ? "SIGHUP" : "other");
        loop.stop();
    });
    loop.after(0.1, [] { ::raise(SIGHUP); });
    loop.run();
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    EXPECT_TRUE(offLoop);
    // Timers fire in time order and a cancelled one never does; the rest in
    // whatever order they became ready.
    auto at = [&](const std::string& what) {
        return std::find(order.begin(), order.end(), what) - order.begin();
    };
    EXPECT_LT(at("early"), at("late"));
    EXPECT_EQ(at("cancelled"), static_cast<long>(order.size()));
    for (const char* what : {"posted", "background 42", "read x", "SIGHUP"})
        EXPECT_LT(at(what), static_cast<long>(order.size())) << what;
    EXPECT_EQ(order.back(), "SIGHUP");
}

TEST(WorkerPool, ABlockedJobDelaysNoOtherAndShutdownGivesUpOnIt) {
    WorkerPool pool(4, 1s);
    std::promise<void> release;
    auto blocked = release.get_future().share();
    std::atomic<bool> later{false};
    pool.submit([blocked] { blocked.wait(); });
    std::promise<void> ran;
    pool.submit([&] {
        later = true;
        ran.set_value();
    });
    EXPECT_EQ(ran.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_TRUE(later);
    EXPECT_FALSE(pool.shutdown(50ms)) << "the blocked job cannot have finished";
    pool.submit([] { FAIL() << "a job after shutdown ran"; });
    release.set_value();
}

TEST(Diagnostics, TheWatchdogSeesAStalledLoopAndTheFiguresAddUp) {
    AsioEventLoop loop;
    auto diagnostics = std::make_shared<Diagnostics>();
    {
        Watchdog watchdog(loop, diagnostics, 10ms);
        loop.after(0.05, [] { std::this_thread::sleep_for(200ms); });
        loop.after(0.4, [&] { loop.stop(); });
        loop.run();
    }
    for (double ms : {30.0, 10.0, 20.0, 50.0})
        diagnostics->recordRefresh(ms);
    diagnostics->mark("firstRefresh");
    const auto json = diagnostics->json(ProcessCost::current());
    EXPECT_GE(json["worstMainThreadStallMs"].get<double>(), 150.0) << json.dump();
    EXPECT_EQ(json["refreshCount"], 4);
    EXPECT_EQ(json["refreshMedianMs"], 25.0);
    EXPECT_EQ(json["refreshWorstMs"], 50.0);
    EXPECT_EQ(json["refreshWorstAfterFirstMs"], 50.0);
    EXPECT_GT(json["peakFootprintBytes"].get<uint64_t>(), 1'000'000u);
    EXPECT_GT(json["cpuSeconds"].get<double>(), 0.0);
    EXPECT_TRUE(json["marks"].contains("firstRefresh"));
    EXPECT_EQ(json["suiteHost"], false);
}

}  // namespace
}  // namespace wharfy::app
