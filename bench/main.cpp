#include <benchmark/benchmark.h>

#include "load.h"

int main(int argc, char** argv) {
    wharfy::bench::startLoadFromEnvironment();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
