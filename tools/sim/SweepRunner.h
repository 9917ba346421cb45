#pragma once

// pelyx-sim --sweep and --merge: plays a sweep's runs (all of them, or one shard's) as child
// runs of this executable, up to `--jobs` at a time; writes a shard's part, or ranks the runs
// (its own, or the merged parts') and prints and writes the summary and the recommendation.
// Returns the exit status.

#include <string>

#include "Options.h"

namespace pelyx_sim {

int runSweep(const Options& options, const std::string& executable);

} // namespace pelyx_sim
