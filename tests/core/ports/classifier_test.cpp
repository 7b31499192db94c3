#include "core/ports/classifier.h"

#include <gtest/gtest.h>

#include "printers.h"

namespace wharfy {
namespace {

using R = ListenerRole;

ListenerClassifier macClassifier(std::set<std::string> signedPaths = {}) {
    return ListenerClassifier(
        501, "/Users/ana", std::make_shared<LaunchdLabels>(),
        [signedPaths](const std::string& p) { return signedPaths.count(p) > 0; },
        [](const std::string& label) -> std::optional<bool> { return label == "com.kept"; });
}

ListenerClassifier linuxClassifier() {
    return ListenerClassifier(
        1000, "/home/ana", std::make_shared<SystemdLabels>(), {},
        [](const std::string&) -> std::optional<bool> { return std::nullopt; });
}

ListenerFacts facts(std::string name, std::optional<std::string> path,
                    std::optional<std::string> label = std::nullopt, uint16_t port = 8080,
                    std::vector<std::string> args = {}) {
    return {100, port, std::move(name), std::move(path), std::move(args), std::move(label)};
}

const R kSystem{R::AppleSystem{}};
const R kPlain{R::PlainProcess{}};
const auto forwarder = [](const char* runtime) { return R{R::ContainerForwarder{runtime}}; };
const auto app = [](const char* name) { return R{R::PartOfApp{name}}; };

struct Case {
    const char* what;
    ListenerFacts facts;
    R expected;
};

TEST(ListenerClassifier, MacRulesInOrder) {
    auto c = macClassifier({"/usr/local/bin/signed"});
    const std::string controlCenter = "/System/Library/CoreServices/ControlCenter.app/x";
    const Case cases[] = {
        {"lima forwarder", facts("limactl", "/opt/homebrew/bin/limactl"), forwarder("Colima")},
        {"ssh into a colima vm",
         facts("ssh", "/usr/bin/ssh", std::nullopt, 80, {"ssh", "-F", "/Users/ana/.colima/ssh"}),
         forwarder("Colima")},
        {"runtime wins over a system path", facts("com.docker.backend", "/usr/sbin/x"),
         forwarder("Docker Desktop")},
        {"system path", facts("cupsd", "/usr/sbin/cupsd"), kSystem},
        {"AirPlay receiver on 7000",
         facts("ControlCenter", controlCenter, std::nullopt, 7000),
         {R::AppleSystem{"System Settings → General → AirDrop & Handoff → AirPlay Receiver"}}},
        {"ControlCenter on another port", facts("ControlCenter", controlCenter, std::nullopt, 8000),
         kSystem},
        {"com.apple label, signed", facts("signed", "/usr/local/bin/signed", "com.apple.x"),
         kSystem},
        {"com.apple label, unsigned", facts("u", "/usr/local/bin/u", "com.apple.x"), kPlain},
        {"com.apple label in home is never trusted",
         facts("signed", "/Users/ana/bin/signed", "com.apple.x"), kPlain},
        {"outermost bundle wins",
         facts("Bar", "/Applications/Foo.app/Contents/Frameworks/Bar.app/Contents/MacOS/Bar"),
         app("Foo")},
        {"app label", facts("Tool", "/opt/tool", "application.com.example.Tool.12345.67890"),
         app("Tool")},
        {"homebrew service",
         facts("redis-server", "/opt/homebrew/bin/redis", "homebrew.mxcl.redis"),
         {R::BackgroundService{"homebrew.mxcl.redis", "brew services stop redis", false}}},
        {"kept-alive agent",
         facts("agent", "/opt/agent", "com.kept"),
         {R::BackgroundService{"com.kept", "launchctl bootout gui/501/com.kept", true}}},
        {"plain", facts("node", "/opt/homebrew/bin/node"), kPlain},
    };
    for (const auto& k : cases)
        EXPECT_EQ(c.classify(k.facts), k.expected) << k.what;
}

TEST(ListenerClassifier, LinuxUnitsProgramsAndContainerEngines) {
    auto c = linuxClassifier();
    auto service = [](const char* label, const char* command) {
        return R{R::BackgroundService{label, command, std::nullopt}};
    };
    const Case cases[] = {
        {"docker proxy", facts("docker-proxy", "/usr/bin/docker-proxy", "system/docker.service"),
         forwarder("Docker Engine")},
        {"podman's conmon", facts("conmon", "/usr/bin/conmon"), forwarder("Podman")},
        {"the service manager's own folder",
         facts("systemd-resolve", "/usr/lib/systemd/systemd-resolved"), kSystem},
        {"a base-system unit", facts("sshd", "/usr/sbin/sshd", "system/ssh.service"), kSystem},
        {"a base-system unit whose program cannot be read",
         facts("cupsd", std::nullopt, "system/cups.service"), kSystem},
        {"a system program outside any unit", facts("nginx", "/usr/sbin/nginx"), kPlain},
        {"nginx from /usr/sbin in its unit",
         facts("nginx", "/usr/sbin/nginx", "system/nginx.service"),
         service("system/nginx.service", "sudo systemctl stop nginx.service")},
        {"a template instance",
         facts("postgres", "/usr/lib/postgresql/15/bin/postgres",
               "system/postgresql@15-main.service"),
         service("system/postgresql@15-main.service",
                 "sudo systemctl stop postgresql@15-main.service")},
        {"another user's unit", facts("api", "/opt/api", "user/1001/api.service"),
         service("user/1001/api.service", "systemctl --user -M 1001@ stop api.service")},
        {"a user unit named like a base service",
         facts("dbus-daemon", "/usr/bin/dbus-daemon", "user/1000/dbus.service"),
         service("user/1000/dbus.service", "systemctl --user stop dbus.service")},
        {"snap", facts("firefox", "/snap/firefox/4173/usr/lib/firefox/firefox"), app("firefox")},
        {"flatpak app unit",
         facts("app", "/app/bin/app", "user/1000/app-flatpak-org.example.Editor-1234.scope"),
         app("Editor")},
        {"plain", facts("node", "/usr/bin/node"), kPlain},
    };
    for (const auto& k : cases)
        EXPECT_EQ(c.classify(k.facts), k.expected) << k.what;
}

TEST(SignatureCache, ChecksAgainOnlyWhenTheFileChanges) {
    int checks = 0;
    SignatureCache::Stamp stamp{100, 1};
    SignatureCache cache([&](const std::string&) { return ++checks > 0; },
                         [&](const std::string& p) -> std::optional<SignatureCache::Stamp> {
                             if (p == "/missing") return std::nullopt;
                             return stamp;
                         });
    EXPECT_TRUE(cache.verdict("/usr/bin/a"));
    EXPECT_TRUE(cache.verdict("/usr/bin/a"));
    EXPECT_EQ(checks, 1);
    stamp.modified = 2;
    EXPECT_TRUE(cache.verdict("/usr/bin/a"));
    EXPECT_EQ(checks, 2);
    EXPECT_FALSE(cache.verdict("/missing"));
    EXPECT_EQ(checks, 2);
}

TEST(SignatureCache, ForgetsTheOldestVerdictsBeyondItsCapacity) {
    std::vector<std::string> checked;
    SignatureCache cache(
        [&](const std::string& p) {
            checked.push_back(p);
            return true;
        },
        [](const std::string&) {
            return SignatureCache::Stamp{1, 1};
        },
        3);
    for (const char* p : {"/a", "/b", "/c", "/d", "/d", "/b"})
        cache.verdict(p);
    EXPECT_EQ(cache.size(), 3u);
    EXPECT_EQ(checked, (std::vector<std::string>{"/a", "/b", "/c", "/d"}));
    cache.verdict("/a");  // forgotten, so checked again
    EXPECT_EQ(checked.size(), 5u);
    EXPECT_EQ(cache.size(), 3u);
}

}  // namespace
}  // namespace wharfy
