#pragma once

#include <string>
#include <vector>

namespace wharfy::bench {

/// Runs an external command to completion (no shell); used to time the
/// standard tools next to our own reads. Returns false if it could not run.
bool runTool(const std::string& executable, const std::vector<std::string>& arguments);

/// Starts the load generator when WHARFY_BENCH_LOAD="N:L:F" is set; stops it at exit.
void startLoadFromEnvironment();

/// Path of the wharfy executable built next to the benchmarks.
std::string wharfyPath();

}  // namespace wharfy::bench
