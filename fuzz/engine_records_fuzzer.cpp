// Engine response bodies: every decoder must give a record or a DecodeError
// for any bytes (an exception escaping is a crash here), and the sums shown
// to the user must stay defined and non-negative.

#include "core/containers/engine_records.h"
#include "fuzz_check.h"

using wharfy::EngineDecoder;

namespace {

template <typename R>
void checkRefusal(const R& result) {
    if (!result.ok()) FUZZ_CHECK(!result.error().description.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto body = wharfy::fuzz::asText(data, size);

    checkRefusal(EngineDecoder::version(body));
    checkRefusal(EngineDecoder::imageIDs(body));
    checkRefusal(EngineDecoder::inspectedState(body));

    auto containers = EngineDecoder::containers(body);
    checkRefusal(containers);
    if (containers) {
        for (const auto& c : containers.value()) {
            FUZZ_CHECK(!(c.isRunning() && c.isStopped()));
            FUZZ_CHECK(!c.names.empty() || c.name() == c.id.substr(0, 12));
        }
    }

    auto usage = EngineDecoder::diskUsage(body);
    checkRefusal(usage);
    if (usage) {
        const auto& u = usage.value();
        FUZZ_CHECK(u.imagesSize() >= 0);
        FUZZ_CHECK(u.volumesSize() >= 0);
        FUZZ_CHECK(u.reclaimableBuildCache() >= 0);
        FUZZ_CHECK(u.stoppedContainers().size() <= u.containers.size());
        for (const auto& v : u.unusedVolumes())
            FUZZ_CHECK(v.refCount == 0);
    }
    return 0;
}
