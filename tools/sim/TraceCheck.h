#pragma once

// Reads a Trace Event Format file back with jsoncpp and checks that its slices pair up: every
// end on a thread closes a begin of that thread, no thread is left inside a slice, and every
// asynchronous end closes an open asynchronous begin of the same category, id and name.

#include <string>

#include "Summary.h"

namespace pelyx_sim {

// Names of the simulator's own slices start with one of these words; the rest are the library's.
bool isSimulatorSlice(const std::string& name);

TraceResult checkTrace(const std::string& path);

} // namespace pelyx_sim
