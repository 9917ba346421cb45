#pragma once

// One run of a scenario against libpelyx.so, on the virtual clock or in real time. The calling
// thread is the main thread: it prepares the stand-in service, the properties and the fake devices, starts the
// library, the compositor, one render thread per layer and the timeline thread, prints the
// progress line while they run, stops them in order (apps first, with vsync still running so
// that held queue calls return), and gathers the result. One run per process: the library's
// singletons live as long as the process, and so does the virtual clock once started.

#include <optional>
#include <string>

#include "Options.h"
#include "Scenario.h"
#include "Summary.h"

namespace pelyx_sim {

struct RunSettings {
    bool libraryEnabled = true;  // false: the library's switches are turned off
    bool virtualClock = true;    // false: the host's clock and scheduler
    double watchdogS = 10.0;     // virtual clock: real seconds a thread may hold the turn
    bool progress = true;        // the progress line on stderr
    std::string tracePath;
    std::string logPath;
    std::string recordsPath;
    std::string framesPath;  // per-present CSV
    bool untilReplaysEnd = false;  // run on until every replay has been presented
    // With a scenario that names no phases: split the figures here instead of where the library
    // first acts (so that a run with the library off splits where the enabled run did).
    std::optional<double> phaseSplitS;
};

// Throws std::runtime_error when a file cannot be opened.
RunResult runScenario(const Scenario& scenario, const RunSettings& settings);

} // namespace pelyx_sim
