#include "Options.h"

#include <cerrno>
#include <cstdio>
#include <cmath>
#include <cstdlib>
#include <memory>

#include "Capture.h"

namespace pelyx_sim {

const char* const kUsage = R"(usage: pelyx-sim [SCENARIO.json] [options]

Plays a compositor, apps and the performance service against libpelyx.so, on a virtual clock
(deterministic: the same inputs give the same outputs) or in real time. Without SCENARIO.json
the built-in scenario runs (10 simulated seconds).

options:
  --duration S         run for S seconds (default: the scenario's; with --replay, until the
                       captures have been replayed to their end)
  --refresh HZ         display refresh rate (overrides the scenario's)
  --replay LAYER=FILE  LAYER (label or id) replays a capture's frame intervals as its
                       per-frame work time: a PresentMon/OCAT/CapFrameX CSV, the output of
                       `dumpsys SurfaceFlinger --latency` or `dumpsys gfxinfo PKG framestats`,
                       or FILE:COLUMN for any CSV column in ms
  --prop KEY=VALUE     sets a property before start (after the scenario's)
  --seed N             seed of the work-time models
  --phase-split S      with a scenario that names no phases: split the figures at S seconds
                       (default: where the library first acts)
  --vsync-phase F      moves the vsyncs F of a period (0 to 1) earlier against the scenario's
                       hints, touches and app starts
  --loop LAYER=KIND[@FPS]  LAYER's app starts its frames as KIND: choreographer (at vsyncs),
                       free (as fast as its buffers allow) or present_time (each buffer with
                       its own present time), at most FPS a second (default: the display's)
  --summary FILE       writes the JSON summary
  --trace FILE         writes a Trace Event Format trace (opens in the Perfetto UI); turns the
                       library's debug switch on unless a scenario or --prop sets it
  --log FILE           writes every library log line to FILE
  --records FILE       writes what the library did, in time order: its calls into the service,
                       GPU boosts, fence deadline requests, buffer holds and log lines
  --frames FILE        writes one CSV row per presented frame (times, latencies, verdicts);
                       with --compare, FILE's name with .enabled and .disabled before .csv
  --package LAYER=PKG  the app of LAYER takes package PKG (the hints that name its package
                       follow); before --hints
  --hints FILE         plays a sweep's recommendation (--recommend) into the scenario: each
                       of its packages that an app has gets that package's hints and properties
  --sweep SWEEP.json   plays every setting of a sweep file on each of its entries and seeds
                       (see the README), ranks them over the entries and recommends one per
                       game package
  --shard K/N          with --sweep: plays only the K-th (0 to N-1) of N fixed slices of the
                       runs and writes them as a part to --summary
  --merge PART...      ranks and recommends from the parts of every shard of one sweep; the
                       same output as the sweep played on one machine
  --recommend FILE     with --sweep or --merge: writes the recommendation (the hints file)
  --jobs N             runs at a time for --sweep and --compare (default: the machine's cores)
  --compare            runs the scenario library enabled then disabled (split into the same
                       phases) and prints the differences side by side; then the same for four
                       kinds of app in the first game's place, each at four vsync phases
  --clock virtual|real virtual (default): one thread runs at a time on a simulated clock, so a
                       run is a function of its scenario, seed and options and takes a fraction
                       of its simulated time; real: the host's clock and scheduler
  --watchdog S         on the virtual clock, a thread that holds the turn S seconds of real
                       time without reaching a wait ends the run with status 1 (default 10)
  --disable            runs with the library switched off
  --quiet              no progress line and no report
  --print-default      prints the built-in scenario and exits
  -h, --help           this text

exit status: 0 done, 1 the run failed, 2 bad command line, scenario or capture
)";

namespace {

double parseNumber(const std::string& option, const std::string& text) {
    errno = 0;
    char* end = nullptr;
    const double value = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !std::isfinite(value)) {
        throw UsageError(option + ": not a number: \"" + text + "\"");
    }
    return value;
}

std::pair<std::string, std::string> splitAssignment(const std::string& option,
                                                    const std::string& text) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0) {
        throw UsageError(option + ": expected NAME=VALUE, got \"" + text + "\"");
    }
    return {text.substr(0, eq), text.substr(eq + 1)};
}

} // namespace

bool parseLoopOption(const std::string& text, AppLoop* loop, double* fps) {
    const size_t at = text.find('@');
    double rate = 0;
    if (at != std::string::npos) {
        try {
            rate = parseNumber("", text.substr(at + 1));
        } catch (const UsageError&) {
            return false;
        }
        if (rate <= 0 || rate > 1000) return false;
    }
    if (!parseLoop(text.substr(0, at), loop)) return false;
    *fps = rate;
    return true;
}

Options parseOptions(const std::vector<std::string>& args) {
    Options o;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        std::string inlineValue;
        bool hasInline = false;
        if (arg.compare(0, 2, "--") == 0) {
            const size_t eq = arg.find('=');
            if (eq != std::string::npos) {
                inlineValue = arg.substr(eq + 1);
                arg = arg.substr(0, eq);
                hasInline = true;
            }
        }
        auto value = [&]() -> std::string {
            if (hasInline) return inlineValue;
            if (i + 1 >= args.size()) throw UsageError(arg + ": needs a value");
            return args[++i];
        };
        auto file = [&]() {
            std::string name = value();
            if (name.empty()) throw UsageError(arg + ": needs a file name");
            return name;
        };
        auto flag = [&](bool& target) {
            if (hasInline) throw UsageError(arg + ": takes no value");
            target = true;
        };
        if (arg == "-h" || arg == "--help") {
            flag(o.help);
        } else if (arg == "--duration") {
            const double d = parseNumber(arg, value());
            if (d <= 0 || d > 3600) throw UsageError(arg + ": must be above 0 and at most 3600");
            o.durationS = d;
        } else if (arg == "--refresh") {
            const double hz = parseNumber(arg, value());
            if (hz <= 0 || hz > 480) throw UsageError(arg + ": must be above 0 and at most 480");
            o.refreshHz = hz;
        } else if (arg == "--seed") {
            const double seed = parseNumber(arg, value());
            if (seed < 0 || seed > 4294967295.0 || seed != std::floor(seed)) {
                throw UsageError(arg + ": must be a whole number from 0 to 4294967295");
            }
            o.seed = static_cast<uint32_t>(seed);
        } else if (arg == "--prop") {
            o.props.push_back(splitAssignment(arg, value()));
        } else if (arg == "--replay") {
            auto replay = splitAssignment(arg, value());
            if (replay.second.empty()) throw UsageError(arg + ": no capture file given");
            o.replays.push_back(replay);
        } else if (arg == "--phase-split") {
            const double at = parseNumber(arg, value());
            if (at < 0 || at > 3600) throw UsageError(arg + ": must be from 0 to 3600");
            o.phaseSplitS = at;
        } else if (arg == "--vsync-phase") {
            const double f = parseNumber(arg, value());
            if (f < 0 || f >= 1) throw UsageError(arg + ": must be at least 0 and below 1");
            o.vsyncPhase = f;
        } else if (arg == "--loop") {
            auto loop = splitAssignment(arg, value());
            AppLoop kind;
            double fps = 0;
            if (!parseLoopOption(loop.second, &kind, &fps)) {
                throw UsageError(arg + ": expected LAYER=KIND[@FPS] with KIND choreographer, free or present_time, got \"" +
                                 loop.second + "\"");
            }
            o.loops.push_back(loop);
        } else if (arg == "--summary") {
            o.summaryPath = file();
        } else if (arg == "--trace") {
            o.tracePath = file();
        } else if (arg == "--log") {
            o.logPath = file();
        } else if (arg == "--records") {
            o.recordsPath = file();
        } else if (arg == "--frames") {
            o.framesPath = file();
        } else if (arg == "--sweep") {
            o.sweepPath = file();
        } else if (arg == "--shard") {
            const std::string text = value();
            const size_t slash = text.find('/');
            double k = -1, n = 0;
            try {
                if (slash != std::string::npos) k = parseNumber(arg, text.substr(0, slash)), n = parseNumber(arg, text.substr(slash + 1));
            } catch (const UsageError&) {
                k = -1;
            }
            if (k < 0 || n < 1 || n > 100000 || k >= n || k != std::floor(k) || n != std::floor(n)) {
                throw UsageError(arg + ": expected K/N with 0 <= K < N, got \"" + text + "\"");
            }
            o.shard = std::make_pair(static_cast<int>(k), static_cast<int>(n));
        } else if (arg == "--merge") {
            flag(o.merge);
        } else if (arg == "--recommend") {
            o.recommendPath = file();
        } else if (arg == "--hints") {
            o.hintsPath = file();
        } else if (arg == "--package") {
            auto package = splitAssignment(arg, value());
            if (package.second.empty()) throw UsageError(arg + ": no package given");
            o.packages.push_back(package);
        } else if (arg == "--jobs") {
            const double jobs = parseNumber(arg, value());
            if (jobs < 1 || jobs > 64 || jobs != std::floor(jobs)) throw UsageError(arg + ": must be a whole number from 1 to 64");
            o.jobs = static_cast<int>(jobs);
        } else if (arg == "--clock") {
            const std::string clock = value();
            if (clock != "virtual" && clock != "real") throw UsageError(arg + ": must be virtual or real");
            o.realClock = clock == "real";
        } else if (arg == "--watchdog") {
            const double s = parseNumber(arg, value());
            if (s <= 0 || s > 3600) throw UsageError(arg + ": must be above 0 and at most 3600");
            o.watchdogS = s;
        } else if (arg == "--compare") {
            flag(o.compare);
        } else if (arg == "--disable") {
            flag(o.disable);
        } else if (arg == "--quiet") {
            flag(o.quiet);
        } else if (arg == "--print-default") {
            flag(o.printDefault);
        } else if (arg.size() > 1 && arg[0] == '-') {
            throw UsageError("unknown option " + arg);
        } else if (o.merge) {
            o.mergePaths.push_back(arg);
        } else if (o.scenarioPath.empty()) {
            o.scenarioPath = arg;
        } else {
            throw UsageError("more than one scenario file: " + o.scenarioPath + ", " + arg);
        }
    }
    if (o.merge) {
        // Parts given before --merge count too.
        if (!o.scenarioPath.empty()) o.mergePaths.insert(o.mergePaths.begin(), o.scenarioPath);
        o.scenarioPath.clear();
        if (o.mergePaths.empty()) throw UsageError("--merge: no part given");
    }
    const bool playsOne = o.compare || o.disable || !o.scenarioPath.empty() || !o.tracePath.empty() ||
            !o.framesPath.empty() || !o.logPath.empty() || !o.recordsPath.empty() || !o.replays.empty() ||
            !o.props.empty() || o.durationS ||
            o.seed || o.refreshHz || o.vsyncPhase || !o.loops.empty() || !o.hintsPath.empty() || !o.packages.empty();
    if (o.merge && (!o.sweepPath.empty() || playsOne || o.shard || o.jobs || o.realClock)) {
        throw UsageError("--merge takes everything from its parts; only --summary, --recommend and --quiet go with it");
    }
    if (o.shard && (o.sweepPath.empty() || o.summaryPath.empty() || !o.recommendPath.empty())) {
        throw UsageError("--shard goes with --sweep and --summary (the part), and without --recommend (the merge's)");
    }
    if (!o.recommendPath.empty() && o.sweepPath.empty() && !o.merge) {
        throw UsageError("--recommend goes with --sweep or --merge");
    }
    if (o.compare && o.disable) throw UsageError("--compare and --disable exclude each other");
    if (!o.sweepPath.empty() && playsOne) {
        throw UsageError("--sweep takes its scenario and settings from the sweep file; only --jobs, --clock, "
                         "--shard, --summary, --recommend and --quiet go with it");
    }
    if (o.compare && (!o.tracePath.empty() || !o.logPath.empty() || !o.recordsPath.empty())) {
        throw UsageError("--compare writes no trace, log or records file");
    }
    return o;
}

void applyOverrides(Scenario& s, const Options& o) {
    if (o.durationS) s.durationS = *o.durationS;
    if (o.refreshHz) s.refreshHz = *o.refreshHz;
    if (o.seed) s.seed = *o.seed;
    if (o.vsyncPhase) s.vsyncPhase = *o.vsyncPhase;
    for (const auto& [layerKey, kind] : o.loops) {
        LayerSetup* layer = s.findLayer(layerKey);
        if (!layer) throw ScenarioError("--loop", "no layer is labelled or numbered \"" + layerKey + "\"");
        parseLoopOption(kind, &layer->loop, &layer->fpsCap);
    }
    for (const auto& [key, value] : o.props) s.setProperty(key, value);
    for (const auto& [layerKey, file] : o.replays) {
        LayerSetup* layer = s.findLayer(layerKey);
        if (!layer) throw ScenarioError("--replay", "no layer is labelled or numbered \"" + layerKey + "\"");
        Capture capture = readCapture(file);
        layer->work.replayFile = file;
        layer->work.replayMs = std::make_shared<const std::vector<double>>(std::move(capture.intervalsMs));
    }
    validateScenario(s);
}

std::vector<std::string> scenarioArguments(const Options& o) {
    std::vector<std::string> args;
    if (!o.scenarioPath.empty()) args.push_back(o.scenarioPath);
    auto number = [](double v) {
        char text[64];
        snprintf(text, sizeof(text), "%.17g", v);
        return std::string(text);
    };
    if (o.durationS) args.insert(args.end(), {"--duration", number(*o.durationS)});
    if (o.refreshHz) args.insert(args.end(), {"--refresh", number(*o.refreshHz)});
    if (o.seed) args.insert(args.end(), {"--seed", std::to_string(*o.seed)});
    if (o.vsyncPhase) args.insert(args.end(), {"--vsync-phase", number(*o.vsyncPhase)});
    for (const auto& [k, v] : o.loops) args.insert(args.end(), {"--loop", k + "=" + v});
    if (o.realClock) args.insert(args.end(), {"--clock", "real"});
    if (o.watchdogS != 10.0) args.insert(args.end(), {"--watchdog", number(o.watchdogS)});
    for (const auto& [k, v] : o.props) args.insert(args.end(), {"--prop", k + "=" + v});
    for (const auto& [k, v] : o.replays) args.insert(args.end(), {"--replay", k + "=" + v});
    for (const auto& [k, v] : o.packages) args.insert(args.end(), {"--package", k + "=" + v});
    if (!o.hintsPath.empty()) args.insert(args.end(), {"--hints", o.hintsPath});
    return args;
}

} // namespace pelyx_sim
