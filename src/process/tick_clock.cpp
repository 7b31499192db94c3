#include "process/tick_clock.h"

#include <cstdio>
#include <cstdlib>

namespace nemarro::process {
namespace {
[[noreturn]] void fatal(const char* what) {
    std::fprintf(stderr, "TickClock: %s\n", what);
    std::abort();
}
}  // namespace

uint64_t TickClock::nanoseconds(uint64_t ticks) const {
    if (denom == 0) fatal("zero denominator");
    const uint64_t q = ticks / denom;
    const uint64_t r = ticks % denom;
    uint64_t whole = 0, partProduct = 0, result = 0;
    if (__builtin_mul_overflow(q, numer, &whole)) fatal("overflow");
    if (__builtin_mul_overflow(r, numer, &partProduct)) fatal("overflow");
    if (__builtin_add_overflow(whole, partProduct / denom, &result)) fatal("overflow");
    return result;
}

}  // namespace nemarro::process
