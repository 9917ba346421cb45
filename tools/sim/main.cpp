// pelyx-sim: plays a compositor, apps and the performance service against libpelyx.so, on a
// virtual clock or in real time, through the library's exported functions only. See kUsage and
// the README.

#include <json/json.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Capture.h"
#include "Options.h"
#include "Scenario.h"
#include "Simulator.h"
#include "Summary.h"
#include "SweepRunner.h"

extern char** environ;

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
    const std::string text = options.scenarioPath.empty() ? kDefaultScenarioJson : readFile(options.scenarioPath);
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

Json::Value readJson(const std::string& path) {
    std::ifstream in(path);
    Json::CharReaderBuilder builder;
    Json::Value value;
    std::string errors;
    if (!in || !Json::parseFromStream(builder, in, &value, &errors)) {
        fail(kExitFailed, path + ": cannot read the summary");
    }
    return value;
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

// One child run of --compare; returns its summary.
Json::Value childRun(const Options& options, bool enabled, const std::string& summaryPath,
                     const Json::Value& splitS = Json::Value()) {
    std::vector<std::string> args{selfPath()};
    for (const std::string& a : scenarioArguments(options)) args.push_back(a);
    args.insert(args.end(), {"--quiet", "--summary", summaryPath});
    if (!enabled) args.push_back("--disable");
    if (splitS.isNumeric()) args.insert(args.end(), {"--phase-split", std::to_string(splitS.asDouble())});
    if (!options.framesPath.empty()) args.insert(args.end(), {"--frames", comparedFrames(options.framesPath, enabled)});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ);
    if (error != 0) fail(kExitFailed, std::string("cannot start a run: ") + strerror(error));
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fail(kExitFailed, std::string("the run with the library ") + (enabled ? "enabled" : "disabled") +
                                  " failed");
    }
    return readJson(summaryPath);
}

int compare(const Options& options, const Scenario& scenario) {
    char dir[] = "/tmp/pelyx-sim-XXXXXX";
    if (!mkdtemp(dir)) fail(kExitFailed, std::string("cannot create a temporary directory: ") + strerror(errno));
    const std::string offPath = std::string(dir) + "/disabled.json";
    const std::string onPath = std::string(dir) + "/enabled.json";
    fprintf(stderr, "pelyx-sim: run 1/2, library enabled (%.1f s)\n", scenario.durationS);
    const Json::Value on = childRun(options, true, onPath);
    // Both runs are split where the enabled one first acted, unless the scenario names phases.
    const Json::Value split = scenario.phases.empty() ? on["first_act_s"] : Json::Value();
    fprintf(stderr, "pelyx-sim: run 2/2, library disabled (%.1f s)\n", scenario.durationS);
    const Json::Value off = childRun(options, false, offPath, split);
    unlink(offPath.c_str());
    unlink(onPath.c_str());
    rmdir(dir);
    printComparison(off, on, std::cout);
    if (!options.summaryPath.empty()) {
        Json::Value both(Json::objectValue);
        both["disabled"] = off;
        both["enabled"] = on;
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
    if (!options.sweepPath.empty()) return runSweep(options, selfPath());
    const Scenario scenario = loadScenario(options);
    if (options.compare) return compare(options, scenario);

    RunSettings settings;
    settings.libraryEnabled = !options.disable;
    settings.progress = !options.quiet;
    settings.tracePath = options.tracePath;
    settings.logPath = options.logPath;
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
