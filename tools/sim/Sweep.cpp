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

SweepAxis parseAxis(const Json::Value& v, const std::string& path) {
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

} // namespace

SweepSpec parseSweep(const std::string& source) {
    const Json::Value root = parseStrictJson(source);
    onlyKeys(root, "", {"scenario", "replay", "duration_s", "layer", "seed", "sample", "reruns", "axes"});
    SweepSpec plan;
    if (root.isMember("scenario")) plan.scenarioPath = text(root["scenario"], "scenario");
    if (root.isMember("replay")) {
        const Json::Value& r = root["replay"];
        if (!r.isObject()) throw ScenarioError("replay", "must be an object of layer label to capture file");
        for (const std::string& layer : r.getMemberNames()) plan.replays.emplace_back(layer, text(r[layer], "replay." + layer));
    }
    if (root.isMember("duration_s")) plan.durationS = number(root["duration_s"], "duration_s", 0.1, 3600);
    if (root.isMember("layer")) plan.layer = text(root["layer"], "layer");
    if (root.isMember("seed")) plan.seed = static_cast<uint32_t>(number(root["seed"], "seed", 0, 4294967295.0));
    if (root.isMember("sample")) plan.sample = static_cast<size_t>(number(root["sample"], "sample", 1, kMaxRuns));
    if (root.isMember("reruns")) plan.reruns = static_cast<int>(number(root["reruns"], "reruns", 0, 20));
    if (!root.isMember("axes")) throw ScenarioError("axes", "missing");
    const Json::Value& axes = root["axes"];
    if (!axes.isArray() || axes.empty()) throw ScenarioError("axes", "must be a non-empty list");
    size_t combinations = 1;
    for (Json::ArrayIndex i = 0; i < axes.size(); ++i) {
        plan.axes.push_back(parseAxis(axes[i], "axes[" + std::to_string(i) + "]"));
        combinations *= plan.axes.back().values.size();
        if (combinations > kMaxRuns && plan.sample == 0) {
            throw ScenarioError("axes", "more than " + std::to_string(kMaxRuns) + " combinations; ask for a sample");
        }
    }
    return plan;
}

std::vector<Setting> settingsOf(const SweepSpec& plan) {
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

Json::Value applySetting(const Json::Value& scenario, const SweepSpec& plan, const Setting& setting) {
    Json::Value out = scenario;
    for (size_t a = 0; a < plan.axes.size(); ++a) {
        const SweepAxis& axis = plan.axes[a];
        const Json::Value& value = axis.values[setting[a]];
        if (!axis.hint) {
            if (!out["properties"].isObject()) out["properties"] = Json::Value(Json::objectValue);
            out["properties"][axis.property] = value;
            continue;
        }
        Json::Value timeline(Json::arrayValue);
        bool found = false;
        for (const Json::Value& event : out["timeline"]) {
            if (!event.isMember("hint") || event["hint"].asInt() != axis.hintId) {
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
    }
    return out;
}

std::vector<std::string> describeSetting(const Json::Value& applied, const SweepSpec& plan) {
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

std::string settingLabel(const SweepSpec& plan, const Setting& setting) {
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

std::vector<size_t> rankRuns(std::vector<SweepRun>* runs) {
    std::vector<SweepRun>& all = *runs;
    for (SweepRun& r : all) {
        r.nonDominated = !r.failed;
        for (const SweepRun& other : all) {
            if (!r.failed && !other.failed && dominates(other.metrics, r.metrics)) r.nonDominated = false;
        }
    }
    std::vector<size_t> order(all.size());
    std::iota(order.begin(), order.end(), 0);
    auto key = [&](size_t i) {
        const SweepMetrics& m = all[i].metrics;
        return std::make_tuple(all[i].failed, m.late,
                               std::isnan(m.p50Ms) ? std::numeric_limits<double>::infinity() : m.p50Ms,
                               m.boostTotal());
    };
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return key(a) < key(b); });
    return order;
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
    v["library_cpu_ms_per_s"] = num(m.libraryCpuMsPerS);
    return v;
}

void printSweepTable(const SweepSpec& plan, const std::vector<SweepRun>& runs, const std::vector<size_t>& order,
                     std::ostream& out) {
    auto f = [](const char* format, double v) {
        if (std::isnan(v)) return std::string("-");
        char text[32];
        snprintf(text, sizeof(text), format, v);
        return std::string(text);
    };
    char line[512];
    snprintf(line, sizeof(line), "%-5s %-2s %8s %8s %6s %7s %6s %-10s %8s %7s  %s\n", "rank", "", "p50 ms",
             "p95 ms", "janks", "vsyncs", "fps", "boosts", "hold p99", "cpu/s", "setting");
    out << line;
    int rank = 0;
    for (size_t i : order) {
        const SweepRun& r = runs[i];
        const SweepMetrics& m = r.metrics;
        if (r.failed) {
            snprintf(line, sizeof(line), "%-5s %-2s %s  %s\n", "-", "", "failed:", r.error.c_str());
            out << line;
            continue;
        }
        const std::string boosts = std::to_string(m.boosts[0]) + "/" + std::to_string(m.boosts[1]) + "/" +
                std::to_string(m.boosts[2]);
        snprintf(line, sizeof(line), "%-5d %-2s %8s %8s %6d %7d %6s %-10s %8s %7s  %s\n", ++rank,
                 r.nonDominated ? "*" : "", f("%.1f", m.p50Ms).c_str(), f("%.1f", m.p95Ms).c_str(), m.late,
                 m.lateVsyncs, f("%.1f", m.presentedFps).c_str(),
                 boosts.c_str(), f("%.1f", m.holdP99Ms).c_str(), f("%.2f", m.libraryCpuMsPerS).c_str(),
                 settingLabel(plan, r.setting).c_str());
        out << line;
    }
}

} // namespace pelyx_sim
