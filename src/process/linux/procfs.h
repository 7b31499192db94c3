#pragma once

// Low-level reads of /proc shared by the Linux readers. Paths are resolved
// relative to one descriptor of /proc opened once per process.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace nemarro::process::linux {

/// The descriptor of /proc, opened once; -1 when /proc is unavailable.
int procDir();

/// Boot time in seconds since the epoch, read once.
uint64_t bootTime();

/// Clock ticks per second, read once.
uint64_t ticksPerSecond();

/// Reads a small /proc file (stat, statm, io, status) into `buffer` in one go.
std::optional<std::string_view> readSmall(const char* relativePath, char* buffer, size_t capacity);

/// Reads a /proc file of any size into `out`.
bool readAll(const char* relativePath, std::string& out);

/// readlink relative to /proc; absent on failure.
std::optional<std::string> readLink(const char* relativePath);

}  // namespace nemarro::process::linux
