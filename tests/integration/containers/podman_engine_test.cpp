#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <thread>

#include "app/containers_command.h"
#include "app/model/live_machine_reader.h"
#include "app/ports_command.h"
#include "core/containers/container_actions.h"
#include "core/containers/container_service.h"
#include "core/containers/engine_client.h"
#include "core/containers/port_container_mapper.h"
#include "core/containers/runtime_detector.h"
#include "podman_engine.h"

namespace wharfy {
namespace {

using testing::PodmanEngine;

// busybox httpd as a container's first process ignores SIGTERM and could then
// only be ended by a harder signal, which Wharfy and its tests never send.
// syslogd exits on SIGTERM; the published port is held on the host by the
// engine either way.
const std::vector<std::string> kStopsOnTerm{"/bin/busybox", "syslogd", "-n", "-O", "/dev/null"};

class PodmanEngineTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { engine_ = PodmanEngine::start(whyNot_).release(); }
    static void TearDownTestSuite() {
        delete engine_;
        engine_ = nullptr;
    }
    void SetUp() override {
        if (!engine_) GTEST_SKIP() << "Podman cannot run containers here: " << whyNot_;
    }

    PodmanEngine& engine() { return *engine_; }
    EngineClient client() const { return EngineClient(engine_->socketPath(), 5); }

    /// Runs a detached container; its full id, or a failure message.
    std::string run(const std::string& name, const std::vector<std::string>& options,
                    const std::vector<std::string>& command) {
        std::vector<std::string> args{"run", "-d", "--name", name};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back(engine_->image());
        args.insert(args.end(), command.begin(), command.end());
        auto r = engine_->podman(args);
        return r.status == 0 ? trimmed(r.output) : "FAILED: " + r.error;
    }
    static std::string trimmed(std::string s) {
        while (!s.empty() && s.back() == '\n')
            s.pop_back();
        return s;
    }
    const ContainerInfo* find(const std::vector<ContainerInfo>& list, const std::string& id) {
        auto it = std::find_if(list.begin(), list.end(),
                               [&](const ContainerInfo& c) { return c.id == id; });
        return it == list.end() ? nullptr : &*it;
    }

    static PodmanEngine* engine_;
    static std::string whyNot_;
};

PodmanEngine* PodmanEngineTest::engine_ = nullptr;
std::string PodmanEngineTest::whyNot_;

TEST_F(PodmanEngineTest, DetectsTheEngineFromItsSocket) {
    RuntimeDetector detector(engine().home(), engine().xdgRuntimeDir(),
                             std::make_shared<LiveDetectorFileSystem>());
    auto found = detector.detect();
    auto podman = std::find_if(found.begin(), found.end(), [](const RuntimeInfo& r) {
        return r.kind == RuntimeKind{RuntimeKind::Podman{}};
    });
    ASSERT_NE(podman, found.end());
    EXPECT_TRUE(podman->isRunning());
    EXPECT_EQ(podman->socketPath, engine().socketPath());
    EXPECT_TRUE(podman->diskImagePaths.empty());

    auto version = client().version();
    ASSERT_TRUE(version.ok()) << version.error().description();
    EXPECT_EQ(version.value().apiVersion, "1.41");
}

TEST_F(PodmanEngineTest, ListsRunningCreatedAndExitedContainersWithTheirPorts) {
    const int port = testing::freeLoopbackPort();
    const std::string web =
        run(engine().uniqueName("web"), {"-p", "127.0.0.1:" + std::to_string(port) + ":8080"},
            kStopsOnTerm);
    ASSERT_FALSE(web.starts_with("FAILED")) << web;
    const std::string done = run(engine().uniqueName("done"), {}, {"/bin/busybox", "true"});
    ASSERT_FALSE(done.starts_with("FAILED")) << done;
    auto created = engine().podmanOutput(
        {"create", "--name", engine().uniqueName("new"), engine().image(), "/bin/busybox", "true"});
    ASSERT_TRUE(created.has_value());
    ASSERT_TRUE(engine().waitUntilNotRunning(done, 10));

    auto list = client().containers();
    ASSERT_TRUE(list.ok()) << list.error().description();
    const ContainerInfo* w = find(list.value(), web);
    const ContainerInfo* d = find(list.value(), done);
    const ContainerInfo* c = find(list.value(), *created);
    ASSERT_TRUE(w && d && c);
    EXPECT_TRUE(w->isRunning());
    EXPECT_EQ(w->image, engine().image());
    EXPECT_EQ(
        w->ports,
        (std::vector<PublishedPort>{{"127.0.0.1", 8080, static_cast<uint16_t>(port), "tcp"}}));
    EXPECT_EQ(d->state, "exited");
    EXPECT_EQ(c->state, "created");
    EXPECT_TRUE(d->isStopped() && c->isStopped());

    // What `wharfy --containers-json` and `wharfy` print for this engine.
    app::LiveMachineReader reader(static_cast<uint32_t>(::getuid()), engine().home(),
                                  engine().xdgRuntimeDir());
    auto reports = app::readRuntimes(reader);
    auto report = std::find_if(reports.begin(), reports.end(), [](const app::RuntimeReport& r) {
        return r.runtime.displayName == "Podman";
    });
    ASSERT_NE(report, reports.end());
    auto json = app::containersJson({*report})["runtimes"][0];
    EXPECT_EQ(json["socket"], engine().socketPath());
    EXPECT_EQ(json["running"], 1);
    EXPECT_EQ(json["stopped"], 2);
    EXPECT_EQ(json["imageCount"], 1);
    EXPECT_FALSE(json.contains("error")) << json.dump();
    const std::string text = app::containersText({*report});
    EXPECT_NE(text.find("127.0.0.1:" + std::to_string(port) + "->8080/tcp"), std::string::npos)
        << text;
}

TEST_F(PodmanEngineTest, DiskUsageSeesAnUnusedVolumeAndADanglingImage) {
    const std::string volume = engine().uniqueName("vol");
    ASSERT_TRUE(engine().podmanOutput({"volume", "create", volume}).has_value());
    const std::string tag = "localhost/" + engine().uniqueName("twice") + ":1";
    auto first = engine().importImage(tag);
    ASSERT_TRUE(first.has_value());
    ASSERT_TRUE(engine().importImage(tag).has_value());  // leaves the first one untagged

    auto service = ContainerService::forSocket(engine().socketPath());
    auto sizes = service->sizes(false);
    ASSERT_TRUE(sizes.ok()) << sizes.error().description();
    auto unused = sizes.value().usage.unusedVolumes();
    EXPECT_TRUE(std::any_of(unused.begin(), unused.end(),
                            [&](const DiskUsage::Volume& v) { return v.name == volume; }));
    const auto& dangling = sizes.value().danglingImageIDs;
    EXPECT_TRUE(
        std::any_of(dangling.begin(), dangling.end(),
                    [&](const std::string& id) { return id.find(*first) != std::string::npos; }))
        << "dangling: " << dangling.size();
    EXPECT_GT(sizes.value().usage.imagesSize(), 1'000'000);
}

TEST_F(PodmanEngineTest, CleanupActionsRunThroughTheDockerTool) {
    auto docker = testing::dockerTool(engine().home());
    if (!docker) GTEST_SKIP() << "no docker command-line tool: " << DockerBinary::kNotFoundText;
    const std::string done = run(engine().uniqueName("done"), {}, {"/bin/busybox", "true"});
    ASSERT_FALSE(done.starts_with("FAILED")) << done;
    ASSERT_TRUE(engine().waitUntilNotRunning(done, 10));
    const std::string volume = engine().uniqueName("vol");
    ASSERT_TRUE(engine().podmanOutput({"volume", "create", volume}).has_value());
    const std::string tag = "localhost/" + engine().uniqueName("twice") + ":1";
    ASSERT_TRUE(engine().importImage(tag).has_value());
    ASSERT_TRUE(engine().importImage(tag).has_value());

    // The disk meter the app gives the actions: the detected runtime's own
    // disk images, which a Podman service does not have.
    RuntimeDetector detector(engine().home(), engine().xdgRuntimeDir(),
                             std::make_shared<LiveDetectorFileSystem>());
    auto found = detector.detect();
    auto podman = std::find_if(found.begin(), found.end(), [](const RuntimeInfo& r) {
        return r.kind == RuntimeKind{RuntimeKind::Podman{}};
    });
    ASSERT_NE(podman, found.end());
    int diskReads = 0;
    ContainerActions actions{
        *docker,
        engine().socketPath(),
        std::make_shared<SystemActionRunner>(60.0),
        EngineClient(engine().socketPath(), 20),
        [&, runtime = *podman] {
            ++diskReads;
            return VMDiskMeter::allocatedBytes(runtime);
        },
        [](double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); },
        ContainerActions::toolEnvironment(engine().home())};

    auto removed = actions.perform({ContainerAction::RemoveStoppedContainers{{done}}});
    ASSERT_TRUE(removed.ok());
    EXPECT_TRUE(removed.value().succeeded) << removed.value().error;
    EXPECT_EQ(find(client().containers().value(), done), nullptr);

    auto dangling = client().danglingImageIDs();
    ASSERT_TRUE(dangling.ok() && !dangling.value().empty());
    auto images = actions.perform({ContainerAction::RemoveDanglingImages{dangling.value()}});
    ASSERT_TRUE(images.ok());
    EXPECT_TRUE(images.value().succeeded) << images.value().error;
    EXPECT_TRUE(client().danglingImageIDs().value().empty());

    auto vol = actions.perform({ContainerAction::RemoveVolume{volume}});
    ASSERT_TRUE(vol.ok());
    EXPECT_TRUE(vol.value().succeeded) << vol.value().error;
    EXPECT_GT(diskReads, 0);
    EXPECT_EQ(vol.value().macDiskBefore, std::nullopt);
    EXPECT_EQ(vol.value().note, std::nullopt);

    auto again = actions.perform({ContainerAction::RemoveVolume{volume}});
    ASSERT_TRUE(again.ok());
    EXPECT_FALSE(again.value().succeeded);
    EXPECT_FALSE(again.value().error.empty());

    // This engine has no builder: the tool reports the engine's 404.
    auto cache = actions.perform({ContainerAction::ClearBuildCache{}});
    ASSERT_TRUE(cache.ok());
    EXPECT_FALSE(cache.value().succeeded);
    EXPECT_NE(cache.value().error.find("Not Found"), std::string::npos) << cache.value().error;
}

TEST_F(PodmanEngineTest, StopSendsSigtermAndReportsWhatHappened) {
    auto docker = testing::dockerTool(engine().home());
    if (!docker) GTEST_SKIP() << "no docker command-line tool: " << DockerBinary::kNotFoundText;
    // A first process that ignores SIGTERM and leaves only on SIGUSR1, which
    // the test sends once the stop has been judged: no race with the polls.
    const std::string stubborn =
        run(engine().uniqueName("stubborn"), {},
            {"/bin/busybox", "sh", "-c",
             "trap '' TERM; trap 'exit 0' USR1; while :; do /bin/busybox sleep 1; done"});
    ASSERT_FALSE(stubborn.starts_with("FAILED")) << stubborn;
    const std::string polite = run(engine().uniqueName("polite"), {}, kStopsOnTerm);
    ASSERT_FALSE(polite.starts_with("FAILED")) << polite;

    // No waits between polls: the twenty polls then take seconds, not ten.
    ContainerActions actions{*docker,
                             engine().socketPath(),
                             std::make_shared<SystemActionRunner>(60.0),
                             EngineClient(engine().socketPath(), 20),
                             nullptr,
                             [](double) {},
                             ContainerActions::toolEnvironment(engine().home())};

    auto still = actions.perform({ContainerAction::StopContainer{stubborn}});
    ASSERT_TRUE(still.ok());
    EXPECT_TRUE(still.value().succeeded) << still.value().error;
    EXPECT_EQ(still.value().stopOutcome, StopOutcome::stillRunning)
        << "the stubborn container should outlive the polls";

    auto stopped = actions.perform({ContainerAction::StopContainer{polite}});
    ASSERT_TRUE(stopped.ok());
    EXPECT_TRUE(stopped.value().succeeded) << stopped.value().error;
    EXPECT_EQ(stopped.value().stopOutcome, StopOutcome::stopped);
    EXPECT_EQ(client().containerState(polite).value(), "exited");
    engine().podman({"kill", "--signal", "USR1", stubborn});
    EXPECT_TRUE(engine().waitUntilNotRunning(stubborn, 20));
}

TEST_F(PodmanEngineTest, PortRowOfThePublishedPortCarriesItsContainer) {
    const int port = testing::freeLoopbackPort();
    const std::string name = engine().uniqueName("web");
    const std::string web =
        run(name, {"-p", "127.0.0.1:" + std::to_string(port) + ":8080"}, kStopsOnTerm);
    ASSERT_FALSE(web.starts_with("FAILED")) << web;

    // The row as `wharfy` builds it: the real scanner and classifier decide
    // that conmon forwards the port for Podman.
    const auto user = app::UserContext::current();
    const auto rows =
        app::LiveMachineReader(user.uid, user.home, std::nullopt).readProcesses().ports;
    auto row =
        std::find_if(rows.begin(), rows.end(), [&](const PortRow& r) { return r.port == port; });
    ASSERT_NE(row, rows.end()) << "nothing listens on 127.0.0.1:" << port;
    EXPECT_EQ(row->processName, "conmon");
    EXPECT_EQ(row->addresses, std::vector<std::string>{"127.0.0.1"});
    EXPECT_EQ(row->role, ListenerRole{ListenerRole::ContainerForwarder{"Podman"}});

    auto list = client().containers();
    ASSERT_TRUE(list.ok());
    auto attached = PortContainerMapper::attach({*row}, list.value());
    EXPECT_EQ(attached[0].container, (ContainerRef{web, name, engine().image(), "Podman"}));
}

}  // namespace
}  // namespace wharfy
