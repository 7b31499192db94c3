#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "core/containers/container_actions.h"
#include "core/containers/runtime_detector.h"
#include "fake_action_process_runner.h"
#include "fake_engine_transport.h"

namespace wharfy {
namespace {

using testing::FakeActionProcessRunner;
using testing::FakeEngineTransport;
using Kind = ActionError::Kind;

const std::string kId = "0123456789abcdef";
const std::string kStatePath = "/v1.41/containers/" + kId + "/json";

class ContainerActionsTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeActionProcessRunner> runner = std::make_shared<FakeActionProcessRunner>();
    std::shared_ptr<FakeEngineTransport> transport = std::make_shared<FakeEngineTransport>();
    std::vector<double> sleeps;
    std::vector<std::optional<uint64_t>> diskReadings{1000, 600};
    size_t diskReads = 0;
    ContainerActions actions{
        "/usr/bin/docker",
        "/run/podman/podman.sock",
        runner,
        EngineClient(transport),
        [this]() -> std::optional<uint64_t> {
            return diskReadings[std::min(diskReads++, diskReadings.size() - 1)];
        },
        [this](double s) { sleeps.push_back(s); },
        {{"HOME", "/home/dev"}}};

    void SetUp() override {
        transport->answers.insert_or_assign(
            "/version",
            FakeEngineTransport::response(200, R"({"Version":"x","ApiVersion":"1.41"})"));
    }
    void stateAnswers(const std::string& body, int status = 200) {
        transport->answers.insert_or_assign(kStatePath,
                                            FakeEngineTransport::response(status, body));
    }
    static ContainerAction stop(const std::string& id) {
        return {ContainerAction::StopContainer{id}};
    }
};

TEST_F(ContainerActionsTest, CommandLines) {
    const std::vector<std::string> h{"-H", "unix:///run/podman/podman.sock"};
    auto with = [&](std::vector<std::string> rest) {
        auto all = h;
        all.insert(all.end(), rest.begin(), rest.end());
        return DockerCommand{"/usr/bin/docker", all};
    };
    struct Case {
        ContainerAction action;
        DockerCommand expected;
    };
    const Case cases[] = {
        {stop(kId), with({"kill", "--signal=TERM", kId})},
        {{ContainerAction::RemoveStoppedContainers{{kId, "abcdefabcdef"}}},
         with({"rm", kId, "abcdefabcdef"})},
        {{ContainerAction::RemoveDanglingImages{{"sha256:" + kId, kId}}},
         with({"image", "rm", "sha256:" + kId, kId})},
        {{ContainerAction::RemoveVolume{"my_vol.1-a"}}, with({"volume", "rm", "my_vol.1-a"})},
        {{ContainerAction::ClearBuildCache{}}, with({"builder", "prune", "-f"})},
    };
    for (const auto& c : cases) {
        auto built = actions.command(c.action);
        ASSERT_TRUE(built.ok()) << built.error().description();
        EXPECT_EQ(built.value(), c.expected);
    }
}

TEST_F(ContainerActionsTest, IdentifiersAreCheckedBeforeAnythingRuns) {
    const std::string hex64(64, 'a');
    struct Case {
        ContainerAction action;
        ActionError expected;
    };
    const Case cases[] = {
        {stop("0123456789a"), {Kind::invalidID, "0123456789a"}},    // 11 digits
        {stop(hex64 + "a"), {Kind::invalidID, hex64 + "a"}},        // 65 digits
        {stop("0123456789AB"), {Kind::invalidID, "0123456789AB"}},  // upper case
        {stop("web-1"), {Kind::invalidID, "web-1"}},                // a name, not an id
        {stop(kId + " --all"), {Kind::invalidID, kId + " --all"}},
        {stop("sha256:" + kId), {Kind::invalidID, "sha256:" + kId}},
        {{ContainerAction::RemoveStoppedContainers{{kId, "-f"}}}, {Kind::invalidID, "-f"}},
        {{ContainerAction::RemoveStoppedContainers{{}}}, {Kind::noTargets, ""}},
        {{ContainerAction::RemoveDanglingImages{{}}}, {Kind::noTargets, ""}},
        {{ContainerAction::RemoveDanglingImages{{"sha512:" + kId}}},
         {Kind::invalidID, "sha512:" + kId}},
        {{ContainerAction::RemoveVolume{""}}, {Kind::invalidVolumeName, ""}},
        {{ContainerAction::RemoveVolume{"-rf"}}, {Kind::invalidVolumeName, "-rf"}},
        {{ContainerAction::RemoveVolume{"a/b"}}, {Kind::invalidVolumeName, "a/b"}},
        {{ContainerAction::RemoveVolume{std::string(256, 'v')}},
         {Kind::invalidVolumeName, std::string(256, 'v')}},
    };
    for (const auto& c : cases) {
        auto r = actions.perform(c.action);
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.error(), c.expected) << c.expected.description();
        // What the user reads is a sentence that says nothing ran.
        EXPECT_TRUE(r.error().description().starts_with("Nothing was run"));
        EXPECT_TRUE(r.error().description().ends_with("."));
    }
    EXPECT_TRUE(actions.command({ContainerAction::RemoveVolume{std::string(255, 'v')}}).ok());
    EXPECT_TRUE(actions.command(stop(hex64)).ok());
    EXPECT_TRUE(runner->runs.empty());
    EXPECT_EQ(diskReads, 0u);
}

TEST_F(ContainerActionsTest, UnusableSocketIsRefused) {
    for (const std::string& socket : {std::string(), std::string("relative.sock"),
                                      "/" + std::string(103, 's'), std::string("/tmp/a\nb.sock")}) {
        actions.socketPath = socket;
        auto r = actions.command({ContainerAction::ClearBuildCache{}});
        ASSERT_FALSE(r.ok());
        EXPECT_EQ(r.error().kind, Kind::invalidSocket) << socket;
    }
}

TEST_F(ContainerActionsTest, CleanupReportsToolResultAndDiskAroundIt) {
    runner->result = {1, "", "Error response from daemon: Not Found\n"};
    auto r = actions.perform({ContainerAction::ClearBuildCache{}});
    ASSERT_TRUE(r.ok());
    const ActionReport& report = r.value();
    EXPECT_FALSE(report.succeeded);
    EXPECT_EQ(report.error, "Error response from daemon: Not Found\n");
    EXPECT_EQ(report.stopOutcome, std::nullopt);
    EXPECT_EQ(report.macDiskBefore, 1000u);
    EXPECT_EQ(report.macDiskAfter, 600u);
    EXPECT_EQ(report.note, std::string(diskImageNote()));
    ASSERT_EQ(runner->runs.size(), 1u);
    EXPECT_EQ(runner->runs[0].environment,
              (std::map<std::string, std::string>{{"HOME", "/home/dev"}}));
}

TEST_F(ContainerActionsTest, RuntimeWithoutDiskImagesGetsNoNote) {
    diskReadings = {std::nullopt};
    runner->result = {0, "v\n", ""};
    auto r = actions.perform({ContainerAction::RemoveVolume{"v"}});
    ASSERT_TRUE(r.ok());
    EXPECT_TRUE(r.value().succeeded);
    EXPECT_EQ(r.value().output, "v\n");
    EXPECT_EQ(r.value().macDiskBefore, std::nullopt);
    EXPECT_EQ(r.value().note, std::nullopt);
}

TEST_F(ContainerActionsTest, StopPollsUntilTheContainerLeavesRunning) {
    int polls = 0;
    actions.sleep = [&](double s) {
        sleeps.push_back(s);
        if (++polls == 3) stateAnswers(R"({"State":{"Status":"exited"}})");
    };
    stateAnswers(R"({"State":{"Status":"running"}})");
    auto r = actions.perform(stop(kId));
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(r.value().stopOutcome, StopOutcome::stopped);
    EXPECT_EQ(sleeps, std::vector<double>(3, 0.5));
    EXPECT_EQ(std::count(transport->requests.begin(), transport->requests.end(), "/version"), 1);
    EXPECT_EQ(r.value().macDiskBefore, std::nullopt);
    EXPECT_EQ(r.value().note, std::nullopt);
}

TEST_F(ContainerActionsTest, StopOutcomes) {
    struct Case {
        int status;
        const char* body;
        StopOutcome expected;
        size_t sleeps;
    };
    const Case cases[] = {
        {200, R"({"State":{"Status":"running"}})", StopOutcome::stillRunning, 20},
        {404, "{}", StopOutcome::stopped, 1},
        {500, "{}", StopOutcome::unknown, 1},
        {200, "garbage", StopOutcome::unknown, 1},
    };
    for (const auto& c : cases) {
        sleeps.clear();
        stateAnswers(c.body, c.status);
        auto r = actions.perform(stop(kId));
        ASSERT_TRUE(r.ok());
        EXPECT_EQ(r.value().stopOutcome, c.expected) << c.body;
        EXPECT_EQ(sleeps.size(), c.sleeps) << c.body;
    }
    actions.engine.reset();
    EXPECT_EQ(actions.perform(stop(kId)).value().stopOutcome, StopOutcome::unknown);
}

TEST(DockerCommandTest, DisplayQuotesOnlyWhatNeedsIt) {
    DockerCommand c{"/usr/bin/docker",
                    {"-H", "unix:///tmp/my dir/d.sock", "rm", "it's", "", "a$b", "plain-1.2_x"}};
    EXPECT_EQ(c.display(),
              "/usr/bin/docker -H 'unix:///tmp/my dir/d.sock' rm 'it'\\''s' '' 'a$b' plain-1.2_x");
}

}  // namespace
}  // namespace wharfy
