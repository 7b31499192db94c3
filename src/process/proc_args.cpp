#include <cstring>

#include "common/text.h"
#include "process/process_reader.h"

namespace nemarro::process {

std::optional<std::vector<std::string>> parseProcArgs(std::span<const std::byte> buffer) {
    if (buffer.size() < 4) return std::nullopt;
    int32_t argc = 0;
    std::memcpy(&argc, buffer.data(), 4);
    std::vector<std::string> args;
    if (argc < 1) return args;
    const char* data = reinterpret_cast<const char*>(buffer.data());
    const size_t n = buffer.size();
    size_t pos = 4;
    while (pos < n && data[pos] != '\0')
        ++pos;  // executable path
    if (pos >= n) return args;
    while (pos < n && data[pos] == '\0')
        ++pos;  // padding
    if (pos >= n) return args;
    while (pos < n && args.size() < static_cast<size_t>(argc)) {
        size_t end = pos;
        while (end < n && data[end] != '\0')
            ++end;
        args.push_back(wharfy::repairUtf8(std::string_view(data + pos, end - pos)));
        pos = end + 1;
    }
    return args;
}

}  // namespace nemarro::process
