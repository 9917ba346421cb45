#include "SweepRunner.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "Scenario.h"
#include "Sweep.h"

extern char** environ;

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
    bool disabled = false;
    std::string summaryFile;
    std::string errorFile;
    // Filled in when it has run.
    bool ok = false;
    std::string error;
    Json::Value summary;
};

class Runner {
public:
    Runner(std::string executable, const SweepSpec& plan, int jobs, bool realClock)
          : mExecutable(std::move(executable)), mPlan(plan), mJobs(std::max(1, jobs)), mRealClock(realClock) {}

    // Plays every job, `mJobs` at a time, with a progress line on stderr.
    void run(std::vector<Job>* jobs, const std::string& what) {
        const auto start = std::chrono::steady_clock::now();
        std::map<pid_t, size_t> running;
        size_t next = 0, done = 0;
        const bool tty = isatty(STDERR_FILENO);
        while (done < jobs->size()) {
            while (running.size() < static_cast<size_t>(mJobs) && next < jobs->size()) {
                running[spawn((*jobs)[next])] = next;
                ++next;
            }
            int status = 0;
            const pid_t pid = waitpid(-1, &status, 0);
            if (pid < 0) {
                if (errno == EINTR) continue;
                throw SweepFailure(kExitFailed, std::string("waiting for a run: ") + strerror(errno));
            }
            auto it = running.find(pid);
            if (it == running.end()) continue;
            finish(&(*jobs)[it->second], status);
            running.erase(it);
            ++done;
            const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            const double left = elapsed / static_cast<double>(done) * static_cast<double>(jobs->size() - done);
            fprintf(stderr, "%spelyx-sim: %s: %zu/%zu runs done, %.0f s so far, about %.0f s left%s",
                    tty ? "\r" : "", what.c_str(), done, jobs->size(), elapsed, left, tty ? "\033[K" : "\n");
        }
        if (tty) fprintf(stderr, "\n");
    }

private:
    pid_t spawn(const Job& job) {
        std::vector<std::string> args{mExecutable, job.scenarioFile, "--quiet", "--summary", job.summaryFile,
                                      "--seed", std::to_string(job.seed)};
        if (mPlan.durationS) {
            char text[32];
            snprintf(text, sizeof(text), "%.17g", *mPlan.durationS);
            args.insert(args.end(), {"--duration", text});
        }
        for (const auto& [layer, file] : mPlan.replays) args.insert(args.end(), {"--replay", layer + "=" + file});
        if (job.disabled) args.push_back("--disable");
        if (mRealClock) args.insert(args.end(), {"--clock", "real"});
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&files, STDERR_FILENO, job.errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = 0;
        const int error = posix_spawn(&pid, argv[0], &files, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&files);
        if (error != 0) throw SweepFailure(kExitFailed, std::string("cannot start a run: ") + strerror(error));
        return pid;
    }

    void finish(Job* job, int status) {
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            job->summary = parseJson(slurp(job->summaryFile));
            job->ok = job->summary.isObject();
            if (!job->ok) job->error = job->summaryFile + ": not a summary";
            return;
        }
        std::ifstream err(job->errorFile);
        std::string first;
        std::getline(err, first);
        job->error = first.empty() ? "exit status " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) : first;
    }

    const std::string mExecutable;
    const SweepSpec& mPlan;
    const int mJobs;
    const bool mRealClock;
};

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
    snprintf(text, sizeof(text), "p50 %.1f ms (%.1f-%.1f), late frames %.1f (%.0f-%.0f) over %d runs", s.p50Mean,
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
        job.summaryFile = dir + "/run-" + std::to_string(i + 1) + ".out.json";
        job.errorFile = dir + "/run-" + std::to_string(i + 1) + ".err";
        jobs.push_back(job);
    }
    const int parallel = options.jobs > 0 ? options.jobs : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    fprintf(stderr, "pelyx-sim: sweep of %zu settings, %d at a time (runs in %s)\n", jobs.size(), parallel, dir.c_str());
    Runner runner(executable, plan, parallel, options.realClock);
    runner.run(&jobs, "sweep");

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
              << baseLabel << ", seed " << plan.seed << "; * no other run is better on latency, late frames and boosts at once\n\n";
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
    // the same seed, and the spread should show it.
    for (int k = 0; k <= plan.reruns; ++k) {
        for (bool disabled : {false, true}) {
            Job job;
            job.scenarioFile = disabled ? scenarioFile("baseline", base) : jobs[best].scenarioFile;
            job.seed = plan.seed + static_cast<uint32_t>(k);
            job.disabled = disabled;
            const std::string name = std::string(disabled ? "baseline" : "best") + "-" + std::to_string(job.seed);
            job.summaryFile = dir + "/" + name + ".out.json";
            job.errorFile = dir + "/" + name + ".err";
            again.push_back(job);
        }
    }
    // One at a time, as a run to reproduce the best setting will be played: runs side by side
    // on a small machine disturb each other's timing a little.
    // On real time the re-runs go one at a time, so that no run slows another.
    Runner(executable, plan, options.realClock ? 1 : parallel, options.realClock).run(&again, "re-runs");
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
    std::cout << "seeds " << plan.seed << " to " << plan.seed + static_cast<uint32_t>(plan.reruns) << ":\n"
              << "  best setting:      " << spreadText(bestSpread) << "\n"
              << "  library disabled:  " << spreadText(baseSpread) << "\n";
    const bool apart = bestSpread.p50Max < baseSpread.p50Min || bestSpread.lateMax < baseSpread.lateMin;
    std::cout << "  " << (apart ? "the best setting's range stays clear of the baseline's"
                                : "the ranges overlap: the difference is within the noise of these seeds")
              << "\n";

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
