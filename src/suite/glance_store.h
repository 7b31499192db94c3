#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "common/result.h"
#include "suite/glance_codec.h"
#include "suite/suite_folder.h"

namespace nemarro::suite {

/// The bytes of a file read without following a link or trusting its owner.
struct SafeReadData {
    std::string bytes;
    bool operator==(const SafeReadData&) const = default;
};
/// No file at the path.
struct SafeReadMissing {
    bool operator==(const SafeReadMissing&) const = default;
};
/// Something is at the path but may not be read; `reason` is a fixed text.
struct SafeReadFailure {
    std::string reason;
    bool operator==(const SafeReadFailure&) const = default;
};
/// The outcome of safeRead.
using SafeRead = std::variant<SafeReadData, SafeReadMissing, SafeReadFailure>;

/// Reads at most `limit` bytes of the regular file at `path`, owned by the real
/// user, without following a final symbolic link and without blocking on a
/// FIFO. Failures: "unreadable (errno N)" when it cannot be opened,
/// "unreadable", "not a regular file", "not owned by this user".
SafeRead safeRead(const std::string& path, size_t limit);

/// Replaces `folder`/`name` with `bytes` atomically: a reader sees the old or
/// the new file whole. The new file is created 0600 beside the target; the
/// folder and the target are not followed when they are symbolic links.
wharfy::Result<wharfy::Ok, SuiteFileError> writeFileAtomically(const std::string& folder,
                                                               const std::string& name,
                                                               std::string_view bytes);

/// Why a glance record was not written.
using GlanceWriteError = std::variant<GlanceValidationError, SuiteFileError>;
/// The text logged for a write error: the validation reason or the file error's message.
std::string message(const GlanceWriteError& error);

/// Reads and writes the glance files of one suite folder.
struct GlanceStore {
    SuiteFolder folder;

    /// One more than the largest valid file, so an oversize file is caught
    /// by the codec without being read whole.
    static constexpr size_t kReadLimit = GlanceCodec::kMaxFileSize + 1;

    /// Encodes the record and writes it atomically to glances/<app>.json.
    wharfy::Result<wharfy::Ok, GlanceWriteError> write(const GlanceRecord& record) const;
    /// The app's file decoded; absent when there is no file.
    std::optional<GlanceReadResult> read(SuiteApp app) const;
    /// Every app's file in catalog order; apps without a file have no entry.
    std::map<SuiteApp, GlanceReadResult> readAll() const;
};

}  // namespace nemarro::suite
