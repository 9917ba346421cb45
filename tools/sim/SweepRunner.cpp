#include "SweepRunner.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "ChildRuns.h"
#include "Scenario.h"
#include "Sweep.h"

namespace pelyx_sim {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

class SweepFailure : public std::runtime_error {
public:
    SweepFailure(int status, const std::string& what) : std::runtime_error(what), mStatus(status) {}
    int status() const { return mStatus; }

private:
    int mStatus;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw SweepFailure(kExitUsage, path + ": cannot open: " + strerror(errno));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

Json::Value parseJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["allowComments"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string errors;
    reader->parse(text.data(), text.data() + text.size(), &value, &errors);
    return value;
}

void writeJson(const std::string& path, const Json::Value& value) {
    if (!writeJsonFile(path, value)) throw SweepFailure(kExitFailed, path + ": cannot write");
}

// One child run to be played.
struct Job {
    std::string scenarioFile;
    uint32_t seed = 1;
    double vsyncPhase = 0;
    bool disabled = false;
    std::string name;
    // Filled in when it has run.
    bool ok = false;
    std::string error;
    Json::Value summary;
};

// Plays every job, `jobs` at a time, with a progress line on stderr.
void playJobs(const std::string& executable, const SweepSpec& plan, std::vector<Job>* jobs, int parallel,
              bool realClock, const std::string& dir, const std::string& what) {
    std::vector<ChildRun> runs;
    for (const Job& job : *jobs) {
        ChildRun run;
        run.args = {job.scenarioFile, "--seed", std::to_string(job.seed)};
        char text[32];
        if (plan.durationS) {
            snprintf(text, sizeof(text), "%.17g", *plan.durationS);
            run.args.insert(run.args.end(), {"--duration", text});
        }
        if (job.vsyncPhase != 0) {
            snprintf(text, sizeof(text), "%.17g", job.vsyncPhase);
            run.args.insert(run.args.end(), {"--vsync-phase", text});
        }
        for (const auto& [layer, file] : plan.replays) run.args.insert(run.args.end(), {"--replay", layer + "=" + file});
        if (job.disabled) run.args.push_back("--disable");
        if (realClock) run.args.insert(run.args.end(), {"--clock", "real"});
        run.summaryFile = dir + "/" + job.name + ".out.json";
        run.errorFile = dir + "/" + job.name + ".err";
        runs.push_back(run);
    }
    try {
        playChildRuns(executable, &runs, parallel, what);
    } catch (const std::runtime_error& e) {
        throw SweepFailure(kExitFailed, e.what());
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        (*jobs)[i].ok = runs[i].ok;
        (*jobs)[i].error = runs[i].error;
        (*jobs)[i].summary = runs[i].summary;
    }
}

std::string resolve(const std::string& path, const std::string& sweepFile) {
    if (path.empty() || path[0] == '/' || std::filesystem::exists(path)) return path;
    const std::filesystem::path beside = std::filesystem::path(sweepFile).parent_path() / path;
    return std::filesystem::exists(beside) ? beside.string() : path;
}

Json::Value spreadJson(const Spread& s) {
    auto num = [](double v) { return std::isnan(v) ? Json::Value() : Json::Value(std::round(v * 1000) / 1000); };
    Json::Value v(Json::objectValue);
    v["runs"] = s.runs;
    v["p50_ms"]["min"] = num(s.p50Min), v["p50_ms"]["mean"] = num(s.p50Mean), v["p50_ms"]["max"] = num(s.p50Max);
    v["late"]["min"] = num(s.lateMin), v["late"]["mean"] = num(s.lateMean), v["late"]["max"] = num(s.lateMax);
    return v;
}

std::string spreadText(const Spread& s) {
    char text[160];
    snprintf(text, sizeof(text), "p50 %.1f ms (%.1f-%.1f), janks %.1f (%.0f-%.0f) over %d runs", s.p50Mean,
             s.p50Min, s.p50Max, s.lateMean, s.lateMin, s.lateMax, s.runs);
    return text;
}

int sweep(const Options& options, const std::string& executable) {
    SweepSpec plan;
    try {
        plan = parseSweep(slurp(options.sweepPath));
    } catch (const ScenarioError& e) {
        throw SweepFailure(kExitUsage, options.sweepPath + ": " + e.key() + ": " + e.reason());
    }
    plan.scenarioPath = resolve(plan.scenarioPath, options.sweepPath);
    for (auto& [layer, file] : plan.replays) file = resolve(file, options.sweepPath);
    const std::string baseText = plan.scenarioPath.empty() ? kDefaultScenarioJson : slurp(plan.scenarioPath);
    const std::string baseLabel = plan.scenarioPath.empty() ? "(built-in scenario)" : plan.scenarioPath;
    try {
        parseScenario(baseText);
    } catch (const ScenarioError& e) {
        throw SweepFailure(kExitUsage, baseLabel + ": " + e.key() + ": " + e.reason());
    }
    const Json::Value base = parseJson(baseText);

    char dirTemplate[] = "/tmp/pelyx-sweep-XXXXXX";
    if (!mkdtemp(dirTemplate)) throw SweepFailure(kExitFailed, std::string("cannot create a directory: ") + strerror(errno));
    const std::string dir = dirTemplate;
    Json::StreamWriterBuilder writer;
    auto scenarioFile = [&](const std::string& name, const Json::Value& scenario) {
        const std::string path = dir + "/" + name + ".json";
        std::ofstream(path) << Json::writeString(writer, scenario) << "\n";
        return path;
    };

    const std::vector<Setting> settings = settingsOf(plan);
    std::vector<Job> jobs;
    for (size_t i = 0; i < settings.size(); ++i) {
        const Json::Value scenario = applySetting(base, plan, settings[i]);
        try {
            parseScenario(Json::writeString(writer, scenario));
        } catch (const ScenarioError& e) {
            throw SweepFailure(kExitUsage, options.sweepPath + ": setting " + settingLabel(plan, settings[i]) +
                                                   " makes the scenario invalid: " + e.key() + ": " + e.reason());
        }
        Job job;
        job.scenarioFile = scenarioFile("run-" + std::to_string(i + 1), scenario);
        job.seed = plan.seed;
        job.name = "run-" + std::to_string(i + 1);
        jobs.push_back(job);
    }
    const int parallel = options.jobs > 0 ? options.jobs : defaultJobs();
    fprintf(stderr, "pelyx-sim: sweep of %zu settings, %d at a time (runs in %s)\n", jobs.size(), parallel, dir.c_str());
    playJobs(executable, plan, &jobs, parallel, options.realClock, dir, "sweep");

    std::vector<SweepRun> runs(jobs.size());
    for (size_t i = 0; i < jobs.size(); ++i) {
        runs[i].setting = settings[i];
        runs[i].failed = !jobs[i].ok;
        runs[i].error = jobs[i].error;
        if (jobs[i].ok) {
            try {
                runs[i].metrics = metricsOf(jobs[i].summary, plan.layer);
            } catch (const std::exception& e) {
                throw SweepFailure(kExitUsage, options.sweepPath + ": layer: " + e.what());
            }
        }
    }
    const std::vector<size_t> order = rankRuns(&runs);
    std::cout << "pelyx-sim --sweep " << options.sweepPath << ": " << runs.size() << " settings of "
              << baseLabel << ", seed " << plan.seed << "; * no other run is better on latency, janks and boosts at once\n\n";
    printSweepTable(plan, runs, order, std::cout);
    if (runs[order[0]].failed) throw SweepFailure(kExitFailed, "every run failed; the first: " + runs[order[0]].error);

    // The best setting and the library switched off, again on other seeds.
    const size_t best = order[0];
    const std::string bestFile = options.summaryPath.empty()
            ? scenarioFile("best", applySetting(base, plan, runs[best].setting))
            : options.summaryPath + ".best-scenario.json";
    if (!options.summaryPath.empty()) writeJson(bestFile, applySetting(base, plan, runs[best].setting));
    std::vector<Job> again;
    // The best setting's own seed is played again too: a real-time run varies a little even on
    // the same seed, and the spread should show it. Each further seed also moves the vsyncs
    // against the scenario's times, so that a win that hangs on a phase shows in the spread.
    for (int k = 0; k <= plan.reruns; ++k) {
        for (bool disabled : {false, true}) {
            Job job;
            job.scenarioFile = disabled ? scenarioFile("baseline", base) : jobs[best].scenarioFile;
            job.seed = plan.seed + static_cast<uint32_t>(k);
            job.vsyncPhase = rerunVsyncPhase(k);
            job.disabled = disabled;
            job.name = std::string(disabled ? "baseline" : "best") + "-" + std::to_string(job.seed);
            again.push_back(job);
        }
    }
    // On real time the re-runs go one at a time, so that no run slows another.
    playJobs(executable, plan, &again, options.realClock ? 1 : parallel, options.realClock, dir, "re-runs");
    std::vector<SweepMetrics> bestMetrics{runs[best].metrics}, baseMetrics;
    for (const Job& job : again) {
        if (!job.ok) throw SweepFailure(kExitFailed, "a re-run failed: " + job.error);
        (job.disabled ? baseMetrics : bestMetrics).push_back(metricsOf(job.summary, plan.layer));
    }
    const Spread bestSpread = spreadOf(bestMetrics), baseSpread = spreadOf(baseMetrics);

    std::string command = "pelyx-sim " + bestFile + " --seed " + std::to_string(plan.seed);
    if (plan.durationS) {
        char duration[32];
        snprintf(duration, sizeof(duration), " --duration %g", *plan.durationS);
        command += duration;
    }
    for (const auto& [layer, file] : plan.replays) command += " --replay " + layer + "=" + file;
    std::cout << "\nbest setting (" << settingLabel(plan, runs[best].setting) << "), as the service pushes it:\n";
    for (const std::string& line : describeSetting(applySetting(base, plan, runs[best].setting), plan)) {
        std::cout << "  " << line << "\n";
    }
    std::cout << "reproduce: " << command << "\n";
    std::cout << "seeds " << plan.seed << " to " << plan.seed + static_cast<uint32_t>(plan.reruns)
              << ", the vsyncs moved by 0, 1/4, 1/2 and 3/4 of a period in turn:\n"
              << "  best setting:      " << spreadText(bestSpread) << "\n"
              << "  library disabled:  " << spreadText(baseSpread) << "\n";
    // Lower is better for both; each figure is judged on its own, since a setting may win one
    // and lose the other.
    auto against = [](const char* what, double bestMin, double bestMax, double baseMin, double baseMax) {
        const char* verdict = bestMax < baseMin ? "better than the baseline in every run"
                : bestMin > baseMax             ? "worse than the baseline in every run"
                                                : "within the noise of these seeds and phases";
        return std::string("  ") + what + ": " + verdict + "\n";
    };
    std::cout << against("p50", bestSpread.p50Min, bestSpread.p50Max, baseSpread.p50Min, baseSpread.p50Max)
              << against("janks", bestSpread.lateMin, bestSpread.lateMax, baseSpread.lateMin, baseSpread.lateMax);

    if (!options.summaryPath.empty()) {
        Json::Value out(Json::objectValue);
        out["schema"] = kSweepSchema;
        out["sweep"] = options.sweepPath;
        out["scenario"] = baseLabel;
        out["layer"] = plan.layer;
        out["seed"] = plan.seed;
        Json::Value list(Json::arrayValue);
        int rank = 0;
        for (size_t i : order) {
            const SweepRun& r = runs[i];
            Json::Value run = metricsJson(r.metrics);
            run["rank"] = r.failed ? Json::Value() : Json::Value(++rank);
            run["label"] = settingLabel(plan, r.setting);
            Json::Value pushes(Json::arrayValue);
            for (const std::string& line : describeSetting(applySetting(base, plan, r.setting), plan)) pushes.append(line);
            run["setting"] = pushes;
            run["non_dominated"] = r.nonDominated;
            run["janks"] = r.metrics.late;
            run["failed"] = r.failed;
            if (r.failed) run["error"] = r.error;
            list.append(run);
        }
        out["runs"] = list;
        Json::Value bestJson(Json::objectValue);
        bestJson["label"] = settingLabel(plan, runs[best].setting);
        bestJson["scenario_file"] = bestFile;
        bestJson["command"] = command;
        bestJson["spread"] = spreadJson(bestSpread);
        out["best"] = bestJson;
        out["baseline"]["spread"] = spreadJson(baseSpread);
        writeJson(options.summaryPath, out);
    }
    // The runs' files go; the best scenario stays when it was written here.
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ignored)) {
        if (entry.path().string() != bestFile) std::filesystem::remove(entry.path(), ignored);
    }
    std::filesystem::remove(dir, ignored);  // only when empty
    return 0;
}

} // namespace

int runSweep(const Options& options, const std::string& executable) {
    try {
        return sweep(options, executable);
    } catch (const SweepFailure& e) {
        fprintf(stderr, "pelyx-sim: error: %s\n", e.what());
        return e.status();
    }
}

} // namespace pelyx_sim
