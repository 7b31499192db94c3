#pragma once

#include <cstdint>

namespace nemarro::process {

/// The ratio that turns the platform's CPU-time ticks into nanoseconds:
/// Mach absolute-time ticks on macOS, clock ticks (sysconf(_SC_CLK_TCK)) on Linux.
struct TickClock {
    uint64_t numer = 1;
    uint64_t denom = 1;

    bool operator==(const TickClock&) const = default;

    /// Exact conversion without overflowing the intermediate product:
    /// (t / denom) * numer + ((t % denom) * numer) / denom.
    /// A zero denominator or a result beyond 64 bits is a fatal error.
    uint64_t nanoseconds(uint64_t ticks) const;

    /// This platform's ratio, read once.
    static TickClock current();
};

}  // namespace nemarro::process
