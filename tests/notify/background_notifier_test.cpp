// Posting through the worker thread: answers come back, a hung desktop
// cannot make the queue grow.
#include "notify/background_notifier.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "fake_notifier.h"

namespace wharfy {
namespace {

using testing::RecordingNotifier;

/// Answers collected from the worker thread.
struct Answers {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<bool> values;

    BackgroundNotifier::Answer collector() {
        return [this](bool accepted) {
            std::lock_guard lock(mutex);
            values.push_back(accepted);
            arrived.notify_all();
        };
    }
    std::vector<bool> waitFor(std::size_t count) {
        std::unique_lock lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(10), [&] { return values.size() >= count; });
        return values;
    }
};

NotificationRequest request(const std::string& id) {
    return {"Container storage is large", "Podman occupies 25.0 GB on this Mac.", id};
}

TEST(BackgroundNotifier, EachCallIsAnsweredWithTheNotifiersAnswerInOrder) {
    auto fake = std::make_shared<RecordingNotifier>();
    fake->setAccepts(false);
    Answers answers;
    BackgroundNotifier notifier(fake);
    ASSERT_TRUE(notifier.post(request("containerStorage-1.0"), answers.collector()));
    ASSERT_TRUE(notifier.post(request("containerStorage-2.0"), answers.collector()));
    ASSERT_TRUE(notifier.requestPermission(answers.collector()));
    EXPECT_EQ(answers.waitFor(3), (std::vector<bool>{false, false, false}));
    EXPECT_EQ(fake->posted(),
              (std::vector{request("containerStorage-1.0"), request("containerStorage-2.0")}));
    EXPECT_EQ(fake->permissionRequests(), 1);
}

TEST(BackgroundNotifier, AHungDesktopNeitherBlocksTheCallerNorGrowsTheQueue) {
    auto fake = std::make_shared<RecordingNotifier>();
    fake->hold();
    Answers answers;
    auto notifier = std::make_unique<BackgroundNotifier>(fake, 2);
    ASSERT_TRUE(notifier->post(request("a-1.0"), answers.collector()));
    ASSERT_TRUE(fake->waitForStarted(1));
    EXPECT_TRUE(notifier->post(request("a-2.0"), answers.collector()));
    EXPECT_TRUE(notifier->requestPermission(answers.collector()));
    EXPECT_FALSE(notifier->post(request("a-3.0"), answers.collector())) << "the queue is full";
    fake->release();
    EXPECT_EQ(answers.waitFor(3), (std::vector<bool>{true, true, true}));
    EXPECT_EQ(fake->posted(), (std::vector{request("a-1.0"), request("a-2.0")}));
}

}  // namespace
}  // namespace wharfy
