#pragma once

// A settings sweep: a base scenario (or a capture replay) played once for every combination of
// the sweep's axes (or a seeded sample of them), each axis a list of values for a hint the
// service pushes or for a property. Parsing, the scenario each setting plays, the figures read
// from a run's summary, and the ranking live here as plain functions; the runs themselves are
// child processes started by the executable.

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

struct SweepSpec {
    std::string scenarioPath;  // empty: the built-in scenario
    std::vector<std::pair<std::string, std::string>> replays;  // layer, file
    std::optional<double> durationS;
    std::string layer;  // whose figures rank the runs; empty: the first game's first layer
    uint32_t seed = 1;
    size_t sample = 0;  // 0: every combination
    int reruns = 4;     // other seeds for the best setting and the baseline
    std::vector<SweepAxis> axes;
};

// One value per axis, by index.
using Setting = std::vector<size_t>;

// Throws ScenarioError naming the key.
SweepSpec parseSweep(const std::string& text);

// Every combination in axis order, or `plan.sample` of them drawn with the sweep's seed.
std::vector<Setting> settingsOf(const SweepSpec& plan);

// The base scenario (as JSON) changed as the setting says: a hint value replaces the fields of
// every push of that hint in the timeline (null removes them) or is pushed at the axis's time
// when the scenario has none; a property value is set.
Json::Value applySetting(const Json::Value& scenario, const SweepSpec& plan, const Setting& setting);

// What the service pushes under the setting, from the scenario it plays (`applySetting`'s
// result): each push of a swept hint with its time and fields, each swept property.
std::vector<std::string> describeSetting(const Json::Value& applied, const SweepSpec& plan);
std::string settingLabel(const SweepSpec& plan, const Setting& setting);

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

struct SweepRun {
    Setting setting;
    SweepMetrics metrics;
    bool nonDominated = false;
    bool failed = false;
    std::string error;
};

// Marks the non-dominated runs and returns the run indices best first: by late frames (what a
// pacing setting is for), then p50 (a run without a figure last), then boosts; failed runs at
// the end.
std::vector<size_t> rankRuns(std::vector<SweepRun>* runs);

struct Spread {
    int runs = 0;
    double p50Min = 0, p50Max = 0, p50Mean = 0;
    double lateMin = 0, lateMax = 0, lateMean = 0;
};
Spread spreadOf(const std::vector<SweepMetrics>& metrics);

void printSweepTable(const SweepSpec& plan, const std::vector<SweepRun>& runs,
                     const std::vector<size_t>& order, std::ostream& out);
Json::Value metricsJson(const SweepMetrics& m);

} // namespace pelyx_sim
