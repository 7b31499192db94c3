// libFuzzer target for the glance codec. Any bytes, read under every
// catalog file name: decoding never crashes, and a record it accepts is
// written again and read back as itself (its numbers rounded to cents, as
// written), and writing that again gives the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "suite/glance_codec.h"

using namespace nemarro::suite;

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    for (SuiteApp name : allSuiteApps) {
        const GlanceReadResult result = GlanceCodec::decode(bytes, glanceFileName(name));
        const auto* record = std::get_if<GlanceRecord>(&result);
        if (!record) continue;
        check(record->app == name);
        auto written = GlanceCodec::encode(*record);
        check(written.ok());
        GlanceRecord expected = *record;
        for (GlanceMetric& metric : expected.metrics)
            if (double* n = std::get_if<double>(&metric.value)) *n = GlanceCodec::roundedValue(*n);
        const GlanceReadResult again = GlanceCodec::decode(written.value(), glanceFileName(name));
        check(again == GlanceReadResult{expected});
        auto rewritten = GlanceCodec::encode(expected);
        check(rewritten.ok() && rewritten.value() == written.value());
    }
    return 0;
}
