// The notifier's pure rules, and the live notifier where there is no bus.
#include "notify/notifier.h"

#include <gtest/gtest.h>

#include "fake_notifier.h"
#include "notify/linux/dbus_notifier.h"

namespace wharfy {
namespace {

TEST(NotificationIdentifier, KindDashSecondsAsADecimalNumber) {
    struct Case {
        const char* kind;
        double seconds;
        const char* expected;
    };
    for (const Case& c : {
             Case{"runawaySession", 1767225600.25, "runawaySession-1767225600.25"},
             Case{"publicListener", 1767225600.0, "publicListener-1767225600.0"},
             Case{"containerStorage", 1767225600.125, "containerStorage-1767225600.125"},
             Case{"publicListener", 1e10, "publicListener-10000000000.0"},
         })
        EXPECT_EQ(notificationIdentifier(c.kind, c.seconds), c.expected) << c.seconds;
    EXPECT_NE(notificationIdentifier("runawaySession", 1767225600.001),
              notificationIdentifier("runawaySession", 1767225600.002));
}

TEST(EscapeBodyMarkup, OnlyTheThreeMarkupCharactersChange) {
    EXPECT_EQ(escapeBodyMarkup("<b>x&y is now listening on port 80"),
              "&lt;b&gt;x&amp;y is now listening on port 80");
    EXPECT_EQ(escapeBodyMarkup("&amp;"), "&amp;amp;") << "an entity in machine text is text";
    EXPECT_EQ(escapeBodyMarkup("it's \"q\" 100% \xC3\xA9\n"), "it's \"q\" 100% \xC3\xA9\n");
}

TEST(AskForNotificationPermissionOnce, SetsTheFlagBeforeAskingAndNeverAsksTwice) {
    testing::MemoryFlagStore flag;
    int asks = 0;
    auto ask = [&] {
        EXPECT_TRUE(flag.get()) << "the flag must be set before the question is asked";
        ++asks;
    };
    EXPECT_TRUE(askForNotificationPermissionOnce(flag, ask));
    EXPECT_FALSE(askForNotificationPermissionOnce(flag, ask));
    EXPECT_EQ(asks, 1);

    testing::MemoryFlagStore askedAtAnEarlierLaunch(true);
    EXPECT_FALSE(askForNotificationPermissionOnce(askedAtAnEarlierLaunch, ask));
    EXPECT_EQ(asks, 1);
}

TEST(DBusNotifier, WithoutASessionBusEveryAnswerIsNo) {
    const NotificationRequest request{"A session is using a lot", "Codex. It is using 9.0 GB.",
                                      "runawaySession-1767225600.25"};
    for (const auto& address :
         {std::optional<std::string>(), std::optional<std::string>("unix:path=/nonexistent/bus"),
          std::optional<std::string>("not an address")}) {
        DBusNotifier notifier(address);
        EXPECT_FALSE(notifier.post(request)) << address.value_or("(no bus)");
        EXPECT_FALSE(notifier.requestPermission()) << address.value_or("(no bus)");
    }
}

}  // namespace
}  // namespace wharfy
