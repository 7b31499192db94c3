#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/containers_command.h"
#include "app/terminal_text.h"

namespace wharfy::app {
namespace {

using nlohmann::json;

RuntimeReport report(RuntimeKind kind, std::string name, RuntimeStatus status,
                     std::optional<std::string> socket = std::nullopt) {
    RuntimeReport r;
    r.runtime = {std::move(kind), std::move(name), std::move(socket), std::nullopt, status, {}};
    return r;
}

RuntimeReport podmanReport() {
    RuntimeReport r = report({RuntimeKind::Podman{}}, "Podman", RuntimeStatus::running,
                             "/run/podman/podman.sock");
    r.containers = {{"aaaa",
                     {"/web\x1b[31m"},
                     "img:1",
                     "running",
                     "Up 1 minute",
                     {{"127.0.0.1", 8080, 18080, "tcp"}, {std::nullopt, 443, std::nullopt, "tcp"}}},
                    {"bbbb", {"/old"}, "img:1", "exited", "Exited (0)", {}}};
    DiskUsage usage;
    usage.images = {{"i1", {"img:1"}, 2'000'000, 2}, {"i2", {}, -5, 0}};
    usage.volumes = {{"v1", 0, 300}, {"v2", std::nullopt, 200}};
    usage.buildCache = {{"b", 70, false}};
    r.sizes = CachedSizes{usage, {"sha256:i2"}, 0};
    return r;
}

RuntimeReport contextReport(const std::string& name, RuntimeStatus status,
                            std::optional<std::string> socket) {
    return report({RuntimeKind::Context{name}}, "Docker context " + name, status,
                  std::move(socket));
}

TEST(ContainersCommandTest, JsonForEachRuntimeState) {
    RuntimeReport colima =
        report({RuntimeKind::Colima{"default"}}, "Colima (default)", RuntimeStatus::notRunning);
    colima.runtime.diskImagePaths = {"/h/.colima/_lima/colima/disk"};
    colima.diskFiles = {{"/h/.colima/_lima/colima/disk", 4096, 1 << 20}};
    RuntimeReport remote = contextReport("far", RuntimeStatus::notRunning, std::nullopt);
    remote.runtime.remoteEndpoint = "tcp://192.168.1.5:2376";
    RuntimeReport broken = podmanReport();
    broken.containers.clear();
    broken.sizes.reset();
    broken.error = "Could not read the runtime (the engine did not answer in time).";
    RuntimeReport noSizes = podmanReport();
    noSizes.sizes.reset();
    noSizes.sizesError = "Could not read sizes (the engine answered with HTTP status 500).";

    const json expected = json::parse(R"json({"runtimes":[
        {"runtime":"Podman","state":"running","socket":"/run/podman/podman.sock","running":1,
         "stopped":1,"imagesBytes":2000000,"imageCount":2,"volumesBytes":500,"volumeCount":2,
         "unusedVolumes":1,"reclaimableBuildCacheBytes":70,"danglingImages":1},
        {"runtime":"Colima (default)","state":"notRunning","macDiskBytes":4096,
         "diskFiles":[{"path":"/h/.colima/_lima/colima/disk","allocatedBytes":4096,
                       "nominalBytes":1048576}]},
        {"runtime":"Docker context far","state":"remote","remoteEndpoint":"tcp://192.168.1.5:2376"},
        {"runtime":"Podman","state":"running","socket":"/run/podman/podman.sock",
         "error":"Could not read the runtime (the engine did not answer in time)."},
        {"runtime":"Podman","state":"running","socket":"/run/podman/podman.sock","running":1,
         "stopped":1,"sizesError":"Could not read sizes (the engine answered with HTTP status 500)."},
        {"runtime":"Docker context hung","state":"notAnswering","socket":"/s/hung.sock"},
        {"runtime":"Docker context shut","state":"permissionDenied","socket":"/s/shut.sock"}]})json");
    EXPECT_EQ(
        containersJson({podmanReport(), colima, remote, broken, noSizes,
                        contextReport("hung", RuntimeStatus::notAnswering, "/s/hung.sock"),
                        contextReport("shut", RuntimeStatus::permissionDenied, "/s/shut.sock")}),
        expected);
    EXPECT_EQ(containersJson({}), json::parse(R"({"runtimes":[]})"));
}

TEST(ContainersCommandTest, TextShowsStateContainersAndSizesSafely) {
    const RuntimeReport stopped =
        report({RuntimeKind::DockerEngine{}}, "Docker Engine", RuntimeStatus::notRunning);
    RuntimeReport noSizes = podmanReport();
    noSizes.sizes.reset();
    noSizes.sizesError = "Could not read sizes (the engine did not answer in time).";
    const std::string text =
        containersText({podmanReport(), stopped, noSizes,
                        contextReport("hung", RuntimeStatus::notAnswering, "/s/hung.sock")});
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    EXPECT_NE(text.find("web\\e[31m"), std::string::npos) << text;
    EXPECT_NE(text.find("127.0.0.1:18080->8080/tcp"), std::string::npos) << text;
    EXPECT_EQ(text.find("443"), std::string::npos) << text;
    EXPECT_NE(text.find("Images 2.0 MB (2, 1 dangling), volumes 500 B (2, 1 unused), "
                        "reclaimable build cache 70 B"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("Not running. Wharfy never starts a runtime."), std::string::npos);
    EXPECT_NE(text.find("Could not read sizes (the engine did not answer in time)."),
              std::string::npos);
    EXPECT_NE(text.find("Docker context hung  /s/hung.sock\n  Running, but not answering.\n"),
              std::string::npos)
        << text;
    EXPECT_NE(containersText({}).find("No container runtime found"), std::string::npos);
}

TEST(FormatBytesTest, FittingDecimalUnits) {
    struct Case {
        uint64_t bytes;
        const char* text;
    };
    const Case cases[] = {
        {0, "0 B"},
        {999, "999 B"},
        {1000, "1.0 KB"},
        {2'000'000, "2.0 MB"},
        {999'949, "999.9 KB"},
        {999'950, "1.0 MB"},
        {5'200'000'000, "5.2 GB"},
        {1'500'000'000'000, "1.5 TB"},
        {UINT64_MAX, "18446744.1 TB"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(formatBytes(c.bytes), c.text) << c.bytes;
}

}  // namespace
}  // namespace wharfy::app
