#include <gtest/gtest.h>

#include <cerrno>
#include <iterator>
#include <memory>

#include "core/containers/runtime_detector.h"
#include "fake_detector_file_system.h"

namespace wharfy {
namespace {

using testing::FakeDetectorFileSystem;

const std::string kHome = "/home/dev";
const std::string kXdg = "/run/user/1000";

RuntimeKind colima(const std::string& p) {
    return RuntimeKind{RuntimeKind::Colima{p}};
}
RuntimeKind context(const std::string& n) {
    return RuntimeKind{RuntimeKind::Context{n}};
}
const RuntimeKind kDesktop{RuntimeKind::DockerDesktop{}};
const RuntimeKind kEngine{RuntimeKind::DockerEngine{}};
const RuntimeKind kPodman{RuntimeKind::Podman{}};
const RuntimeKind kOrb{RuntimeKind::OrbStack{}};

std::string contextMeta(const std::string& name, const std::string& host) {
    return R"({"Name":")" + name + R"(","Metadata":{},"Endpoints":{"docker":{"Host":")" + host +
           R"(","SkipTLSVerify":false}}})";
}

/// An expected local runtime (no remote endpoint).
RuntimeInfo local(RuntimeKind kind, std::string name, std::optional<std::string> socket,
                  RuntimeStatus status, std::vector<std::string> disks = {}) {
    return {std::move(kind), std::move(name), std::move(socket),
            std::nullopt,    status,          std::move(disks)};
}

class RuntimeDetectorTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeDetectorFileSystem> fs = std::make_shared<FakeDetectorFileSystem>();

    std::vector<RuntimeInfo> detect(DetectorPlatform platform = DetectorPlatform::linuxOS,
                                    std::optional<std::string> xdg = kXdg) {
        return RuntimeDetector(kHome, std::move(xdg), fs, platform).detect();
    }
    void addContext(const std::string& folder, const std::string& json) {
        fs->folders[kHome + "/.docker/contexts/meta"].push_back(folder);
        fs->files[kHome + "/.docker/contexts/meta/" + folder + "/meta.json"] = json;
    }
};

TEST_F(RuntimeDetectorTest, ColimaProfilesInOrderWithTheirDisks) {
    fs->folders[kHome + "/.colima"] = {"_lima", "_templates", "default", "work"};
    fs->addSocket(kHome + "/.colima/default/docker.sock", true);
    auto found = detect();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0], local(colima("default"), "Colima (default)",
                              kHome + "/.colima/default/docker.sock", RuntimeStatus::running,
                              {kHome + "/.colima/_lima/colima/disk",
                               kHome + "/.colima/_lima/_disks/colima/datadisk"}));
    EXPECT_EQ(found[1],
              local(colima("work"), "Colima (work)", std::nullopt, RuntimeStatus::notRunning,
                    {kHome + "/.colima/_lima/colima-work/disk",
                     kHome + "/.colima/_lima/_disks/colima-work/datadisk"}));
    EXPECT_EQ(found[1].id(), "colima(profile: \"work\")");
    EXPECT_TRUE(found[0].isMeasurable());
    EXPECT_FALSE(found[1].isMeasurable());
}

TEST_F(RuntimeDetectorTest, LinuxEnginesInOrderWithoutDiskImages) {
    fs->addSocket(kHome + "/.docker/desktop/docker.sock", true);
    fs->addSocket("/var/run/docker.sock", true, "/run/docker.sock");
    fs->addSocket(kXdg + "/podman/podman.sock", true);
    fs->addSocket("/run/podman/podman.sock", true);
    auto found = detect();
    ASSERT_EQ(found,
              (std::vector<RuntimeInfo>{
                  local(kDesktop, "Docker Desktop", kHome + "/.docker/desktop/docker.sock",
                        RuntimeStatus::running, {kHome + "/.docker/desktop/vms/0/data/Docker.raw"}),
                  local(kEngine, "Docker Engine", "/var/run/docker.sock", RuntimeStatus::running),
                  local(kPodman, "Podman", kXdg + "/podman/podman.sock", RuntimeStatus::running)}));
    EXPECT_EQ(found[1].id(), "dockerEngine");
    EXPECT_EQ(found[2].id(), "podman");
}

TEST_F(RuntimeDetectorTest, ClaimedSocketsAreSkippedForLaterCandidates) {
    // The shared docker socket links to the rootless one, and podman's system
    // socket links to the Colima socket listed first.
    fs->folders[kHome + "/.colima"] = {"default"};
    fs->addSocket(kHome + "/.colima/default/docker.sock", false);
    fs->addSocket("/run/podman/podman.sock", true, kHome + "/.colima/default/docker.sock");
    fs->addSocket("/var/run/docker.sock", true, kXdg + "/docker.sock");
    fs->addSocket(kXdg + "/docker.sock", true);
    auto found = detect();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].kind, colima("default"));
    EXPECT_EQ(found[1].kind, kEngine);
    EXPECT_EQ(found[1].socketPath, "/var/run/docker.sock");
}

TEST_F(RuntimeDetectorTest, WithoutXdgRuntimeDirOnlySystemSocketsAreTried) {
    fs->addSocket(kXdg + "/podman/podman.sock", true);
    fs->addSocket("/run/podman/podman.sock", false);
    auto found = detect(DetectorPlatform::linuxOS, std::nullopt);
    ASSERT_EQ(found, std::vector<RuntimeInfo>{
                         local(kPodman, "Podman", std::nullopt, RuntimeStatus::notRunning)});
    EXPECT_EQ(found[0].stateText(), "Not running. Wharfy never starts a runtime.");
}

TEST_F(RuntimeDetectorTest, MacOrbStackClaimsTheSharedSocket) {
    fs->paths.insert(kHome + "/.orbstack");
    fs->addSocket(kHome + "/.orbstack/run/docker.sock", true);
    fs->addSocket("/var/run/docker.sock", true, kHome + "/.orbstack/run/docker.sock");
    auto found = detect(DetectorPlatform::macOS);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].kind, kOrb);
    EXPECT_EQ(found[0].diskImagePaths,
              std::vector<std::string>{
                  kHome + "/Library/Group Containers/HUAQ24HBR6.dev.orbstack/data/data.img"});

    fs->paths.insert("/Applications/Docker.app");
    found = detect(DetectorPlatform::macOS);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1],
              local(kDesktop, "Docker Desktop", std::nullopt, RuntimeStatus::notRunning,
                    {kHome + "/Library/Containers/com.docker.docker/Data/vms/0/data/Docker.raw"}));
}

TEST_F(RuntimeDetectorTest, ContextsLocalRemoteAndDropped) {
    fs->folders[kHome + "/.colima"] = {"default"};
    fs->addSocket(kHome + "/.colima/default/docker.sock", true);
    fs->addSocket("/srv/other.sock", true);
    addContext("a", contextMeta("colima", "unix://" + kHome + "/.colima/default/docker.sock"));
    addContext("b", contextMeta("far", "tcp://192.168.1.5:2376"));
    addContext("c", contextMeta("other", "unix:///srv/other.sock"));
    addContext("d", contextMeta("gone", "unix:///srv/missing.sock"));
    addContext("e", R"({"Name":"noendpoint","Endpoints":{}})");
    addContext("f", "not json");
    fs->folders[kHome + "/.docker/contexts/meta"].push_back("g");  // no meta.json
    auto found = detect();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[1], (RuntimeInfo{context("far"),
                                     "Docker context far",
                                     std::nullopt,
                                     "tcp://192.168.1.5:2376",
                                     RuntimeStatus::notRunning,
                                     {}}));
    EXPECT_EQ(found[1].stateText(),
              "Remote context (tcp://192.168.1.5:2376). Listed only; Wharfy does not measure or "
              "change it.");
    EXPECT_EQ(found[2], local(context("other"), "Docker context other", "/srv/other.sock",
                              RuntimeStatus::running));
    EXPECT_EQ(found[2].id(), "context(name: \"other\")");
    // A remote context is never probed.
    for (const auto& p : fs->pinged())
        EXPECT_EQ(p.find("tcp:"), std::string::npos);
}

TEST_F(RuntimeDetectorTest, EverySocketIsPingedInOneBatch) {
    // Five contexts that would each cost the whole probe time-out if asked
    // one after another.
    fs->folders[kHome + "/.colima"] = {"default"};
    fs->addSocket(kHome + "/.colima/default/docker.sock", true);
    fs->addSocket(kXdg + "/podman/podman.sock", false);
    std::vector<std::string> expected{kHome + "/.colima/default/docker.sock",
                                      kXdg + "/podman/podman.sock"};
    for (int i = 0; i < 5; ++i) {
        const std::string socket = "/srv/hung" + std::to_string(i) + ".sock";
        fs->addSocket(socket, SocketAnswer::notAnswering);
        addContext("c" + std::to_string(i),
                   contextMeta("hung" + std::to_string(i), "unix://" + socket));
        expected.push_back(socket);
    }
    auto found = detect();
    ASSERT_EQ(fs->pingBatches.size(), 1u);
    EXPECT_EQ(fs->pingBatches[0], expected);
    ASSERT_EQ(found.size(), 7u);
    EXPECT_TRUE(found[0].isRunning());
    EXPECT_EQ(found[1].status, RuntimeStatus::notRunning);
    for (size_t i = 2; i < found.size(); ++i)
        EXPECT_EQ(found[i].status, RuntimeStatus::notAnswering) << found[i].displayName;
}

TEST_F(RuntimeDetectorTest, EachAnswerGivesItsStateAndText) {
    struct Case {
        SocketAnswer answer;
        RuntimeStatus status;
        bool keepsSocket;
        const char* name;
        std::optional<std::string> text;
    };
    const Case cases[] = {
        {SocketAnswer::answered, RuntimeStatus::running, true, "running", std::nullopt},
        {SocketAnswer::refused, RuntimeStatus::notRunning, false, "notRunning",
         "Not running. Wharfy never starts a runtime."},
        {SocketAnswer::notAnswering, RuntimeStatus::notAnswering, true, "notAnswering",
         "Running, but not answering."},
        {SocketAnswer::permissionDenied, RuntimeStatus::permissionDenied, true, "permissionDenied",
         "Wharfy may not use this runtime's socket (permission denied)."},
    };
    for (const auto& c : cases) {
        fs = std::make_shared<FakeDetectorFileSystem>();
        fs->addSocket("/run/podman/podman.sock", c.answer);
        auto found = detect();
        ASSERT_EQ(found.size(), 1u) << c.name;
        EXPECT_EQ(found[0].status, c.status) << c.name;
        EXPECT_EQ(found[0].socketPath.has_value(), c.keepsSocket) << c.name;
        EXPECT_EQ(found[0].isMeasurable(), c.status == RuntimeStatus::running) << c.name;
        EXPECT_STREQ(found[0].stateName(), c.name);
        EXPECT_EQ(found[0].stateText(), c.text) << c.name;
    }
}

TEST(PingAnswerTest, TransportOutcomes) {
    using Kind = TransportError::Kind;
    struct Case {
        Result<std::string, TransportError> outcome;
        SocketAnswer expected;
    };
    const Case cases[] = {
        {std::string("HTTP/1.1 500 X\r\n\r\n"), SocketAnswer::answered},
        {std::string(), SocketAnswer::answered},
        {TransportError{Kind::responseTooLarge, 0}, SocketAnswer::answered},
        {TransportError{Kind::headerTooLarge, 0}, SocketAnswer::answered},
        {TransportError{Kind::timedOut, 0}, SocketAnswer::notAnswering},
        {TransportError{Kind::ioFailed, ECONNRESET}, SocketAnswer::notAnswering},
        {TransportError{Kind::connectFailed, EACCES}, SocketAnswer::permissionDenied},
        {TransportError{Kind::connectFailed, EPERM}, SocketAnswer::permissionDenied},
        {TransportError{Kind::connectFailed, ECONNREFUSED}, SocketAnswer::refused},
        {TransportError{Kind::connectFailed, ENOENT}, SocketAnswer::refused},
        {TransportError{Kind::socketPathTooLong, 0}, SocketAnswer::refused},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(pingAnswer(cases[i].outcome), cases[i].expected) << "case " << i;
}

TEST(DockerBinaryTest, LinuxCandidatesComeFirstWithoutRepeats) {
    auto list = DockerBinary::candidates("/h", DetectorPlatform::linuxOS);
    EXPECT_EQ(list,
              (std::vector<std::string>{"/usr/bin/docker", "/usr/local/bin/docker",
                                        "/h/.docker/bin/docker", "/opt/homebrew/bin/docker",
                                        "/Applications/Docker.app/Contents/Resources/bin/docker",
                                        "/h/.orbstack/bin/docker"}));
    auto found = DockerBinary::find(
        "/h",
        [](const std::string& p) {
            return p == "/h/.docker/bin/docker" || p == "/h/.orbstack/bin/docker";
        },
        DetectorPlatform::linuxOS);
    EXPECT_EQ(found, "/h/.docker/bin/docker");
    EXPECT_EQ(DockerBinary::find("/h", [](const std::string&) { return false; }), std::nullopt);
    EXPECT_EQ(DockerBinary::candidates("/h", DetectorPlatform::macOS).front(),
              "/opt/homebrew/bin/docker");
}

}  // namespace
}  // namespace wharfy
