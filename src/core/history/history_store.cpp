#include "core/history/history_store.h"
#include "common/descriptor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace wharfy {
namespace {

std::string errorText(int error) {
    return std::error_code(error, std::generic_category()).message();
}

int openFolder(const std::string& path) {
    return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

/// The names in the folder open at `folder`; the descriptor stays open.
std::vector<std::string> namesIn(int folder) {
    std::vector<std::string> names;
    const int copy = ::fcntl(folder, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) return names;
    DIR* dir = ::fdopendir(copy);
    if (dir == nullptr) {
        ::close(copy);
        return names;
    }
    while (const dirent* e = ::readdir(dir))
        names.emplace_back(e->d_name);
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return names;
}

/// Makes `path` and the folders above it, new ones with 0700; the first
/// folder that could not be made, with its errno, on failure.
std::optional<std::pair<std::string, int>> makeFolders(const std::string& path) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) return std::pair{prefix, errno};
        if (slash == std::string::npos) return std::nullopt;
    }
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

/// Calls `line` for each non-empty line of the open file, reading at most
/// `maxBytes` and skipping lines longer than `maxLine`. The last line counts
/// even without its line feed.
template <typename F>
void eachLine(int fd, size_t maxBytes, size_t maxLine, F&& line) {
    constexpr size_t kChunk = 1 << 20;
    std::string buffer;
    size_t total = 0;
    bool skipping = false;  // inside a line that is too long
    while (total < maxBytes) {
        const size_t kept = buffer.size();
        buffer.resize(kept + std::min(kChunk, maxBytes - total));
        const ssize_t n = ::read(fd, buffer.data() + kept, buffer.size() - kept);
        buffer.resize(kept + static_cast<size_t>(std::max<ssize_t>(n, 0)));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        total += static_cast<size_t>(n);
        size_t start = 0;
        for (size_t nl; (nl = buffer.find('\n', std::max(start, kept))) != std::string::npos;
             start = nl + 1) {
            if (!skipping && nl > start) line(std::string_view(buffer).substr(start, nl - start));
            skipping = false;
        }
        buffer.erase(0, start);
        if (buffer.size() > maxLine) {
            skipping = true;
            buffer.clear();
        }
    }
    if (!skipping && !buffer.empty()) line(std::string_view(buffer));
}

}  // namespace

std::string HistoryError::description() const {
    switch (kind) {
        case Kind::unsafeFolder:
            return "The history folder " + path +
                   " is a link or a file, not a folder, so nothing was written to it.";
        case Kind::createFolder:
            return "Could not create the history folder " + path + " (" + errorText(errorNumber) +
                   ").";
        case Kind::openFile:
            return "Could not open the history file " + path + " (" + errorText(errorNumber) + ").";
        case Kind::writeFile:
            return "Could not write to the history file " + path + " (" + errorText(errorNumber) +
                   ").";
    }
    return "Could not write the history.";
}

HistoryStore::HistoryStore(std::string directory, std::shared_ptr<const HistoryCalendar> calendar)
    : directory_(std::move(directory)), calendar_(std::move(calendar)) {}

std::string HistoryStore::fileURL(double time) const {
    return directory_ + "/" + calendar_->date(time).text() + ".jsonl";
}

std::optional<double> HistoryStore::day(std::string_view fileName) const {
    static constexpr std::string_view kShape = "dddd-dd-dd.jsonl";
    if (fileName.size() != kShape.size()) return std::nullopt;
    for (size_t i = 0; i < kShape.size(); ++i) {
        const bool digit = fileName[i] >= '0' && fileName[i] <= '9';
        if (kShape[i] == 'd' ? !digit : fileName[i] != kShape[i]) return std::nullopt;
    }
    auto number = [&](size_t at, size_t len) {
        int n = 0;
        for (size_t i = at; i < at + len; ++i)
            n = n * 10 + (fileName[i] - '0');
        return n;
    };
    const auto date = CivilDate::make(number(0, 4), number(5, 2), number(8, 2));
    if (!date) return std::nullopt;
    return calendar_->startOfDay(*date);
}

bool HistoryStore::folderIsSafe() const {
    struct stat st {};
    if (::lstat(directory_.c_str(), &st) != 0) return errno == ENOENT;
    return S_ISDIR(st.st_mode);
}

double HistoryStore::cutoff(double now) const {
    return calendar_->startOfDay(calendar_->date(now).addingDays(-(retentionDays - 1)));
}

Result<Ok, HistoryError> HistoryStore::append(const HistoryEntry& entry) const {
    using Kind = HistoryError::Kind;
    if (!folderIsSafe()) return HistoryError{Kind::unsafeFolder, directory_, 0};
    if (auto failed = makeFolders(directory_))
        return HistoryError{Kind::createFolder, failed->first, failed->second};
    const Descriptor folder(openFolder(directory_));
    if (!folder) {
        if (errno == ELOOP || errno == ENOTDIR)
            return HistoryError{Kind::unsafeFolder, directory_, 0};
        return HistoryError{Kind::openFile, directory_, errno};
    }
    const std::string path = fileURL(entry.time);
    const std::string name = path.substr(directory_.size() + 1);
    // Non-blocking so that a pipe named like a day file fails instead of hanging.
    const Descriptor file(
        ::openat(folder.get(), name.c_str(),
                 O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!file) return HistoryError{Kind::openFile, path, errno};
    struct stat st {};
    if (::fstat(file.get(), &st) != 0) return HistoryError{Kind::openFile, path, errno};
    if (!S_ISREG(st.st_mode)) return HistoryError{Kind::openFile, path, EINVAL};

    std::string line = HistoryCodec::encode(entry);
    // A line cut short earlier (a crash mid-write) must not swallow this one.
    char last = '\n';
    if (st.st_size > 0 && ::pread(file.get(), &last, 1, st.st_size - 1) == 1 && last != '\n')
        line.insert(line.begin(), '\n');
    // One write of the whole line: appends from other processes never land inside it.
    if (!writeAll(file.get(), line)) return HistoryError{Kind::writeFile, path, errno};
    return Ok{};
}

void HistoryStore::forEachEntry(double now,
                                const std::function<void(const HistoryEntry&)>& visit) const {
    if (!folderIsSafe()) return;
    const Descriptor folder(openFolder(directory_));
    if (!folder) return;
    const double from = cutoff(now);
    HistoryLineDecoder decoder;
    HistoryEntry entry;
    for (const auto& name : namesIn(folder.get())) {
        const auto start = day(name);
        if (!start || *start < from) continue;
        const Descriptor file(
            ::openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat st {};
        if (!file || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        eachLine(file.get(), kMaxFileBytes, kMaxLineBytes, [&](std::string_view line) {
            if (decoder.decode(line, entry)) visit(entry);
        });
    }
}

std::vector<HistoryEntry> HistoryStore::read(double now) const {
    std::vector<HistoryEntry> entries;
    forEachEntry(now, [&](const HistoryEntry& e) { entries.push_back(e); });
    return entries;
}

std::vector<std::string> HistoryStore::prune(double now) const {
    std::vector<std::string> deleted;
    if (!folderIsSafe()) return deleted;
    const Descriptor folder(openFolder(directory_));
    if (!folder) return deleted;
    const double from = cutoff(now);
    for (const auto& name : namesIn(folder.get())) {
        const auto start = day(name);
        if (!start || *start >= from) continue;
        // Only regular files directly inside the folder; links and folders stay.
        struct stat st {};
        if (::fstatat(folder.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(st.st_mode))
            continue;
        if (::unlinkat(folder.get(), name.c_str(), 0) == 0) deleted.push_back(name);
    }
    return deleted;  // already sorted: the names were
}

std::string historyDirectory(const std::optional<std::string>& xdgStateHome,
                             const std::string& home) {
    std::string base = xdgStateHome && !xdgStateHome->empty() && xdgStateHome->front() == '/'
                           ? *xdgStateHome
                           : home + "/.local/state";
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    if (base == "/") base.clear();
    return base + "/wharfy/history";
}

bool HistoryRecorder::shouldRecord(const HistoryEntry& entry) {
    std::set<HistoryPort> signature(entry.ports.begin(), entry.ports.end());
    const bool accept = !lastTime || !lastSignature || *lastSignature != signature ||
                        entry.time - *lastTime >= interval;
    if (accept) lastTime = entry.time;
    lastSignature = std::move(signature);
    return accept;
}

}  // namespace wharfy
