// pelyx-sim: plays a compositor, apps and the performance service against libpelyx.so, on a
// virtual clock or in real time, through the library's exported functions only. See kUsage and
// the README.

#include <json/json.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Capture.h"
#include "ChildRuns.h"
#include "Options.h"
#include "Scenario.h"
#include "Simulator.h"
#include "Summary.h"
#include "Sweep.h"
#include "SweepMerge.h"
#include "SweepRunner.h"

namespace pelyx_sim {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

[[noreturn]] void fail(int status, const std::string& message) {
    fprintf(stderr, "pelyx-sim: error: %s\n", message.c_str());
    exit(status);
}

std::string readFile(const std::string& path) {
    FILE* file = fopen(path.c_str(), "r");
    if (!file) fail(kExitUsage, path + ": cannot open: " + strerror(errno));
    std::string text;
    char buffer[65536];
    size_t n;
    while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, n);
    const int error = ferror(file) ? errno : 0;
    fclose(file);
    if (error) fail(kExitUsage, path + ": cannot read: " + strerror(error));
    return text;
}

Scenario loadScenario(const Options& options) {
    const std::string label = options.scenarioPath.empty() ? "(built-in scenario)" : options.scenarioPath;
    std::string text = options.scenarioPath.empty() ? kDefaultScenarioJson : readFile(options.scenarioPath);
    if (!options.packages.empty() || !options.hintsPath.empty()) {
        // Both change the scenario's text before it is read, as a sweep changes the scenarios it plays.
        Json::Value json;
        try {
            json = parseStrictJson(text);
            for (const auto& [layer, package] : options.packages) {
                json = renamePackage(json, rankedLayerOf(json, layer).second, package);
            }
        } catch (const ScenarioError& e) {
            fail(kExitUsage, label + ": " + (e.key() == "layer" ? "--package" : e.key()) + ": " + e.reason());
        }
        if (!options.hintsPath.empty()) {
            try {
                json = applyHints(json, parseStrictJson(readFile(options.hintsPath)));
            } catch (const ScenarioError& e) {
                fail(kExitUsage, options.hintsPath + ": " + e.key() + ": " + e.reason());
            }
        }
        Json::StreamWriterBuilder writer;
        text = Json::writeString(writer, json);
    }
    Scenario scenario;
    try {
        scenario = parseScenario(text);
    } catch (const ScenarioError& e) {
        fail(kExitUsage, label + ": " + e.key() + ": " + e.reason());
    }
    try {
        applyOverrides(scenario, options);
    } catch (const ScenarioError& e) {
        fail(kExitUsage, label + ": " + e.key() + ": " + e.reason());
    } catch (const CaptureError& e) {
        fail(kExitUsage, e.what());
    }
    return scenario;
}

void writeJson(const std::string& path, const Json::Value& value) {
    if (!writeJsonFile(path, value)) fail(kExitFailed, path + ": cannot write");
}

std::string selfPath() {
    char path[4096];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
    if (n <= 0) fail(kExitFailed, std::string("cannot find the executable: ") + strerror(errno));
    path[n] = '\0';
    return path;
}

// frames.csv -> frames.enabled.csv / frames.disabled.csv.
std::string comparedFrames(const std::string& path, bool enabled) {
    const std::string run = enabled ? ".enabled" : ".disabled";
    const size_t dot = path.rfind('.');
    const size_t slash = path.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return path + run;
    return path.substr(0, dot) + run + path.substr(dot);
}

// The kinds of app --compare plays in the first game's place.
struct Archetype {
    const char* name;
    const char* option;  // --loop's KIND[@FPS]
};
constexpr Archetype kArchetypes[] = {
        {"Choreographer app, 60 fps", "choreographer"},
        {"free-running game, blocks in dequeue", "free"},
        {"game that sets its own present times, 60 fps", "present_time"},
        {"game capped at 30 fps", "choreographer@30"},
};

// The layer whose kind of app --compare varies: the first game's, else the first layer's.
std::string comparedLayer(const Scenario& scenario) {
    for (const LayerSetup* l : scenario.layers()) {
        if (scenario.appOf(*l).game) return l->label;
    }
    return scenario.layers().front()->label;
}

// The pairs --compare plays: the scenario as it is, then each kind of app, each at every vsync
// phase of the spread (the k-th on the scenario's seed + k).
struct ComparedPair {
    std::string loop;  // empty: the scenario's own
    int k = 0;
    ChildRun enabled, disabled;
};

int compare(const Options& options, const Scenario& scenario) {
    char dir[] = "/tmp/pelyx-sim-XXXXXX";
    if (!mkdtemp(dir)) fail(kExitFailed, std::string("cannot create a temporary directory: ") + strerror(errno));
    const std::string layer = comparedLayer(scenario);
    std::vector<ComparedPair> pairs;
    std::vector<std::string> loops{""};
    for (const Archetype& a : kArchetypes) loops.push_back(a.option);
    for (const std::string& loop : loops) {
        for (int k = 0; k < static_cast<int>(kPhaseRuns); ++k) {
            ComparedPair p;
            p.loop = loop;
            p.k = k;
            std::vector<std::string> args = scenarioArguments(options);
            if (k > 0) {
                args.insert(args.end(), {"--seed", std::to_string(scenario.seed + static_cast<uint32_t>(k)), "--vsync-phase",
                                         std::to_string(rerunVsyncPhase(k))});
            }
            if (!loop.empty()) args.insert(args.end(), {"--loop", layer + "=" + loop});
            const std::string name = std::string(dir) + "/" + std::to_string(pairs.size());
            p.enabled.args = p.disabled.args = args;
            p.disabled.args.push_back("--disable");
            if (loop.empty() && k == 0 && !options.framesPath.empty()) {
                p.enabled.args.insert(p.enabled.args.end(), {"--frames", comparedFrames(options.framesPath, true)});
                p.disabled.args.insert(p.disabled.args.end(), {"--frames", comparedFrames(options.framesPath, false)});
            }
            p.enabled.summaryFile = name + ".enabled.json";
            p.enabled.errorFile = name + ".enabled.err";
            p.disabled.summaryFile = name + ".disabled.json";
            p.disabled.errorFile = name + ".disabled.err";
            pairs.push_back(p);
        }
    }
    const int jobs = options.jobs > 0 ? options.jobs : defaultJobs();
    auto play = [&](bool enabled) {
        std::vector<ChildRun> runs;
        for (const ComparedPair& p : pairs) runs.push_back(enabled ? p.enabled : p.disabled);
        try {
            playChildRuns(selfPath(), &runs, jobs, enabled ? "runs with the library enabled" : "runs with it disabled");
        } catch (const std::runtime_error& e) {
            fail(kExitFailed, e.what());
        }
        for (size_t i = 0; i < runs.size(); ++i) {
            if (!runs[i].ok) {
                fail(kExitFailed, std::string("a run with the library ") + (enabled ? "enabled" : "disabled") +
                                          " failed: " + runs[i].error);
            }
            (enabled ? pairs[i].enabled : pairs[i].disabled) = runs[i];
        }
    };
    play(true);
    // Each disabled run is split where its enabled twin first acted, unless the scenario names phases.
    for (ComparedPair& p : pairs) {
        const Json::Value& split = p.enabled.summary["first_act_s"];
        if (scenario.phases.empty() && split.isNumeric()) {
            p.disabled.args.insert(p.disabled.args.end(), {"--phase-split", std::to_string(split.asDouble())});
        }
    }
    play(false);
    std::filesystem::remove_all(dir);

    std::vector<std::pair<Json::Value, Json::Value>> otherPhases;
    std::vector<ArchetypeRuns> kinds;
    for (const ComparedPair& p : pairs) {
        if (p.loop.empty()) {
            if (p.k > 0) otherPhases.emplace_back(p.disabled.summary, p.enabled.summary);
            continue;
        }
        if (p.k == 0) {
            for (const Archetype& a : kArchetypes) {
                if (p.loop == a.option) kinds.push_back({a.name, a.option, {}});
            }
        }
        kinds.back().runs.emplace_back(p.disabled.summary, p.enabled.summary);
    }
    const Json::Value& off = pairs[0].disabled.summary;
    const Json::Value& on = pairs[0].enabled.summary;
    printComparison(off, on, std::cout, otherPhases);
    printArchetypes(layer, kinds, std::cout);
    if (!options.summaryPath.empty()) {
        Json::Value both(Json::objectValue);
        both["disabled"] = off;
        both["enabled"] = on;
        // The compared layer's figures in the other runs.
        auto layerOf = [&layer](const Json::Value& s) {
            for (const Json::Value& l : s["layers"]) {
                if (l["label"].asString() == layer) return l;
            }
            return Json::Value();
        };
        both["layer"] = layer;
        Json::Value runs(Json::arrayValue);
        for (const ComparedPair& p : pairs) {
            Json::Value run(Json::objectValue);
            run["loop"] = p.loop.empty() ? Json::Value() : Json::Value(p.loop);
            run["seed"] = scenario.seed + static_cast<uint32_t>(p.k);
            run["vsync_phase"] = p.k == 0 ? scenario.vsyncPhase : rerunVsyncPhase(p.k);
            run["disabled"] = layerOf(p.disabled.summary);
            run["enabled"] = layerOf(p.enabled.summary);
            runs.append(run);
        }
        both["runs"] = runs;
        writeJson(options.summaryPath, both);
    }
    return 0;
}

int run(const std::vector<std::string>& args) {
    Options options;
    try {
        options = parseOptions(args);
    } catch (const UsageError& e) {
        fprintf(stderr, "pelyx-sim: error: %s (pelyx-sim --help for usage)\n", e.what());
        return kExitUsage;
    }
    if (options.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (options.printDefault) {
        fputs(kDefaultScenarioJson, stdout);
        return 0;
    }
    if (!options.sweepPath.empty() || options.merge) return runSweep(options, selfPath());
    const Scenario scenario = loadScenario(options);
    if (options.compare) return compare(options, scenario);

    RunSettings settings;
    settings.libraryEnabled = !options.disable;
    settings.progress = !options.quiet;
    settings.tracePath = options.tracePath;
    settings.logPath = options.logPath;
    settings.recordsPath = options.recordsPath;
    settings.framesPath = options.framesPath;
    settings.untilReplaysEnd = !options.replays.empty() && !options.durationS;
    settings.phaseSplitS = options.phaseSplitS;
    settings.virtualClock = !options.realClock;
    settings.watchdogS = options.watchdogS;
    RunResult result;
    try {
        result = runScenario(scenario, settings);
    } catch (const std::exception& e) {
        fail(kExitUsage, e.what());
    }
    const Json::Value summary = toJson(result);
    const std::vector<std::string> problems = checkSummary(summary);
    for (const std::string& p : problems) fprintf(stderr, "pelyx-sim: summary: %s\n", p.c_str());
    if (!options.summaryPath.empty()) writeJson(options.summaryPath, summary);
    if (!options.quiet) printReport(summary, std::cout);
    std::cout.flush();
    fflush(stderr);
    if (!result.failures.empty()) {
        for (const std::string& f : result.failures) fprintf(stderr, "pelyx-sim: %s\n", f.c_str());
        _exit(kExitFailed);  // a thread is still inside the library: nothing can be torn down
    }
    return problems.empty() ? 0 : kExitFailed;
}

} // namespace
} // namespace pelyx_sim

int main(int argc, char** argv) {
    return pelyx_sim::run(std::vector<std::string>(argv + 1, argv + argc));
}
