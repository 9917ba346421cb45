#include "Sweep.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>

#include "Scenario.h"

namespace pelyx_sim {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr size_t kMaxRuns = 10000;

std::string compact(const Json::Value& v) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, v);
}

void onlyKeys(const Json::Value& object, const std::string& path, const std::set<std::string>& keys) {
    if (!object.isObject()) throw ScenarioError(path.empty() ? "(top level)" : path, "must be an object");
    for (const std::string& key : object.getMemberNames()) {
        if (!keys.count(key)) throw ScenarioError(path.empty() ? key : path + "." + key, "unknown key");
    }
}

std::string join(const std::string& path, const std::string& key) {
    return path.empty() ? key : path + "." + key;
}

double number(const Json::Value& v, const std::string& path, double lo, double hi) {
    if (!v.isNumeric() || v.isBool() || !std::isfinite(v.asDouble()) || v.asDouble() < lo || v.asDouble() > hi) {
        char range[96];
        snprintf(range, sizeof(range), "must be a number from %g to %g", lo, hi);
        throw ScenarioError(path, range);
    }
    return v.asDouble();
}

std::string text(const Json::Value& v, const std::string& path) {
    if (!v.isString() || v.asString().empty()) throw ScenarioError(path, "must be a non-empty string");
    return v.asString();
}

// A hint value as the fields it sets.
Json::Value hintFields(const Json::Value& v, const std::string& path) {
    Json::Value fields(Json::objectValue);
    if (v.isNull() || v.isObject()) {
        if (v.isObject()) onlyKeys(v, path, {"text", "value", "value2", "values"});
        return v;
    }
    if (v.isString()) {
        fields["text"] = v;
    } else if (v.isIntegral() && !v.isBool()) {
        fields["value"] = v;
    } else if (v.isArray()) {
        fields["values"] = v;
    } else {
        throw ScenarioError(path, "must be a text, an integer, a list, an object of hint fields or null");
    }
    return fields;
}

} // namespace

SweepAxis parseSweepAxis(const Json::Value& v, const std::string& path) {
    onlyKeys(v, path, {"hint", "property", "at_s", "text", "value", "value2", "values"});
    SweepAxis axis;
    if (v.isMember("hint") == v.isMember("property")) {
        throw ScenarioError(path, "must have exactly one of \"hint\", \"property\"");
    }
    if (!v.isMember("values")) throw ScenarioError(join(path, "values"), "missing");
    const Json::Value& values = v["values"];
    if (!values.isArray() || values.empty()) throw ScenarioError(join(path, "values"), "must be a non-empty list");
    if (v.isMember("hint")) {
        const Json::Value& id = v["hint"];
        if (!id.isIntegral() || id.isBool()) throw ScenarioError(join(path, "hint"), "must be a hint id (an integer)");
        axis.hint = true;
        axis.hintId = id.asInt();
        axis.name = "hint " + std::to_string(axis.hintId);
        axis.atS = v.isMember("at_s") ? number(v["at_s"], join(path, "at_s"), 0, 3600) : 0;
        axis.fields = Json::Value(Json::objectValue);
        for (const char* key : {"text", "value", "value2"}) {
            if (v.isMember(key)) axis.fields[key] = v[key];
        }
        for (Json::ArrayIndex i = 0; i < values.size(); ++i) {
            axis.values.push_back(hintFields(values[i], join(path, "values") + "[" + std::to_string(i) + "]"));
        }
    } else {
        for (const char* key : {"at_s", "text", "value", "value2"}) {
            if (v.isMember(key)) throw ScenarioError(join(path, key), "is for hint axes only");
        }
        axis.property = text(v["property"], join(path, "property"));
        axis.name = axis.property;
        for (Json::ArrayIndex i = 0; i < values.size(); ++i) {
            const Json::Value& value = values[i];
            const std::string where = join(path, "values") + "[" + std::to_string(i) + "]";
            if (value.isString()) {
                axis.values.push_back(value);
            } else if (value.isBool() || value.isNumeric()) {
                axis.values.push_back(Json::Value(value.isBool() ? (value.asBool() ? "true" : "false")
                                                                 : compact(value)));
            } else {
                throw ScenarioError(where, "must be a property value (text, number or boolean)");
            }
        }
    }
    return axis;
}

namespace {

// "dir/name.ext" -> "name".
std::string stem(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

// An entry of "replays" (a capture on the sweep's scenario) or of "scenarios".
SweepEntry parseEntry(const Json::Value& v, const std::string& path, bool replay, const std::string& scenario,
                      const std::string& layer) {
    onlyKeys(v, path, replay ? std::set<std::string>{"capture", "layer", "package", "name", "scenario"}
                             : std::set<std::string>{"scenario", "layer", "package", "name"});
    SweepEntry e;
    const char* file = replay ? "capture" : "scenario";
    if (!v.isMember(file)) throw ScenarioError(join(path, file), "missing");
    e.scenarioPath = v.isMember("scenario") ? text(v["scenario"], join(path, "scenario")) : scenario;
    e.layer = v.isMember("layer") ? text(v["layer"], join(path, "layer")) : layer;
    if (replay) {
        if (e.layer.empty()) throw ScenarioError(join(path, "layer"), "missing: the layer that replays the capture");
        e.replays.emplace_back(e.layer, text(v["capture"], join(path, "capture")));
    }
    if (v.isMember("package")) e.package = text(v["package"], join(path, "package"));
    e.name = v.isMember("name") ? text(v["name"], join(path, "name")) : stem(replay ? e.replays[0].second : e.scenarioPath);
    return e;
}

} // namespace

SweepSetup parseSweep(const std::string& source) {
    const Json::Value root = parseStrictJson(source);
    onlyKeys(root, "", {"scenario", "replay", "replays", "scenarios", "duration_s", "layer", "seed", "seeds", "sample",
                        "reruns", "axes"});
    if (root.isMember("reruns")) {
        throw ScenarioError("reruns", "replaced by \"seeds\": every setting and the baseline play on that many seeds");
    }
    SweepSetup plan;
    const std::string scenario = root.isMember("scenario") ? text(root["scenario"], "scenario") : "";
    const std::string layer = root.isMember("layer") ? text(root["layer"], "layer") : "";
    for (const char* list : {"scenarios", "replays"}) {
        if (!root.isMember(list)) continue;
        if (root.isMember("replay")) throw ScenarioError("replay", std::string("goes with no \"") + list + "\" list");
        const Json::Value& entries = root[list];
        if (!entries.isArray() || entries.empty()) throw ScenarioError(list, "must be a non-empty list");
        for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
            const std::string path = std::string(list) + "[" + std::to_string(i) + "]";
            plan.entries.push_back(parseEntry(entries[i], path, list[0] == 'r', scenario, layer));
            for (size_t j = 0; j + 1 < plan.entries.size(); ++j) {
                if (plan.entries[j].name == plan.entries.back().name) {
                    throw ScenarioError(path, "a second entry named \"" + plan.entries.back().name + "\" (give it a \"name\")");
                }
            }
        }
    }
    if (plan.entries.empty()) {
        SweepEntry e;
        e.scenarioPath = scenario;
        e.layer = layer;
        e.name = scenario.empty() ? "default" : stem(scenario);
        if (root.isMember("replay")) {
            const Json::Value& r = root["replay"];
            if (!r.isObject()) throw ScenarioError("replay", "must be an object of layer label to capture file");
            for (const std::string& l : r.getMemberNames()) e.replays.emplace_back(l, text(r[l], "replay." + l));
        }
        plan.entries.push_back(e);
    }
    if (root.isMember("duration_s")) plan.durationS = number(root["duration_s"], "duration_s", 0.1, 3600);
    if (root.isMember("seed")) plan.seed = static_cast<uint32_t>(number(root["seed"], "seed", 0, 4294967295.0));
    if (root.isMember("seeds")) plan.seeds = static_cast<int>(number(root["seeds"], "seeds", 1, 20));
    if (root.isMember("sample")) plan.sample = static_cast<size_t>(number(root["sample"], "sample", 1, kMaxRuns));
    if (!root.isMember("axes")) throw ScenarioError("axes", "missing");
    const Json::Value& axes = root["axes"];
    if (!axes.isArray() || axes.empty()) throw ScenarioError("axes", "must be a non-empty list");
    size_t combinations = 1;
    for (Json::ArrayIndex i = 0; i < axes.size(); ++i) {
        plan.axes.push_back(parseSweepAxis(axes[i], "axes[" + std::to_string(i) + "]"));
        combinations *= plan.axes.back().values.size();
        if (combinations > kMaxRuns && plan.sample == 0) {
            throw ScenarioError("axes", "more than " + std::to_string(kMaxRuns) + " combinations; ask for a sample");
        }
    }
    const size_t settings = plan.sample > 0 ? std::min(plan.sample, combinations) : combinations;
    if (settings * plan.entries.size() * static_cast<size_t>(plan.seeds) > kMaxRuns * 10) {
        throw ScenarioError("axes", "more than " + std::to_string(kMaxRuns * 10) +
                                            " runs over the entries and seeds; ask for a smaller sample");
    }
    return plan;
}

void resolveBeside(SweepSetup* plan, const std::string& sweepPath) {
    const size_t slash = sweepPath.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : sweepPath.substr(0, slash + 1);
    auto beside = [&dir](std::string* path) {
        if (!path->empty() && (*path)[0] != '/') *path = dir + *path;
    };
    for (SweepEntry& e : plan->entries) {
        beside(&e.scenarioPath);
        for (auto& replay : e.replays) beside(&replay.second);
    }
}

std::vector<Setting> settingsOf(const SweepSetup& plan) {
    size_t total = 1;
    for (const SweepAxis& axis : plan.axes) total = std::min(total * axis.values.size(), kMaxRuns + 1);
    std::mt19937 random(plan.seed);
    if (plan.sample > 0 && plan.sample < total) {
        // Distinct combinations drawn with the sweep's seed, so that a sample repeats.
        std::set<Setting> drawn;
        while (drawn.size() < plan.sample) {
            Setting s;
            for (const SweepAxis& axis : plan.axes) {
                s.push_back(std::uniform_int_distribution<size_t>(0, axis.values.size() - 1)(random));
            }
            drawn.insert(s);
        }
        return {drawn.begin(), drawn.end()};
    }
    std::vector<Setting> all{Setting{}};
    for (const SweepAxis& axis : plan.axes) {
        std::vector<Setting> next;
        for (const Setting& s : all) {
            for (size_t v = 0; v < axis.values.size(); ++v) {
                Setting longer = s;
                longer.push_back(v);
                next.push_back(longer);
            }
        }
        all = std::move(next);
    }
    return all;
}

std::string packageOfText(const std::string& text) {
    return text.substr(0, text.find(':'));
}

Json::Value applyAxisValue(const Json::Value& scenario, const SweepAxis& axis, const Json::Value& value,
                           const std::string& package) {
    Json::Value out = scenario;
    if (!axis.hint) {
        if (!out["properties"].isObject()) out["properties"] = Json::Value(Json::objectValue);
        out["properties"][axis.property] = value;
        return out;
    }
    auto ours = [&](const Json::Value& event) {
        return event.isMember("hint") && event["hint"].asInt() == axis.hintId &&
               (package.empty() || packageOfText(event["text"].asString()) == package);
    };
    Json::Value timeline(Json::arrayValue);
    bool found = false;
    for (const Json::Value& event : out["timeline"]) {
        if (!ours(event)) {
            timeline.append(event);
            continue;
        }
        found = true;
        if (value.isNull()) continue;
        Json::Value changed = event;
        for (const std::string& key : axis.fields.getMemberNames()) changed[key] = axis.fields[key];
        for (const std::string& key : value.getMemberNames()) changed[key] = value[key];
        timeline.append(changed);
    }
    if (!found && !value.isNull()) {
        Json::Value event(Json::objectValue);
        event["at_s"] = axis.atS;
        event["hint"] = axis.hintId;
        for (const std::string& key : axis.fields.getMemberNames()) event[key] = axis.fields[key];
        for (const std::string& key : value.getMemberNames()) event[key] = value[key];
        timeline.append(event);
    }
    out["timeline"] = timeline;
    return out;
}

Json::Value applySetting(const Json::Value& scenario, const SweepSetup& plan, const Setting& setting,
                         const std::string& package) {
    Json::Value out = scenario;
    for (size_t a = 0; a < plan.axes.size(); ++a) {
        out = applyAxisValue(out, plan.axes[a], plan.axes[a].values[setting[a]], package);
    }
    return out;
}

namespace {

// A layer's label as the scenario gives it or derives it (the package's last component, with
// the layer's number when the app has several).
std::string labelOf(const Json::Value& app, Json::ArrayIndex layer) {
    const Json::Value& l = app["layers"][layer];
    if (l.isMember("label")) return l["label"].asString();
    const std::string package = app["package"].asString();
    std::string label = package.substr(package.rfind('.') == std::string::npos ? 0 : package.rfind('.') + 1);
    if (app["layers"].size() > 1) label += "." + std::to_string(layer + 1);
    return label;
}

} // namespace

std::pair<std::string, std::string> rankedLayerOf(const Json::Value& scenario, const std::string& layer) {
    const Json::Value& apps = scenario["apps"];
    for (const Json::Value& app : apps) {
        for (Json::ArrayIndex i = 0; i < app["layers"].size(); ++i) {
            if (layer.empty() ? app["game"].asBool() : labelOf(app, i) == layer) {
                return {labelOf(app, i), app["package"].asString()};
            }
        }
    }
    if (layer.empty() && apps.isArray() && !apps.empty() && !apps[0]["layers"].empty()) {
        return {labelOf(apps[0], 0), apps[0]["package"].asString()};
    }
    throw ScenarioError("layer", "the scenario has no layer labelled \"" + layer + "\"");
}

Json::Value renamePackage(const Json::Value& scenario, const std::string& from, const std::string& to) {
    Json::Value out = scenario;
    for (Json::Value& app : out["apps"]) {
        if (app["package"].asString() != from) continue;
        for (Json::ArrayIndex i = 0; i < app["layers"].size(); ++i) app["layers"][i]["label"] = labelOf(app, i);
        app["package"] = to;
    }
    for (Json::Value& event : out["timeline"]) {
        if (!event.isMember("hint") || !event.isMember("text") || !event["text"].isString()) continue;
        const std::string text = event["text"].asString();
        if (packageOfText(text) == from) event["text"] = to + text.substr(from.size());
    }
    return out;
}

std::vector<std::string> describeSetting(const Json::Value& applied, const SweepSetup& plan) {
    std::vector<std::string> lines;
    for (const SweepAxis& axis : plan.axes) {
        if (!axis.hint) {
            lines.push_back("property " + axis.property + " = " + applied["properties"][axis.property].asString());
            continue;
        }
        bool pushed = false;
        for (const Json::Value& event : applied["timeline"]) {
            if (!event.isMember("hint") || event["hint"].asInt() != axis.hintId) continue;
            Json::Value fields = event;
            fields.removeMember("hint");
            fields.removeMember("at_s");
            char at[32];
            snprintf(at, sizeof(at), " at %g s ", event["at_s"].asDouble());
            lines.push_back(axis.name + at + compact(fields));
            pushed = true;
        }
        if (!pushed) lines.push_back(axis.name + ": not pushed");
    }
    return lines;
}

std::string settingLabel(const SweepSetup& plan, const Setting& setting) {
    std::string label;
    for (size_t a = 0; a < plan.axes.size(); ++a) {
        const Json::Value& value = plan.axes[a].values[setting[a]];
        std::string shown;
        if (value.isNull()) {
            shown = "none";
        } else if (value.isString()) {
            shown = value.asString();
        } else if (value.isObject() && value.size() == 1) {
            const Json::Value& only = value[value.getMemberNames()[0]];
            shown = only.isString() ? only.asString() : compact(only);
        } else {
            shown = compact(value);
        }
        if (!label.empty()) label += " | ";
        label += shown;
    }
    return label;
}

SweepMetrics metricsOf(const Json::Value& summary, const std::string& layer) {
    const Json::Value* chosen = nullptr;
    for (const Json::Value& l : summary["layers"]) {
        if (layer.empty() ? l["game"].asBool() : l["label"].asString() == layer) {
            chosen = &l;
            break;
        }
    }
    if (!chosen && layer.empty() && summary["layers"].isArray() && !summary["layers"].empty()) {
        chosen = &summary["layers"][0];
    }
    if (!chosen) throw std::runtime_error("the run has no layer labelled \"" + layer + "\"");
    const Json::Value& l = *chosen;
    auto num = [](const Json::Value& v) { return v.isNumeric() ? v.asDouble() : kNaN; };
    SweepMetrics m;
    m.p50Ms = num(l["input_to_present_ms"]["p50"]);
    m.p95Ms = num(l["input_to_present_ms"]["p95"]);
    m.late = l["frame_timeline"]["late"].asInt();
    m.lateVsyncs = l["frame_timeline"]["late_vsyncs"].asInt();
    m.presentedFps = num(l["presented_fps"]);
    const Json::Value& b = summary["boosts"];
    m.boosts[0] = b["level1"].asInt(), m.boosts[1] = b["level2"].asInt(), m.boosts[2] = b["level3"].asInt();
    m.holdP99Ms = num(l["holds"]["p99_ms"]);
    m.libraryCpuMsPerS = num(summary["library_cpu_ms"]["ms_per_s"]);
    return m;
}

bool dominates(const SweepMetrics& a, const SweepMetrics& b) {
    // A run without a latency figure is worse on latency than any run with one.
    auto latency = [](const SweepMetrics& m) { return std::isnan(m.p50Ms) ? std::numeric_limits<double>::infinity() : m.p50Ms; };
    const double la = latency(a), lb = latency(b);
    const bool noWorse = la <= lb && a.late <= b.late && a.boostTotal() <= b.boostTotal();
    const bool better = la < lb || a.late < b.late || a.boostTotal() < b.boostTotal();
    return noWorse && better;
}

Spread spreadOf(const std::vector<SweepMetrics>& metrics) {
    Spread s;
    std::vector<double> p50, late;
    for (const SweepMetrics& m : metrics) {
        if (!std::isnan(m.p50Ms)) p50.push_back(m.p50Ms);
        late.push_back(m.late);
    }
    s.runs = static_cast<int>(metrics.size());
    auto fill = [](const std::vector<double>& v, double* lo, double* hi, double* mean) {
        if (v.empty()) {
            *lo = *hi = *mean = kNaN;
            return;
        }
        *lo = *std::min_element(v.begin(), v.end());
        *hi = *std::max_element(v.begin(), v.end());
        *mean = std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size());
    };
    fill(p50, &s.p50Min, &s.p50Max, &s.p50Mean);
    fill(late, &s.lateMin, &s.lateMax, &s.lateMean);
    return s;
}

Json::Value metricsJson(const SweepMetrics& m) {
    auto num = [](double v) { return std::isnan(v) ? Json::Value() : Json::Value(std::round(v * 1000) / 1000); };
    Json::Value v(Json::objectValue);
    v["p50_ms"] = num(m.p50Ms);
    v["p95_ms"] = num(m.p95Ms);
    v["late"] = m.late;
    v["late_vsyncs"] = m.lateVsyncs;
    v["presented_fps"] = num(m.presentedFps);
    Json::Value boosts(Json::arrayValue);
    for (int level : m.boosts) boosts.append(level);
    v["boosts_by_level"] = boosts;
    v["boosts"] = m.boostTotal();
    v["hold_p99_ms"] = num(m.holdP99Ms);
    return v;
}

Json::Value exactMetricsJson(const SweepMetrics& m) {
    auto num = [](double v) { return std::isnan(v) ? Json::Value() : Json::Value(v); };
    Json::Value v(Json::arrayValue);
    for (double x : {m.p50Ms, m.p95Ms, m.presentedFps, m.holdP99Ms, m.libraryCpuMsPerS}) v.append(num(x));
    for (int x : {m.late, m.lateVsyncs, m.boosts[0], m.boosts[1], m.boosts[2]}) v.append(x);
    return v;
}

SweepMetrics exactMetricsOf(const Json::Value& v) {
    if (!v.isArray() || v.size() != 10) throw std::runtime_error("not a run's figures");
    auto num = [](const Json::Value& x) {
        if (!x.isNull() && !x.isNumeric()) throw std::runtime_error("not a run's figures");
        return x.isNull() ? kNaN : x.asDouble();
    };
    auto integer = [](const Json::Value& x) {
        if (!x.isInt()) throw std::runtime_error("not a run's figures");
        return x.asInt();
    };
    SweepMetrics m;
    m.p50Ms = num(v[0]), m.p95Ms = num(v[1]), m.presentedFps = num(v[2]), m.holdP99Ms = num(v[3]);
    m.libraryCpuMsPerS = num(v[4]);
    m.late = integer(v[5]), m.lateVsyncs = integer(v[6]);
    m.boosts[0] = integer(v[7]), m.boosts[1] = integer(v[8]), m.boosts[2] = integer(v[9]);
    return m;
}

} // namespace pelyx_sim
