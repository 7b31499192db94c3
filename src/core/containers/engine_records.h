#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"

namespace wharfy {

/// What "/version" says about an engine.
struct EngineVersion {
    std::string version;
    /// Prefixes every other request: "/v" + apiVersion + path. Only digits
    /// and dots are accepted from an engine.
    std::string apiVersion;

    bool operator==(const EngineVersion&) const = default;
};

/// One port a container exposes, published on the host when publicPort is set.
struct PublishedPort {
    /// Host address as the engine reports it, such as 0.0.0.0 or ::.
    std::optional<std::string> ip;
    uint16_t privatePort = 0;
    std::optional<uint16_t> publicPort;
    /// "tcp" or "udp".
    std::string type;

    bool operator==(const PublishedPort&) const = default;
};

/// One container as the engine lists it.
struct ContainerInfo {
    /// The full hexadecimal id.
    std::string id;
    /// As the engine gives them, usually with a leading "/".
    std::vector<std::string> names;
    std::string image;
    /// The engine's state word: "running", "exited", "created", "dead", ...
    std::string state;
    /// Human-readable status such as "Up 3 hours", shown as it comes.
    std::string status;
    std::vector<PublishedPort> ports;

    bool operator==(const ContainerInfo&) const = default;

    /// The first name without its leading "/", or the first 12 characters of the id.
    std::string name() const;
    bool isRunning() const { return state == "running"; }
    /// Exited, created or dead; paused, restarting and the like are neither
    /// running nor stopped, so they are never offered for removal.
    bool isStopped() const;
};

/// The engine's disk-usage summary, from either generation of its keys. Sizes
/// above INT64_MAX are read as INT64_MAX.
struct DiskUsage {
    struct Image {
        std::string id;
        std::vector<std::string> tags;
        int64_t size = 0;
        /// How many containers use the image; engines may report -1 for unknown.
        int64_t containers = 0;
        bool operator==(const Image&) const = default;
    };
    struct Container {
        std::string id;
        std::vector<std::string> names;
        std::string state;
        int64_t sizeRw = 0;
        bool operator==(const Container&) const = default;
    };
    struct Volume {
        std::string name;
        /// Absent when the engine did not count references.
        std::optional<int64_t> refCount;
        int64_t size = 0;
        bool operator==(const Volume&) const = default;
    };
    struct BuildCacheEntry {
        std::string id;
        int64_t size = 0;
        bool inUse = false;
        bool operator==(const BuildCacheEntry&) const = default;
    };

    std::vector<Image> images;
    std::vector<Container> containers;
    std::vector<Volume> volumes;
    std::vector<BuildCacheEntry> buildCache;

    bool operator==(const DiskUsage&) const = default;

    std::vector<Container> stoppedContainers() const;
    /// Volumes whose reference count is known to be 0.
    std::vector<Volume> unusedVolumes() const;
    /// Bytes of build cache not in use.
    int64_t reclaimableBuildCache() const;
    /// Sums of sizes, negative sizes counted as 0. Every sum stops at
    /// INT64_MAX rather than overflow, whatever an engine reports.
    int64_t imagesSize() const;
    int64_t volumesSize() const;
};

/// Why a response body was not the expected JSON, in the decoder's words.
struct DecodeError {
    std::string description;
    bool operator==(const DecodeError&) const = default;
};

/// Pure decoders of engine response bodies.
struct EngineDecoder {
    /// The most JSON values (objects, arrays and scalars) a body may hold;
    /// far above any real engine's answer, far below what memory allows.
    static constexpr size_t kMaxJsonValues = 1'000'000;

    static Result<EngineVersion, DecodeError> version(std::string_view body);
    static Result<std::vector<ContainerInfo>, DecodeError> containers(std::string_view body);
    static Result<DiskUsage, DecodeError> diskUsage(std::string_view body);
    /// The "Id" of each entry of an image list, in order.
    static Result<std::vector<std::string>, DecodeError> imageIDs(std::string_view body);
    /// "State" → "Status" of a container inspection.
    static Result<std::string, DecodeError> inspectedState(std::string_view body);
};

}  // namespace wharfy
