#pragma once

// A sweep as a fixed list of runs that can be cut into shards, played anywhere, and merged into
// one ranking, one summary and one recommendation.
//
// The runs, in this order: for each entry, for each seed, the baseline (library disabled), the
// entry's scenario as it is (library enabled: "the default setting"), then every setting. Run i
// belongs to shard i mod N. A shard's part carries the sweep's own text and scenario files (so
// that the merge needs none of the files), a hash of every file the sweep reads, a hash of the
// build that played it, and each of its runs' figures at full precision. A sweep on one machine
// is its one shard merged, so both give the same summary byte for byte.

#include <json/json.h>

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Sweep.h"

namespace pelyx_sim {

constexpr const char* kSweepPartSchema = "pelyx-sim-sweep-part/1";
constexpr const char* kHintsSchema = "pelyx-sim-hints/1";

// 64-bit FNV-1a of `data`, continuing from `hash`: a check against mixing up files and builds,
// not against anyone forging them.
uint64_t fnv1a(const std::string& data, uint64_t hash = 14695981039346656037ull);
std::string hexHash(uint64_t hash);

// What a sweep reads, as read once.
struct SweepInputs {
    std::string sweepPath;  // as given on the command line
    std::string sweepText;
    std::map<std::string, std::string> scenarios;  // resolved path -> text; the built-in one is not here
    std::string inputsHash;  // of the sweep file and of every scenario and capture it names
    std::string binaryHash;  // of the build that plays the runs
    bool realClock = false;
};

// The sweep made ready to play. Throws ScenarioError (key and reason) for a bad sweep file or a
// setting that makes an entry's scenario invalid.
struct SweepPlan {
    SweepSetup setup;
    std::vector<Setting> settings;
    std::vector<std::string> labels;          // per setting
    std::vector<Json::Value> bases;           // per entry: its scenario
    std::vector<std::string> rankedLayers;    // per entry: the ranked layer's label
    std::vector<std::string> ownPackages;     // per entry: the ranked app's package in its scenario
    std::vector<std::string> packages;        // per entry: the package it stands for
};
SweepPlan makePlan(const SweepInputs& inputs);

enum class RunKind { Baseline, Default, Setting };
struct PlannedRun {
    size_t entry = 0;
    int seedIndex = 0;
    RunKind kind = RunKind::Setting;
    size_t setting = 0;
};
std::vector<PlannedRun> planRuns(const SweepPlan& plan);

// The runs of shard `shard` (0-based) of `shards`, in order: every run is in exactly one.
std::vector<size_t> shardRuns(size_t runs, int shard, int shards);

// The scenario a run plays and the command-line arguments that go with it (seed, vsync phase,
// duration, replays, --disable; not the scenario file itself).
Json::Value scenarioOf(const SweepPlan& plan, const PlannedRun& run);
std::vector<std::string> argumentsOf(const SweepPlan& plan, const PlannedRun& run, bool realClock);

struct RunOutcome {
    bool ok = false;
    std::string error;
    SweepMetrics metrics;
};

Json::Value makePart(const SweepInputs& inputs, int shard, int shards, size_t runs,
                     const std::vector<size_t>& indices, const std::vector<RunOutcome>& outcomes, double wallS);

// A merge refused: one line naming the file and the reason.
class MergeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct MergedRuns {
    SweepInputs inputs;
    std::vector<RunOutcome> outcomes;  // every run of the sweep, in order
};
// Parts by file name. Throws MergeError when they are not every shard of one sweep played by
// one build on one clock.
MergedRuns mergeParts(const std::vector<std::pair<std::string, Json::Value>>& parts);

struct SweepResult {
    Json::Value summary;
    Json::Value recommendation;  // the hints file
    std::string report;          // the tables, as printed
};
// Ranks and recommends. Throws std::runtime_error when an entry's baseline or own setting failed.
SweepResult summarize(const SweepPlan& plan, const MergedRuns& merged);

// The recommendation as its file holds it: one line per axis.
std::string hintsFileText(const Json::Value& hints);

// The recommendation played into a scenario (as JSON): for each of the file's packages that an
// app of the scenario has, each axis's one value replaces (or adds) that package's pushes of the
// hint, or sets the property. Throws ScenarioError (key and reason) for a file it cannot use or
// one that names none of the scenario's packages.
Json::Value applyHints(const Json::Value& scenario, const Json::Value& hints);

} // namespace pelyx_sim
