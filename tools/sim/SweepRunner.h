#pragma once

// pelyx-sim --sweep: plays every setting of a sweep file as a child run of this executable, up
// to `--jobs` at a time, ranks them, re-runs the best and the baseline on other seeds, and
// prints (and with --summary writes) the result. Returns the exit status.

#include <string>

#include "Options.h"

namespace pelyx_sim {

int runSweep(const Options& options, const std::string& executable);

} // namespace pelyx_sim
