#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "common/result.h"
#include "core/containers/engine_records.h"
#include "core/containers/http.h"

namespace wharfy {

/// Why a request to an engine failed: the transport's or parser's own error
/// unchanged, a status the call does not accept, or a body that is not the
/// expected JSON.
struct EngineError {
    struct Status {
        int status = 0;
        bool operator==(const Status&) const = default;
    };
    using Value = std::variant<TransportError, HTTPError, Status, DecodeError>;
    Value value;

    bool operator==(const EngineError&) const = default;
    /// A short cause for the user, to go inside "Could not read the runtime (…).":
    /// never a case name or a parser's own message.
    std::string description() const;
};

/// Asks one container engine for its version, containers, disk use, dangling
/// images and one container's state. Every path but "/version" is prefixed
/// with the engine's own API version: given by the caller, who keeps it, or
/// asked first by the forms without it.
class EngineClient {
  public:
    explicit EngineClient(std::shared_ptr<const EngineTransport> transport)
        : transport_(std::move(transport)) {}
    /// A client over a UnixSocketTransport.
    EngineClient(const std::string& socketPath, int timeoutSeconds);

    Result<EngineVersion, EngineError> version() const;
    /// All containers, running or not.
    Result<std::vector<ContainerInfo>, EngineError> containers(const std::string& apiVersion) const;
    Result<DiskUsage, EngineError> diskUsage(const std::string& apiVersion) const;
    /// Ids of the images that no tag names, in the engine's order.
    Result<std::vector<std::string>, EngineError> danglingImageIDs(
        const std::string& apiVersion) const;
    /// The container's state word; absent when the engine no longer knows it.
    /// `id` must already have passed the container-id check.
    Result<std::optional<std::string>, EngineError> containerState(
        const std::string& id, const std::string& apiVersion) const;

    /// The same, asking "/version" first.
    Result<std::vector<ContainerInfo>, EngineError> containers() const;
    Result<DiskUsage, EngineError> diskUsage() const;
    Result<std::vector<std::string>, EngineError> danglingImageIDs() const;
    Result<std::optional<std::string>, EngineError> containerState(const std::string& id) const;

    /// The query that selects dangling images, percent-encoded.
    static std::string danglingFilterQuery();

  private:
    Result<std::string, EngineError> body(const std::string& path) const;
    Result<std::string, EngineError> apiVersion() const;

    std::shared_ptr<const EngineTransport> transport_;
};

}  // namespace wharfy
