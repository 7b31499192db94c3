// The live notifier on a private session bus: a real server (dunst), a bus
// without a server, and servers that answer without markup or not at all.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <future>

#include "notification_desktop.h"
#include "notify/linux/dbus_notifier.h"

namespace wharfy {
namespace {

using testing::DunstDesktop;
using testing::FakeNotificationServer;
using testing::PrivateBus;

const NotificationRequest kMarkupInName{
    "A new listener on all networks",
    "<b>x&y is now listening on port 8080, reachable from every network.",
    "publicListener-1767225600.25"};
const NotificationRequest kPlain{
    "A new listener on all networks",
    "node is now listening on port 3000, reachable from every network.",
    "publicListener-1767225600.5"};

/// `notifier.post(request)`, failing the test if it does not give up within
/// a bound far beyond its own time-outs.
bool postWithinBound(Notifier& notifier, const NotificationRequest& request) {
    auto answer = std::async(std::launch::async, [&] { return notifier.post(request); });
    if (answer.wait_for(std::chrono::seconds(15)) != std::future_status::ready)
        ADD_FAILURE() << "post did not give up on a silent bus";
    return answer.get();
}

TEST(NotifierOnDunst, TwoPostsArriveAsSentWithMachineTextKeptOutOfMarkup) {
    std::string whyNot;
    auto bus = PrivateBus::start(whyNot);
    if (!bus) GTEST_SKIP() << whyNot;
    auto desktop = DunstDesktop::start(*bus, whyNot);
    if (!desktop) GTEST_SKIP() << whyNot;

    DBusNotifier notifier(bus->address());
    EXPECT_TRUE(notifier.requestPermission());
    EXPECT_TRUE(notifier.post(kMarkupInName));
    EXPECT_TRUE(notifier.post(kPlain));

    auto received = desktop->received();
    ASSERT_TRUE(received) << "dunstctl history failed";
    ASSERT_EQ(received->size(), 2u);
    // dunst reads bodies as markup: the process's name must arrive as text.
    const char* expectedBodies[] = {
        "&lt;b&gt;x&amp;y is now listening on port 8080, reachable from every network.",
        "node is now listening on port 3000, reachable from every network."};
    for (std::size_t i = 0; i < 2; ++i) {
        const auto& got = (*received)[i];
        EXPECT_EQ(got["summary"]["data"], "A new listener on all networks");
        EXPECT_EQ(got["body"]["data"], expectedBodies[i]);
        EXPECT_EQ(got["appname"]["data"], "Wharfy");
    }
}

TEST(NotifierOnAServerWithoutMarkup, SendsTheBodyUnescapedWithTheHintsAndNoReplacement) {
    std::string whyNot;
    auto bus = PrivateBus::start(whyNot);
    if (!bus) GTEST_SKIP() << whyNot;
    auto server =
        FakeNotificationServer::start(bus->address(), FakeNotificationServer::Mode::plain, whyNot);
    ASSERT_TRUE(server) << whyNot;

    ASSERT_EQ(::setenv("DBUS_SESSION_BUS_ADDRESS", bus->address().c_str(), 1), 0);
    EXPECT_TRUE(makeDesktopNotifier()->post(kMarkupInName)) << "the factory uses the bus named";
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    EXPECT_FALSE(makeDesktopNotifier()->post(kPlain)) << "without DBUS_SESSION_BUS_ADDRESS";

    const FakeNotificationServer::Received expected{
        "Wharfy",
        0,
        kMarkupInName.title,
        kMarkupInName.body,
        {{"desktop-entry", "wharfy"}, {"x-wharfy-id", "publicListener-1767225600.25"}}};
    EXPECT_EQ(server->received(), std::vector{expected});
}

TEST(NotifierWithoutAnAnsweringServer, EveryAnswerIsNo) {
    std::string whyNot;
    auto bus = PrivateBus::start(whyNot);
    if (!bus) GTEST_SKIP() << whyNot;
    {
        DBusNotifier notifier(bus->address());
        EXPECT_FALSE(notifier.post(kPlain)) << "no server on the bus";
        EXPECT_FALSE(notifier.requestPermission()) << "no server on the bus";
    }
    auto silent =
        FakeNotificationServer::start(bus->address(), FakeNotificationServer::Mode::silent, whyNot);
    ASSERT_TRUE(silent) << whyNot;
    DBusNotifier notifier(bus->address());
    EXPECT_FALSE(postWithinBound(notifier, kPlain)) << "a server that never answers";
}

TEST(NotifierOnABusThatNeverAnswers, GivesUpDuringTheHandShake) {
    // A socket that accepts connections into its backlog and never speaks.
    testing::TempDir dir;
    int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = dir.path() + "/bus";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 8), 0);

    DBusNotifier notifier("unix:path=" + path);
    EXPECT_FALSE(postWithinBound(notifier, kPlain));
    ::close(listener);
}

}  // namespace
}  // namespace wharfy
