#pragma once

// Runs of pelyx-sim as child processes, several at a time: what --compare and --sweep play.

#include <json/json.h>

#include <string>
#include <vector>

namespace pelyx_sim {

struct ChildRun {
    std::vector<std::string> args;  // after the executable; "--quiet --summary FILE" are added
    std::string summaryFile;
    std::string errorFile;  // the child's stderr
    // Filled in when it has run: its summary, or the first line it printed on stderr.
    bool ok = false;
    std::string error;
    Json::Value summary;
};

// Plays every run, `jobs` at a time, with a progress line on stderr ("pelyx-sim: WHAT: n/m runs
// done"). Throws std::runtime_error when a child cannot be started.
void playChildRuns(const std::string& executable, std::vector<ChildRun>* runs, int jobs, const std::string& what);

// The vsync phase of the k-th run of a set that spreads a result over phases: 0, 1/4, 1/2, 3/4
// of a period, then round again.
constexpr double kPhaseRuns = 4;
inline double rerunVsyncPhase(int k) {
    return static_cast<double>(k % static_cast<int>(kPhaseRuns)) / kPhaseRuns;
}

// The machine's cores, at least one.
int defaultJobs();

} // namespace pelyx_sim
