#pragma once

// The command line of pelyx-sim and the changes it makes to a scenario.

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Scenario.h"

namespace pelyx_sim {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string scenarioPath;  // empty: the built-in scenario
    std::optional<double> durationS;
    std::optional<double> refreshHz;
    std::optional<uint32_t> seed;
    std::optional<double> phaseSplitS;
    std::optional<double> vsyncPhase;
    std::vector<std::pair<std::string, std::string>> loops;    // --loop LAYER=KIND[@FPS]
    std::vector<std::pair<std::string, std::string>> props;    // --prop KEY=VALUE, in order
    std::vector<std::pair<std::string, std::string>> replays;  // --replay LAYER=FILE
    std::string summaryPath;
    std::string tracePath;
    std::string logPath;
    std::string recordsPath;
    std::string framesPath;
    std::string sweepPath;
    std::optional<std::pair<int, int>> shard;  // --shard K/N: K from 0 to N-1
    bool merge = false;                        // --merge PART...: the parts are mergePaths
    std::vector<std::string> mergePaths;
    std::string recommendPath;                 // --recommend FILE: the sweep's hints file
    std::string hintsPath;                     // --hints FILE: a recommendation played into the scenario
    std::vector<std::pair<std::string, std::string>> packages;  // --package LAYER=PKG
    int jobs = 0;  // 0: the machine's cores
    bool realClock = false;  // --clock real: the host's clock and scheduler
    double watchdogS = 10.0;
    bool compare = false;
    bool disable = false;
    bool quiet = false;
    bool printDefault = false;
    bool help = false;
};

extern const char* const kUsage;

// Accepts "--name value" and "--name=value". Throws UsageError.
Options parseOptions(const std::vector<std::string>& args);

// "KIND" or "KIND@FPS" (FPS above 0, at most 1000; without it 0, the display's rate).
bool parseLoopOption(const std::string& text, AppLoop* loop, double* fps);

// Applies --duration, --refresh, --seed, --prop and --replay (reading the captures) and checks
// the result again. Throws ScenarioError (key: the option) or CaptureError.
void applyOverrides(Scenario& scenario, const Options& options);

// The arguments that make a child run play the same scenario (for --compare).
std::vector<std::string> scenarioArguments(const Options& options);

} // namespace pelyx_sim
