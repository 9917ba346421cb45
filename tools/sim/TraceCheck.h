#pragma once

// Reads a Trace Event Format file back with jsoncpp and checks that its slices pair up: every
// end on a thread closes a begin of that thread, no thread is left inside a slice, and every
// asynchronous end closes an open asynchronous begin of the same category, id and name.

#include <string>

#include "Summary.h"

namespace pelyx_sim {

// The simulator's own slices (its apps, compositor and touches) share the trace with the
// library's, told apart by name.
bool isSimulatorSlice(const std::string& name);

TraceResult checkTrace(const std::string& path);

} // namespace pelyx_sim
