#include "ThreadCpu.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace pelyx_sim {
namespace {

std::string threadName(const std::string& task) {
    std::ifstream comm("/proc/self/task/" + task + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

double cpuMs(const std::string& task) {
    std::ifstream schedstat("/proc/self/task/" + task + "/schedstat");
    double onCpuNs = 0;
    if ((schedstat >> onCpuNs) && onCpuNs > 0) return onCpuNs / 1e6;
    // Fields 14 and 15 of stat, after the parenthesised name (which may hold spaces).
    std::ifstream stat("/proc/self/task/" + task + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    double utime = 0, stime = 0;
    for (int i = 3; i <= 15 && (fields >> field); i++) {
        if (i == 14) utime = std::stod(field);
        if (i == 15) stime = std::stod(field);
    }
    return (utime + stime) * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

} // namespace

std::map<std::string, double> threadCpuMs(const std::initializer_list<const char*>& names) {
    std::map<std::string, double> out;
    for (const char* name : names) out[name] = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return out;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        const std::string task = entry->d_name;
        auto it = out.find(threadName(task));
        if (it != out.end()) it->second += cpuMs(task);
    }
    closedir(dir);
    return out;
}

} // namespace pelyx_sim
