#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/result.h"
#include "core/history/history_calendar.h"
#include "core/history/history_entry.h"

namespace wharfy {

/// Why a history line could not be written.
struct HistoryError {
    enum class Kind {
        /// A link, a file or something else stands where the folder should be.
        unsafeFolder,
        createFolder,
        openFile,
        writeFile,
    };
    Kind kind = Kind::unsafeFolder;
    /// The folder or file concerned.
    std::string path;
    /// errno of the failed call; 0 for an unsafe folder.
    int errorNumber = 0;

    bool operator==(const HistoryError&) const = default;
    /// A sentence for the user.
    std::string description() const;
};

/// The folder of daily history files: one JSON line per entry, one file per
/// local day ("2026-03-07.jsonl"), kept for seven days. A plain value; the
/// file system is touched only by `folderIsSafe`, `append`, `read`,
/// `forEachEntry` and `prune`, each safe to run alongside the others, also
/// from other processes.
class HistoryStore {
  public:
    /// Today and the six days before it.
    static constexpr int retentionDays = 7;
    /// Lines longer than this are skipped; a week at hundreds of ports stays far below.
    static constexpr size_t kMaxLineBytes = 16u << 20;
    /// Reading stops after this much of one file.
    static constexpr size_t kMaxFileBytes = 256u << 20;

    /// `directory` is absolute, without a trailing "/".
    HistoryStore(std::string directory, std::shared_ptr<const HistoryCalendar> calendar);

    const std::string& directory() const { return directory_; }
    const HistoryCalendar& calendar() const { return *calendar_; }

    /// The path of the day file that holds `time`.
    std::string fileURL(double time) const;
    /// The start of the day that a file name stands for; absent for names
    /// that are not "YYYY-MM-DD.jsonl" or whose numbers are not a date.
    std::optional<double> day(std::string_view fileName) const;
    /// The folder is missing (it will be made) or is a real folder, not a link.
    bool folderIsSafe() const;

    /// Writes `entry` as one line at the end of its day file, making the
    /// folder (0700) and the file (0600) when needed, never through a link.
    Result<Ok, HistoryError> append(const HistoryEntry& entry) const;

    /// Every entry of the last seven days, oldest file first, in file order.
    /// Lines that do not decode are skipped; an unsafe or unreadable folder
    /// gives nothing.
    std::vector<HistoryEntry> read(double now) const;

    /// The same entries as `read`, handed over one at a time without keeping
    /// them. The entry passed is reused for the next line.
    void forEachEntry(double now, const std::function<void(const HistoryEntry&)>& visit) const;

    /// Deletes the day files older than seven days (regular files directly in
    /// the folder only) and returns their names, sorted.
    std::vector<std::string> prune(double now) const;

    /// The first day that is kept: the start of today moved back six days.
    double cutoff(double now) const;

  private:
    std::string directory_;
    std::shared_ptr<const HistoryCalendar> calendar_;
};

/// The history folder: "$XDG_STATE_HOME/wharfy/history" when XDG_STATE_HOME
/// is an absolute path, else "<home>/.local/state/wharfy/history".
std::string historyDirectory(const std::optional<std::string>& xdgStateHome,
                             const std::string& home);

/// The store of this user: the folder from the environment, the local calendar.
HistoryStore liveHistoryStore(const std::string& home);

/// Decides when a history line is worth writing: at the first offer, as soon
/// as the set of listening ports changes, and otherwise once every `interval`.
struct HistoryRecorder {
    double interval = 300;
    /// Time of the last entry accepted.
    std::optional<double> lastTime;
    /// The ports of the last entry offered, accepted or not.
    std::optional<std::set<HistoryPort>> lastSignature;

    bool shouldRecord(const HistoryEntry& entry);
};

}  // namespace wharfy
