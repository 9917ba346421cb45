#include "SweepRunner.h"

#include <link.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "ChildRuns.h"
#include "Scenario.h"
#include "Sweep.h"
#include "SweepMerge.h"

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
    std::ifstream in(path, std::ios::binary);
    if (!in) throw SweepFailure(kExitUsage, path + ": cannot open: " + strerror(errno));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out.flush()) throw SweepFailure(kExitFailed, path + ": cannot write");
}

std::string jsonText(const Json::Value& value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    return Json::writeString(writer, value) + "\n";
}

// The build that plays the runs: this executable and the project's own shared libraries it
// loaded (libpelyx.so, the host platform, the stand-in client); the system's are left out.
int hashObject(struct dl_phdr_info* info, size_t, void* data) {
    const std::string name = info->dlpi_name ? info->dlpi_name : "";
    if (name.empty() || name.rfind("/usr/", 0) == 0 || name.rfind("/lib", 0) == 0 || name.find("linux-vdso") != std::string::npos) {
        return 0;
    }
    auto* hash = static_cast<uint64_t*>(data);
    std::ifstream in(name, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    *hash = fnv1a(std::filesystem::path(name).filename().string() + "\n" + bytes.str(), *hash);
    return 0;
}

std::string buildHash(const std::string& executable) {
    uint64_t hash = fnv1a(slurp(executable));
    dl_iterate_phdr(hashObject, &hash);
    return hexHash(hash);
}

SweepInputs readInputs(const Options& options, const std::string& executable) {
    SweepInputs inputs;
    inputs.sweepPath = options.sweepPath;
    inputs.sweepText = slurp(options.sweepPath);
    inputs.realClock = options.realClock;
    SweepSetup setup;
    try {
        setup = parseSweep(inputs.sweepText);
    } catch (const ScenarioError& e) {
        throw SweepFailure(kExitUsage, options.sweepPath + ": " + e.key() + ": " + e.reason());
    }
    resolveBeside(&setup, options.sweepPath);
    uint64_t hash = fnv1a(inputs.sweepText);
    for (const SweepEntry& e : setup.entries) {
        if (!e.scenarioPath.empty() && !inputs.scenarios.count(e.scenarioPath)) {
            inputs.scenarios[e.scenarioPath] = slurp(e.scenarioPath);
        }
        if (!e.scenarioPath.empty()) hash = fnv1a(inputs.scenarios[e.scenarioPath], hash);
        for (const auto& replay : e.replays) {
            // FILE:COLUMN names a column of FILE.
            std::string file = replay.second;
            if (!std::filesystem::exists(file) && file.rfind(':') != std::string::npos) file = file.substr(0, file.rfind(':'));
            hash = fnv1a(slurp(file), hash);
        }
    }
    inputs.inputsHash = hexHash(hash);
    inputs.binaryHash = buildHash(executable);
    return inputs;
}

SweepPlan planOf(const SweepInputs& inputs) {
    try {
        return makePlan(inputs);
    } catch (const ScenarioError& e) {
        throw SweepFailure(kExitUsage, inputs.sweepPath + ": " + e.key() + ": " + e.reason());
    }
}

// Plays the runs `indices` of the plan, `parallel` at a time.
std::vector<RunOutcome> play(const std::string& executable, const SweepPlan& plan, const std::vector<size_t>& indices,
                             int parallel, bool realClock, const std::string& what) {
    char dirTemplate[] = "/tmp/pelyx-sweep-XXXXXX";
    if (!mkdtemp(dirTemplate)) throw SweepFailure(kExitFailed, std::string("cannot create a directory: ") + strerror(errno));
    const std::string dir = dirTemplate;
    const std::vector<PlannedRun> all = planRuns(plan);
    Json::StreamWriterBuilder writer;
    std::vector<ChildRun> runs;
    for (size_t i : indices) {
        const std::string name = dir + "/run-" + std::to_string(i);
        std::ofstream(name + ".json") << Json::writeString(writer, scenarioOf(plan, all[i])) << "\n";
        ChildRun run;
        run.args = {name + ".json"};
        const std::vector<std::string> more = argumentsOf(plan, all[i], realClock);
        run.args.insert(run.args.end(), more.begin(), more.end());
        run.summaryFile = name + ".out.json";
        run.errorFile = name + ".err";
        runs.push_back(run);
    }
    try {
        if (!runs.empty()) playChildRuns(executable, &runs, parallel, what);
    } catch (const std::runtime_error& e) {
        throw SweepFailure(kExitFailed, e.what());
    }
    std::vector<RunOutcome> outcomes;
    for (size_t n = 0; n < runs.size(); ++n) {
        RunOutcome o;
        o.ok = runs[n].ok;
        o.error = runs[n].error;
        if (o.ok) {
            try {
                o.metrics = metricsOf(runs[n].summary, plan.rankedLayers[all[indices[n]].entry]);
            } catch (const std::exception& e) {
                o.ok = false;
                o.error = e.what();
            }
        }
        outcomes.push_back(o);
    }
    std::filesystem::remove_all(dir);
    return outcomes;
}

Json::Value readPart(const std::string& path) {
    try {
        return parseStrictJson(slurp(path));
    } catch (const ScenarioError& e) {
        throw SweepFailure(kExitUsage, path + ": not a part of a sharded sweep: " + e.key() + ": " + e.reason());
    }
}

void finish(const Options& options, const MergedRuns& merged) {
    const SweepPlan plan = planOf(merged.inputs);
    SweepResult result;
    try {
        result = summarize(plan, merged);
    } catch (const std::runtime_error& e) {
        throw SweepFailure(kExitFailed, e.what());
    }
    if (!options.quiet) std::cout << result.report;
    if (!options.summaryPath.empty()) writeText(options.summaryPath, jsonText(result.summary));
    if (!options.recommendPath.empty()) writeText(options.recommendPath, hintsFileText(result.recommendation));
}

int sweep(const Options& options, const std::string& executable) {
    if (options.merge) {
        std::vector<std::pair<std::string, Json::Value>> parts;
        for (const std::string& path : options.mergePaths) parts.emplace_back(path, readPart(path));
        MergedRuns merged;
        try {
            merged = mergeParts(parts);
        } catch (const MergeError& e) {
            throw SweepFailure(kExitUsage, e.what());
        }
        finish(options, merged);
        return 0;
    }
    const SweepInputs inputs = readInputs(options, executable);
    const SweepPlan plan = planOf(inputs);
    const size_t total = planRuns(plan).size();
    const auto [shard, shards] = options.shard.value_or(std::make_pair(0, 1));
    const std::vector<size_t> indices = shardRuns(total, shard, shards);
    const int parallel = options.jobs > 0 ? options.jobs : defaultJobs();
    if (!options.quiet) {
        fprintf(stderr, "pelyx-sim: sweep of %zu runs (%zu settings x %zu entries x %d seeds, with the baselines)",
                total, plan.settings.size(), plan.setup.entries.size(), plan.setup.seeds);
        if (options.shard) fprintf(stderr, ", shard %d/%d: %zu of them", shard, shards, indices.size());
        fprintf(stderr, ", %d at a time\n", parallel);
    }
    const auto start = std::chrono::steady_clock::now();
    const std::vector<RunOutcome> outcomes = play(executable, plan, indices, parallel, options.realClock, "sweep");
    const double wallS = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    fprintf(stderr, "pelyx-sim: %zu runs in %.1f s of wall time, %.1f runs a second (%d at a time)\n", indices.size(),
            wallS, wallS > 0 ? static_cast<double>(indices.size()) / wallS : 0.0, parallel);
    const Json::Value part = makePart(inputs, shard, shards, total, indices, outcomes, wallS);
    if (options.shard) {
        writeText(options.summaryPath, jsonText(part));
        return 0;
    }
    // On one machine the sweep is its one shard merged, through the same text a part file holds.
    finish(options, mergeParts({{options.sweepPath, parseStrictJson(jsonText(part))}}));
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
