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

ListenerClassifier linuxClassifier(std::set<std::string> distroPaths = {}) {
    return ListenerClassifier(
        1000, "/home/ana", std::make_shared<SystemdLabels>(),
        [distroPaths](const std::string& p) { return distroPaths.count(p) > 0; },
        [](const std::string&) -> std::optional<bool> { return std::nullopt; });
}

ListenerFacts facts(std::string name, std::optional<std::string> path,
                    std::optional<std::string> label = std::nullopt, uint16_t port = 8080,
                    std::vector<std::string> args = {}) {
    return {100, port, std::move(name), std::move(path), std::move(args), std::move(label)};
}

TEST(ListenerClassifier, MacRulesInOrder) {
    auto c = macClassifier({"/usr/local/bin/signed"});
    struct Case {
        const char* what;
        ListenerFacts facts;
        R expected;
    };
    const Case cases[] = {
        {"lima forwarder",
         facts("limactl", "/opt/homebrew/bin/limactl"),
         {R::ContainerForwarder{"Colima"}}},
        {"ssh into a colima vm",
         facts("ssh", "/usr/bin/ssh", std::nullopt, 80, {"ssh", "-F", "/Users/ana/.colima/ssh"}),
         {R::ContainerForwarder{"Colima"}}},
        {"runtime wins over a system path",
         facts("com.docker.backend", "/usr/sbin/x"),
         {R::ContainerForwarder{"Docker Desktop"}}},
        {"orbstack",
         facts("OrbStack Helper", "/Applications/OrbStack.app/Contents/MacOS/x"),
         {R::ContainerForwarder{"OrbStack"}}},
        {"system path", facts("cupsd", "/usr/sbin/cupsd"), {R::AppleSystem{}}},
        {"AirPlay receiver on 7000",
         facts("ControlCenter", "/System/Library/CoreServices/ControlCenter.app/x", std::nullopt,
               7000),
         {R::AppleSystem{"System Settings → General → AirDrop & Handoff → AirPlay Receiver"}}},
        {"ControlCenter on another port",
         facts("ControlCenter", "/System/Library/CoreServices/ControlCenter.app/x", std::nullopt,
               8000),
         {R::AppleSystem{}}},
        {"com.apple label, signed",
         facts("signed", "/usr/local/bin/signed", "com.apple.x"),
         {R::AppleSystem{}}},
        {"com.apple label, unsigned",
         facts("u", "/usr/local/bin/u", "com.apple.x"),
         {R::PlainProcess{}}},
        {"com.apple label in home is never trusted",
         facts("signed", "/Users/ana/bin/signed", "com.apple.x"),
         {R::PlainProcess{}}},
        {"outermost bundle wins",
         facts("Bar", "/Applications/Foo.app/Contents/Frameworks/Bar.app/Contents/MacOS/Bar"),
         {R::PartOfApp{"Foo"}}},
        {"app label",
         facts("Tool", "/opt/tool", "application.com.example.Tool.12345.67890"),
         {R::PartOfApp{"Tool"}}},
        {"homebrew service",
         facts("redis-server", "/opt/homebrew/bin/redis", "homebrew.mxcl.redis"),
         {R::BackgroundService{"homebrew.mxcl.redis", "brew services stop redis", false}}},
        {"kept-alive agent",
         facts("agent", "/opt/agent", "com.kept"),
         {R::BackgroundService{"com.kept", "launchctl bootout gui/501/com.kept", true}}},
        {"plain", facts("node", "/opt/homebrew/bin/node"), {R::PlainProcess{}}},
    };
    for (const auto& k : cases)
        EXPECT_EQ(c.classify(k.facts), k.expected) << k.what;
}

TEST(ListenerClassifier, LinuxUnitsProgramsAndContainerEngines) {
    auto c = linuxClassifier({"/usr/bin/redis-server"});
    struct Case {
        const char* what;
        ListenerFacts facts;
        R expected;
    };
    const Case cases[] = {
        {"docker proxy",
         facts("docker-proxy", "/usr/bin/docker-proxy"),
         {R::ContainerForwarder{"Docker Engine"}}},
        {"rootless docker",
         facts("rootlesskit", "/usr/bin/rootlesskit"),
         {R::ContainerForwarder{"Docker Engine"}}},
        {"podman's conmon", facts("conmon", "/usr/bin/conmon"), {R::ContainerForwarder{"Podman"}}},
        {"pasta", facts("pasta", "/usr/bin/pasta"), {R::ContainerForwarder{"Podman"}}},
        {"systemd's own folder",
         facts("systemd-resolve", "/usr/lib/systemd/systemd-resolved"),
         {R::AppleSystem{}}},
        {"sbin", facts("sshd", "/usr/sbin/sshd"), {R::AppleSystem{}}},
        {"distribution program in a system unit",
         facts("redis-server", "/usr/bin/redis-server", "system/redis-server.service"),
         {R::AppleSystem{}}},
        {"own program in a system unit",
         facts("api", "/opt/api/bin/api", "system/api.service"),
         {R::BackgroundService{"system/api.service", "sudo systemctl stop api.service",
                               std::nullopt}}},
        {"distribution program in a user unit",
         facts("redis-server", "/usr/bin/redis-server", "user/redis.service"),
         {R::BackgroundService{"user/redis.service", "systemctl --user stop redis.service",
                               std::nullopt}}},
        {"snap",
         facts("firefox", "/snap/firefox/4173/usr/lib/firefox/firefox"),
         {R::PartOfApp{"firefox"}}},
        {"flatpak app unit",
         facts("app", "/app/bin/app", "user/app-flatpak-org.example.Editor-1234.scope"),
         {R::PartOfApp{"Editor"}}},
        {"plain", facts("node", "/usr/bin/node"), {R::PlainProcess{}}},
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

}  // namespace
}  // namespace wharfy
