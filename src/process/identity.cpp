#include "process/identity.h"

#include <sys/stat.h>

#include "process/process_reader.h"

namespace nemarro::process {

std::string ProcessIdentity::text() const {
    return std::to_string(pid) + "@" + std::to_string(startTime);
}

std::optional<ProcessIdentity> ProcessIdentity::current(int32_t pid) {
    auto start = ProcessReader::startTime(pid);
    if (!start) return std::nullopt;
    return ProcessIdentity{pid, *start};
}

std::string FileIdentity::text() const {
    return std::to_string(device) + ":" + std::to_string(inode);
}

std::optional<FileIdentity> FileIdentity::of(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
    return FileIdentity{static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)};
}

}  // namespace nemarro::process
