#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "core/containers/container_service.h"
#include "fake_engine_transport.h"
#include "test_process.h"

namespace wharfy {
namespace {

using testing::FakeEngineTransport;

const std::string kDangling = "/v1.41/images/json?filters=%7B%22dangling%22%3A%5B%22true%22%5D%7D";

class ContainerServiceTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeEngineTransport> fast = std::make_shared<FakeEngineTransport>();
    std::shared_ptr<FakeEngineTransport> slow = std::make_shared<FakeEngineTransport>();
    double clock = 1000.0;
    ContainerService service{EngineClient(fast), EngineClient(slow), [this] { return clock; }};

    void SetUp() override {
        for (auto* t : {fast.get(), slow.get()}) {
            t->answers.insert_or_assign(
                "/version",
                FakeEngineTransport::response(200, R"({"Version":"x","ApiVersion":"1.41"})"));
        }
        slow->answers.insert_or_assign(
            "/v1.41/system/df",
            FakeEngineTransport::response(
                200, R"({"Volumes":[{"Name":"v","UsageData":{"RefCount":0,"Size":3}}]})"));
        fast->answers.insert_or_assign(
            kDangling, FakeEngineTransport::response(
                           200, R"([{"Id":"sha256:d"},{"Id":"sha256:e","RepoTags":null}])"));
    }
    size_t dfRequests() const {
        return static_cast<size_t>(
            std::count(slow->requests.begin(), slow->requests.end(), "/v1.41/system/df"));
    }
};

TEST_F(ContainerServiceTest, ReadsDiskUseOnTheSlowClientAndDanglingOnTheFastOne) {
    auto r = service.sizes(false);
    ASSERT_TRUE(r.ok()) << r.error().description();
    EXPECT_EQ(r.value().usage.volumes.size(), 1u);
    EXPECT_EQ(r.value().danglingImageIDs, (std::vector<std::string>{"sha256:d", "sha256:e"}));
    EXPECT_EQ(r.value().readAt, 1000.0);
    EXPECT_EQ(dfRequests(), 1u);
    EXPECT_EQ(fast->requests.back(), kDangling);
}

TEST_F(ContainerServiceTest, CacheLastsUnder300SecondsUnlessAfterAChange) {
    ASSERT_TRUE(service.sizes(false).ok());
    clock += 299.9;
    EXPECT_EQ(service.sizes(false).value().readAt, 1000.0);
    EXPECT_EQ(dfRequests(), 1u);
    EXPECT_EQ(service.sizes(true).value().readAt, 1299.9);
    EXPECT_EQ(dfRequests(), 2u);
    clock += 300.0;
    EXPECT_EQ(service.sizes(false).value().readAt, 1599.9);
    EXPECT_EQ(dfRequests(), 3u);
}

TEST_F(ContainerServiceTest, FailureKeepsThePreviousReading) {
    ASSERT_TRUE(service.sizes(false).ok());
    slow->answers.insert_or_assign("/v1.41/system/df", FakeEngineTransport::response(500, "{}"));
    clock += 10;
    EXPECT_EQ(service.sizes(true).error(), EngineError{EngineError::Status{500}});
    auto cached = service.sizes(false);
    ASSERT_TRUE(cached.ok());
    EXPECT_EQ(cached.value().readAt, 1000.0);
}

TEST_F(ContainerServiceTest, VersionIsAskedOnceAndAgainOnlyAfterAFailure) {
    fast->answers.insert_or_assign("/v1.41/containers/json?all=1",
                                   FakeEngineTransport::response(200, "[]"));
    auto versions = [&] {
        return std::count(fast->requests.begin(), fast->requests.end(), "/version") +
               std::count(slow->requests.begin(), slow->requests.end(), "/version");
    };
    // Two refreshes: containers, then sizes.
    for (int refresh = 0; refresh < 2; ++refresh) {
        ASSERT_TRUE(service.containers().ok());
        ASSERT_TRUE(service.sizes(true).ok());
    }
    EXPECT_EQ(versions(), 1);

    fast->answers.insert_or_assign("/v1.41/containers/json?all=1",
                                   FakeEngineTransport::response(404, "{}"));
    EXPECT_FALSE(service.containers().ok());
    EXPECT_EQ(versions(), 1);
    fast->answers.insert_or_assign(
        "/version", FakeEngineTransport::response(200, R"({"Version":"y","ApiVersion":"1.43"})"));
    fast->answers.insert_or_assign("/v1.43/containers/json?all=1",
                                   FakeEngineTransport::response(200, "[]"));
    EXPECT_TRUE(service.containers().ok());
    EXPECT_EQ(versions(), 2);
    EXPECT_EQ(fast->requests.back(), "/v1.43/containers/json?all=1");
}

TEST(VMDiskMeterTest, MeasuresSparseFilesAndSkipsTheRest) {
    testing::TempDir dir;
    const std::string sparse = dir.path() + "/disk.raw";
    int fd = ::open(sparse.c_str(), O_CREAT | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 1 << 30), 0);
    std::string block(8192, 'x');
    ASSERT_EQ(::write(fd, block.data(), block.size()), static_cast<ssize_t>(block.size()));
    ::close(fd);

    auto files = VMDiskMeter::measure({dir.path() + "/missing", sparse, dir.path()});
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].path, sparse);
    EXPECT_EQ(files[0].nominalBytes, 1u << 30);
    EXPECT_GE(files[0].allocatedBytes, 8192u);
    EXPECT_LT(files[0].allocatedBytes, 1u << 30);

    RuntimeInfo runtime;
    runtime.diskImagePaths = {sparse, sparse};
    EXPECT_EQ(VMDiskMeter::allocatedBytes(runtime), files[0].allocatedBytes * 2);
    runtime.diskImagePaths = {dir.path() + "/missing"};
    EXPECT_EQ(VMDiskMeter::allocatedBytes(runtime), std::nullopt);
}

}  // namespace
}  // namespace wharfy
