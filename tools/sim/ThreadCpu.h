#pragma once

#include <map>
#include <string>

namespace pelyx_sim {

// CPU time (ms) so far of this process's threads with the given names, summed per name, from
// /proc/self/task/*/schedstat (nanoseconds on the CPU) or, where that is missing, the tick
// counts of /proc/self/task/*/stat.
std::map<std::string, double> threadCpuMs(const std::initializer_list<const char*>& names);

} // namespace pelyx_sim
