// launchctl output: the job list ("PID\tStatus\tLabel" lines) and the
// keep-alive answer of `launchctl print`, and what is made of their labels.

#include <charconv>

#include "core/ports/service_labels.h"
#include "fuzz_check.h"

using wharfy::LaunchdJobs;
using wharfy::LaunchdLabels;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto text = wharfy::fuzz::asText(data, size);
    (void)LaunchdLabels::printSaysKeepAlive(text);

    const auto jobs = LaunchdJobs::parse(text);
    const LaunchdLabels labels;
    for (const auto& line : wharfy::fuzz::split(text, '\n')) {
        int32_t pid = 0;
        const char* end = line.data() + line.size();
        if (std::from_chars(line.data(), end, pid).ec != std::errc()) continue;
        auto label = jobs.label(pid);
        if (!label) continue;
        // A label is always the third field of some line.
        FUZZ_CHECK(text.find("\t" + *label) != std::string_view::npos);
        FUZZ_CHECK(label->find('\n') == std::string::npos);
        (void)labels.appName(*label, "process");
        const auto stop = labels.stopCommand(*label, 501);
        FUZZ_CHECK(stop.starts_with("brew services stop ") ||
                   stop.starts_with("launchctl bootout gui/501/"));
    }
    return 0;
}
