// Parsing an engine's answer must never be the slow part of a refresh: these
// measure the parser and the container-list decoding on a 500-container
// answer shaped like Podman's (chunked, as its API service sends large lists).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "core/containers/engine_records.h"
#include "core/containers/http.h"

namespace {

std::string containerEntry(int i) {
    char id[65];
    std::snprintf(id, sizeof id, "%064x", 0x5eed0000 + i);
    const std::string n = std::to_string(i);
    return std::string(R"({"Id":")") + id + R"(","Names":["/bench-)" + n +
           R"("],"Image":"localhost/t:1","ImageID":"sha256:1a96634966416df8ff9b902ddd0c32780770ebc5f7e57d385b305bb7e0df7391","Command":"/bin/busybox true","Created":1795263350,"Ports":[{"IP":"127.0.0.1","PrivatePort":8080,"PublicPort":)" +
           std::to_string(30000 + i) +
           R"(,"Type":"tcp"}],"Labels":{},"State":"created","Status":"Created","NetworkSettings":{"Networks":{"podman":{"IPAMConfig":null,"Links":null,"Aliases":null,"NetworkID":"podman","EndpointID":"","Gateway":"","IPAddress":"","IPPrefixLen":0,"IPv6Gateway":"","GlobalIPv6Address":"","GlobalIPv6PrefixLen":0,"MacAddress":"","DriverOpts":null}}},"Mounts":[],"Name":"","Config":null,"NetworkingConfig":null,"Platform":null,"AdjustCPUShares":false})";
}

std::string containerListResponse(int count) {
    std::string body = "[";
    for (int i = 0; i < count; ++i)
        body += (i ? "," : "") + containerEntry(i);
    body += "]\n";
    std::string out =
        "HTTP/1.1 200 OK\r\nApi-Version: 1.41\r\nContent-Type: application/json\r\n"
        "Libpod-Api-Version: 4.3.1\r\nServer: Libpod/4.3.1 (linux)\r\n"
        "Date: Sat, 21 Nov 2026 12:00:00 GMT\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (size_t at = 0; at < body.size(); at += 8192) {
        std::string chunk = body.substr(at, 8192);
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", chunk.size());
        out += size + chunk + "\r\n";
    }
    return out + "0\r\n\r\n";
}

const std::string& recorded() {
    static const std::string response = containerListResponse(500);
    return response;
}

void BM_HTTPResponseParserParse500Containers(benchmark::State& state) {
    const std::string& raw = recorded();
    for (auto _ : state) {
        auto r = wharfy::HTTPResponseParser::parse(raw);
        benchmark::DoNotOptimize(r);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * raw.size()));
}
BENCHMARK(BM_HTTPResponseParserParse500Containers)->Unit(benchmark::kMicrosecond);

void BM_ParseAndDecode500Containers(benchmark::State& state) {
    const std::string& raw = recorded();
    for (auto _ : state) {
        auto r = wharfy::HTTPResponseParser::parse(raw);
        auto list = wharfy::EngineDecoder::containers(r.value().body);
        if (!list || list.value().size() != 500) state.SkipWithError("decoding failed");
        benchmark::DoNotOptimize(list);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * raw.size()));
}
BENCHMARK(BM_ParseAndDecode500Containers)->Unit(benchmark::kMicrosecond);

}  // namespace
