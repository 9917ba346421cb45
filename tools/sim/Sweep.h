#pragma once

// A settings sweep: one or more entries (a scenario, or a capture replayed on one) each played
// for every combination of the sweep's axes (or a seeded sample of them) on one or more seeds,
// each axis a list of values for a hint the service pushes or for a property. Parsing, the
// scenario each setting plays and the figures read from a run's summary live here as plain
// functions; the ranking is in SweepRank.h, shards and merging in SweepMerge.h, and the runs
// themselves are child processes started by the executable.

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace pelyx_sim {

constexpr const char* kSweepSchema = "pelyx-sim-sweep/1";

struct SweepAxis {
    std::string name;     // "hint 4189" or the property's key
    bool hint = false;
    int32_t hintId = 0;
    double atS = 0;       // for a hint the scenario does not push: when it is pushed
    Json::Value fields;   // a hint's fields common to every value (text, value, value2, values)
    std::string property;
    // A hint: an object of its fields (or a text, a number, a list as text/value/values), or
    // null for "not pushed"; a property: its text.
    std::vector<Json::Value> values;
};

// One scenario the settings are played on: a file or the built-in one, with captures replayed.
struct SweepEntry {
    std::string name;          // unique in the sweep; default: the capture's or scenario's file stem
    std::string scenarioPath;  // empty: the built-in scenario
    std::vector<std::pair<std::string, std::string>> replays;  // layer, file
    std::string layer;    // whose figures rank the runs; empty: the first game's first layer
    std::string package;  // the game package it stands for; empty: the ranked layer's app's own
};

struct SweepSetup {
    std::vector<SweepEntry> entries;  // at least one
    std::optional<double> durationS;
    uint32_t seed = 1;
    int seeds = 1;      // every run is played on seeds seed .. seed + seeds - 1
    size_t sample = 0;  // 0: every combination
    std::vector<SweepAxis> axes;
};

// One value per axis, by index.
using Setting = std::vector<size_t>;

// Throws ScenarioError naming the key.
SweepSetup parseSweep(const std::string& text);
SweepAxis parseSweepAxis(const Json::Value& v, const std::string& path);

// Relative file names of the entries taken as beside the sweep file (a lexical rule, so that a
// merge on another machine resolves them the same way).
void resolveBeside(SweepSetup* plan, const std::string& sweepPath);

// Every combination in axis order, or `plan.sample` of them drawn with the sweep's seed.
std::vector<Setting> settingsOf(const SweepSetup& plan);

// The base scenario (as JSON) changed as the setting says: a hint value replaces the fields of
// every push of that hint in the timeline (null removes them) or is pushed at the axis's time
// when the scenario has none; a property value is set. With `package`, only the pushes whose
// text names that package count (another app's pushes of the same hint stay).
Json::Value applySetting(const Json::Value& scenario, const SweepSetup& plan, const Setting& setting,
                         const std::string& package = "");
Json::Value applyAxisValue(const Json::Value& scenario, const SweepAxis& axis, const Json::Value& value,
                           const std::string& package);

// The package a hint's text names: the text up to its first ':'.
std::string packageOfText(const std::string& text);
// The label and the app package of `layer` (a label; empty: the first game's first layer, else
// the first layer). Throws ScenarioError when there is none.
std::pair<std::string, std::string> rankedLayerOf(const Json::Value& scenario, const std::string& layer);
// The scenario with app package `from` renamed `to`, and every hint text that names `from` naming
// `to`; its layers keep the labels they had.
Json::Value renamePackage(const Json::Value& scenario, const std::string& from, const std::string& to);

// What the service pushes under the setting, from the scenario it plays (`applySetting`'s
// result): each push of a swept hint with its time and fields, each swept property.
std::vector<std::string> describeSetting(const Json::Value& applied, const SweepSetup& plan);
std::string settingLabel(const SweepSetup& plan, const Setting& setting);

struct SweepMetrics {
    double p50Ms = 0;  // NaN when no frame sampled a touch
    double p95Ms = 0;
    int late = 0;                    // frame-timeline late frames
    int lateVsyncs = 0;
    double presentedFps = 0;
    int boosts[3] = {0, 0, 0};       // device records by level, over the whole run
    double holdP99Ms = 0;            // NaN without holds
    double libraryCpuMsPerS = 0;

    int boostTotal() const { return boosts[0] + boosts[1] + boosts[2]; }
};

// The figures of `layer` (a label; empty: the first game layer, else the first) in a run's
// summary. Throws std::runtime_error when the layer is missing.
SweepMetrics metricsOf(const Json::Value& summary, const std::string& layer);

// `a` is no worse than `b` on latency (p50), late frames and boosts, and better on one.
bool dominates(const SweepMetrics& a, const SweepMetrics& b);

struct Spread {
    int runs = 0;
    double p50Min = 0, p50Max = 0, p50Mean = 0;
    double lateMin = 0, lateMax = 0, lateMean = 0;
};
Spread spreadOf(const std::vector<SweepMetrics>& metrics);

// The figures of a run as a summary shows them (rounded to 0.001; host-only figures left out, so
// that a summary is the same wherever its runs were played).
Json::Value metricsJson(const SweepMetrics& m);
// Every figure at full precision and back, for the parts a sharded sweep hands to its merge.
Json::Value exactMetricsJson(const SweepMetrics& m);
SweepMetrics exactMetricsOf(const Json::Value& v);

} // namespace pelyx_sim
