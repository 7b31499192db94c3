#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>

#include "core/containers/engine_client.h"
#include "fake_engine_transport.h"

namespace wharfy {
namespace {

using testing::FakeEngineTransport;

const std::string kVersion = R"({"Version":"4.3.1","ApiVersion":"1.41","Os":"linux"})";

class EngineClientTest : public ::testing::Test {
  protected:
    std::shared_ptr<FakeEngineTransport> transport = std::make_shared<FakeEngineTransport>();
    EngineClient client{transport};

    void answer(const std::string& path, int status, const std::string& body) {
        transport->answers.insert_or_assign(path, FakeEngineTransport::response(status, body));
    }
    void answerContainers(const std::string& body) {
        answer("/version", 200, kVersion);
        answer("/v1.41/containers/json?all=1", 200, body);
    }
};

TEST_F(EngineClientTest, ContainersAskVersionFirstThenTheVersionedList) {
    answerContainers(R"([{"Id":"abc","Names":["/web-1","/alias"],"Image":"nginx","State":"running",
        "Status":"Up 3 hours","Ports":[{"IP":"0.0.0.0","PrivatePort":80,"PublicPort":8080,"Type":"tcp"},
        {"PrivatePort":443,"Type":"tcp"}],"Labels":{"x":"y"}}])");
    auto r = client.containers();
    ASSERT_TRUE(r.ok()) << r.error().description();
    EXPECT_EQ(transport->requests,
              (std::vector<std::string>{"/version", "/v1.41/containers/json?all=1"}));
    ContainerInfo expected{
        "abc",        {"/web-1", "/alias"},
        "nginx",      "running",
        "Up 3 hours", {{"0.0.0.0", 80, 8080, "tcp"}, {std::nullopt, 443, std::nullopt, "tcp"}}};
    EXPECT_EQ(r.value(), std::vector<ContainerInfo>{expected});
    EXPECT_EQ(r.value()[0].name(), "web-1");
}

TEST_F(EngineClientTest, MissingOrNullOptionalKeysDecodeAsEmpty) {
    answerContainers(R"([{"Id":"0123456789abcdef0123"},
        {"Id":"b","Names":null,"Image":null,"Ports":null,"State":"paused"}])");
    auto r = client.containers();
    ASSERT_TRUE(r.ok()) << r.error().description();
    ASSERT_EQ(r.value().size(), 2u);
    EXPECT_EQ(r.value()[0], (ContainerInfo{"0123456789abcdef0123", {}, "", "", "", {}}));
    EXPECT_EQ(r.value()[0].name(), "0123456789ab");
    EXPECT_EQ(r.value()[1].state, "paused");
}

TEST_F(EngineClientTest, MalformedEntriesFailTheWholeList) {
    const char* bodies[] = {
        R"([{"Names":["/x"]}])",                         // no Id
        R"([{"Id":"a","Ports":[{"Type":"tcp"}]}])",      // no PrivatePort
        R"([{"Id":"a","Ports":[{"PrivatePort":80}]}])",  // no Type
        R"([{"Id":"a","Ports":[{"PrivatePort":70000,"Type":"tcp"}]}])",
        R"([{"Id":7}])",
        R"({"Id":"a"})",
        R"([{"Id":"a"})",
        "",
    };
    for (const char* body : bodies) {
        answerContainers(body);
        auto r = client.containers();
        ASSERT_FALSE(r.ok()) << body;
        const auto* decoding = std::get_if<DecodeError>(&r.error().value);
        ASSERT_NE(decoding, nullptr) << body;
        EXPECT_FALSE(decoding->description.empty());
        EXPECT_EQ(r.error().description(), "the engine's answer was not the expected JSON") << body;
    }
}

TEST_F(EngineClientTest, RunningAndStoppedStates) {
    struct Case {
        const char* state;
        bool running, stopped;
    };
    for (const Case& c :
         {Case{"running", true, false}, Case{"exited", false, true}, Case{"created", false, true},
          Case{"dead", false, true}, Case{"paused", false, false}, Case{"restarting", false, false},
          Case{"Exited", false, false}, Case{"", false, false}}) {
        ContainerInfo info{"id", {}, "", c.state, "", {}};
        EXPECT_EQ(info.isRunning(), c.running) << c.state;
        EXPECT_EQ(info.isStopped(), c.stopped) << c.state;
    }
}

TEST_F(EngineClientTest, FailedVersionStopsEveryVersionedCallBeforeTheDataRequest) {
    answer("/version", 500, "{}");
    const EngineError expected{EngineError::Status{500}};
    EXPECT_EQ(client.containers().error(), expected);
    EXPECT_EQ(client.diskUsage().error(), expected);
    EXPECT_EQ(client.danglingImageIDs().error(), expected);
    EXPECT_EQ(client.containerState("0123456789ab").error(), expected);
    EXPECT_EQ(transport->requests, std::vector<std::string>(4, "/version"));
}

TEST_F(EngineClientTest, AnApiVersionThatIsNotANumberIsNeverSent) {
    for (const char* api : {"1.41/../../x", "1.41 HTTP/1.0", "", "v1.41", "1.41?all=0"}) {
        transport->requests.clear();
        answer("/version", 200, std::string(R"({"Version":"x","ApiVersion":")") + api + "\"}");
        auto r = client.containers();
        ASSERT_FALSE(r.ok()) << api;
        EXPECT_TRUE(std::holds_alternative<DecodeError>(r.error().value)) << api;
        EXPECT_EQ(transport->requests, std::vector<std::string>{"/version"}) << api;
    }
}

TEST(EngineErrorTest, DescriptionsAreShortCausesForTheUser) {
    using TKind = TransportError::Kind;
    struct Case {
        EngineError error;
        const char* text;
    };
    const Case cases[] = {
        {{TransportError{TKind::connectFailed, ECONNREFUSED}}, "the engine refused the connection"},
        {{TransportError{TKind::connectFailed, EACCES}},
         "permission denied on the engine's socket"},
        {{TransportError{TKind::ioFailed, ECONNRESET}},
         "the connection to the engine failed: connection reset by peer"},
        {{TransportError{TKind::timedOut, 0}}, "the engine did not answer in time"},
        {{HTTPError{HTTPError::Kind::malformed, "no header end"}},
         "the engine's answer ended before its headers did"},
        {{HTTPError{HTTPError::Kind::malformed, "bad status line"}},
         "the engine's answer was not HTTP"},
        {{HTTPError{HTTPError::Kind::incompleteBody, ""}}, "the engine's answer was cut short"},
        {{EngineError::Status{500}}, "the engine answered with HTTP status 500"},
        {{DecodeError{"[json.exception.parse_error.101] parse error at line 1"}},
         "the engine's answer was not the expected JSON"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.error.description(), c.text);
}

TEST_F(EngineClientTest, OnlyStatus200IsAccepted) {
    for (int status : {201, 204, 404}) {
        answerContainers("[]");
        answer("/v1.41/containers/json?all=1", status, "[]");
        EXPECT_EQ(client.containers().error(), EngineError{EngineError::Status{status}});
    }
}

TEST_F(EngineClientTest, TransportAndParserErrorsPassUpUnchanged) {
    transport->answers.insert_or_assign("/version",
                                        TransportError{TransportError::Kind::ioFailed, 104});
    EXPECT_EQ(client.version().error(),
              EngineError{(TransportError{TransportError::Kind::ioFailed, 104})});
    transport->answers.insert_or_assign("/version", std::string("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(client.version().error(),
              EngineError{(HTTPError{HTTPError::Kind::malformed, "no header end"})});
}

TEST_F(EngineClientTest, ContainerState) {
    const std::string path = "/v1.41/containers/0123456789ab/json";
    answer("/version", 200, kVersion);
    answer(path, 200, R"({"Id":"0123456789ab","State":{"Status":"exited","Pid":0}})");
    EXPECT_EQ(client.containerState("0123456789ab").value(), "exited");

    answer(path, 404, R"({"message":"no such container"})");
    auto gone = client.containerState("0123456789ab");
    ASSERT_TRUE(gone.ok());
    EXPECT_EQ(gone.value(), std::nullopt);

    answer(path, 409, "{}");
    EXPECT_EQ(client.containerState("0123456789ab").error(), EngineError{EngineError::Status{409}});

    answer(path, 200, R"({"State":"running"})");
    EXPECT_TRUE(
        std::holds_alternative<DecodeError>(client.containerState("0123456789ab").error().value));
}

TEST(DiskUsageDecodingTest, BothGenerationsOfKeysReadAlike) {
    const std::string images = R"([{"Id":"sha256:i1","RepoTags":["a:1"],"Size":100,"Containers":1},
        {"Id":"sha256:i2","RepoTags":null,"Size":-1,"Containers":0}])";
    const std::string containers = R"([{"Id":"c1","Names":["/x"],"State":"exited","SizeRw":5},
        {"Id":"c2","Names":["/y"],"State":"running","SizeRw":7},{"Id":"c3","State":"paused"}])";
    const std::string volumes = R"([{"Name":"v1","UsageData":{"RefCount":0,"Size":30}},
        {"Name":"v2","UsageData":{"RefCount":2,"Size":12}},{"Name":"v3","UsageData":{"Size":-1}},
        {"Name":"v4"}])";
    const std::string cache =
        R"([{"ID":"b1","Size":40,"InUse":false},{"ID":"b2","Size":60,"InUse":true}])";
    const std::string older = R"({"Images":)" + images + R"(,"Containers":)" + containers +
                              R"(,"Volumes":)" + volumes + R"(,"BuildCache":)" + cache + "}";
    const std::string newer = R"({"ImageUsage":{"Items":)" + images +
                              R"(},"ContainerUsage":{"Items":)" + containers +
                              R"(},"VolumeUsage":{"Items":)" + volumes +
                              R"(},"BuildCacheUsage":{"Items":)" + cache + "}}";
    auto a = EngineDecoder::diskUsage(older);
    auto b = EngineDecoder::diskUsage(newer);
    ASSERT_TRUE(a.ok()) << a.error().description;
    ASSERT_TRUE(b.ok()) << b.error().description;
    EXPECT_EQ(a.value(), b.value());

    const DiskUsage& u = a.value();
    EXPECT_EQ(u.imagesSize(), 100);
    EXPECT_EQ(u.volumesSize(), 42);
    EXPECT_EQ(u.reclaimableBuildCache(), 40);
    ASSERT_EQ(u.unusedVolumes().size(), 1u);
    EXPECT_EQ(u.unusedVolumes()[0].name, "v1");
    ASSERT_EQ(u.stoppedContainers().size(), 1u);
    EXPECT_EQ(u.stoppedContainers()[0].id, "c1");
}

TEST(DiskUsageDecodingTest, SumsNeverOverflowWhateverTheSizes) {
    // INT64_MAX is 9223372036854775807; beyond it a size is held there, and so
    // is every sum.
    struct Case {
        const char* sizes;
        int64_t total;
    };
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    const Case cases[] = {
        {"1,2", 3},
        {"9223372036854775807,1", kMax},
        {"9223372036854775807,9223372036854775807,9223372036854775807", kMax},
        {"9223372036854775808", kMax},
        {"18446744073709551615,5", kMax},
        {"9223372036854775000,-9223372036854775808,900", kMax},
        {"-1,-9223372036854775808", 0},
    };
    for (const auto& c : cases) {
        std::string images, volumes, cache;
        std::string list = c.sizes;
        for (size_t at = 0, i = 0; at <= list.size(); ++i) {
            size_t comma = std::min(list.find(',', at), list.size());
            const std::string size = list.substr(at, comma - at);
            const std::string sep = i == 0 ? "" : ",";
            images += sep + R"({"Id":"i","Size":)" + size + "}";
            volumes += sep + R"({"Name":"v","UsageData":{"Size":)" + size + "}}";
            cache += sep + R"({"ID":"b","InUse":false,"Size":)" + size + "}";
            at = comma + 1;
        }
        auto r = EngineDecoder::diskUsage(R"({"Images":[)" + images + R"(],"Volumes":[)" + volumes +
                                          R"(],"BuildCache":[)" + cache + "]}");
        ASSERT_TRUE(r.ok()) << c.sizes << ": " << r.error().description;
        EXPECT_EQ(r.value().imagesSize(), c.total) << c.sizes;
        EXPECT_EQ(r.value().volumesSize(), c.total) << c.sizes;
        EXPECT_EQ(r.value().reclaimableBuildCache(), c.total) << c.sizes;
    }
    auto huge = EngineDecoder::diskUsage(R"({"Images":[{"Id":"i","Size":18446744073709551615}]})");
    ASSERT_TRUE(huge.ok());
    EXPECT_EQ(huge.value().images[0].size, kMax);
    // Past the unsigned range the number is no integer at all.
    EXPECT_FALSE(EngineDecoder::diskUsage(R"({"Images":[{"Id":"i","Size":1e30}]})").ok());
}

TEST(EngineDecoderTest, ABodyOfTooManyValuesIsRefusedBeforeItIsBuilt) {
    // The array itself counts: kMaxJsonValues values in all pass the count and
    // fail only on their shape (no "Id"); one more is refused by the count.
    // Empty objects in an array are what a tree pays most for.
    for (size_t values : {EngineDecoder::kMaxJsonValues, EngineDecoder::kMaxJsonValues + 1}) {
        std::string body = "[";
        for (size_t i = 1; i < values; ++i)
            body += i == 1 ? "{}" : ",{}";
        body += "]";
        auto r = EngineDecoder::containers(body);
        ASSERT_FALSE(r.ok());
        const bool counted = r.error().description.find("values") != std::string::npos;
        EXPECT_EQ(counted, values > EngineDecoder::kMaxJsonValues) << r.error().description;
    }
}

TEST(DiskUsageDecodingTest, OlderKeyWinsAndAbsentListsAreEmpty) {
    auto r = EngineDecoder::diskUsage(
        R"({"Volumes":[{"Name":"old"}],"VolumeUsage":{"Items":[{"Name":"new"}]},"LayersSize":0})");
    ASSERT_TRUE(r.ok());
    ASSERT_EQ(r.value().volumes.size(), 1u);
    EXPECT_EQ(r.value().volumes[0].name, "old");
    EXPECT_TRUE(r.value().images.empty());
    EXPECT_TRUE(r.value().buildCache.empty());
    EXPECT_FALSE(EngineDecoder::diskUsage(R"({"Images":[{"Size":1}]})").ok());
    EXPECT_FALSE(EngineDecoder::diskUsage("[]").ok());
}

}  // namespace
}  // namespace wharfy
