#include "Scenario.h"

#include <json/json.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <set>
#include <sstream>

namespace pelyx_sim {
namespace {

std::string show(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::string text = Json::writeString(builder, value);
    if (text.size() > 40) text = text.substr(0, 37) + "...";
    return text;
}

std::string showNumber(double v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

// One JSON object being read: each accessor marks its key as known, and finish() rejects any
// key that no accessor asked for, so a misspelt key never goes unnoticed.
class Fields {
public:
    Fields(const Json::Value& value, std::string path) : mValue(value), mPath(std::move(path)) {
        if (!value.isObject()) throw ScenarioError(where(), "must be an object, got " + show(value));
    }

    std::string path(const std::string& key) const { return mPath.empty() ? key : mPath + "." + key; }

    const Json::Value* get(const std::string& key) {
        mKnown.insert(key);
        return mValue.isMember(key) ? &mValue[key] : nullptr;
    }

    const Json::Value& require(const std::string& key) {
        const Json::Value* v = get(key);
        if (!v) throw ScenarioError(path(key), "missing");
        return *v;
    }

    // A number within [lo, hi]; `loExclusive` makes the lower bound exclusive.
    double number(const std::string& key, double fallback, double lo, double hi,
                  bool loExclusive = false) {
        const Json::Value* v = get(key);
        if (!v) return fallback;
        return checkNumber(*v, path(key), lo, hi, loExclusive);
    }

    int64_t integer(const std::string& key, int64_t fallback, int64_t lo, int64_t hi) {
        const Json::Value* v = get(key);
        if (!v) return fallback;
        return checkInteger(*v, path(key), lo, hi);
    }

    bool boolean(const std::string& key, bool fallback) {
        const Json::Value* v = get(key);
        if (!v) return fallback;
        if (!v->isBool()) throw ScenarioError(path(key), "must be true or false, got " + show(*v));
        return v->asBool();
    }

    std::string string(const std::string& key, const std::string& fallback, bool nonEmpty) {
        const Json::Value* v = get(key);
        if (!v) return fallback;
        if (!v->isString()) throw ScenarioError(path(key), "must be a string, got " + show(*v));
        if (nonEmpty && v->asString().empty()) throw ScenarioError(path(key), "must not be empty");
        return v->asString();
    }

    void finish() const {
        for (const std::string& key : mValue.getMemberNames()) {
            if (!mKnown.count(key)) throw ScenarioError(path(key), "unknown key");
        }
    }

    static double checkNumber(const Json::Value& v, const std::string& where, double lo, double hi,
                              bool loExclusive) {
        if (!v.isNumeric() || v.isBool()) {
            throw ScenarioError(where, "must be a number, got " + show(v));
        }
        const double d = v.asDouble();
        const bool low = loExclusive ? d <= lo : d < lo;
        if (!std::isfinite(d) || low || d > hi) {
            std::string range = loExclusive ? "above " + showNumber(lo) : "at least " + showNumber(lo);
            if (hi < std::numeric_limits<double>::max()) range += " and at most " + showNumber(hi);
            throw ScenarioError(where, "must be " + range + " (got " + show(v) + ")");
        }
        return d;
    }

    static int64_t checkInteger(const Json::Value& v, const std::string& where, int64_t lo,
                                int64_t hi) {
        if (!v.isIntegral() || v.isBool()) {
            throw ScenarioError(where, "must be an integer, got " + show(v));
        }
        if (v.isUInt64() && !v.isInt64()) {
            throw ScenarioError(where, "must be at most " + std::to_string(hi) + " (got " + show(v) + ")");
        }
        const int64_t i = v.asInt64();
        if (i < lo || i > hi) {
            throw ScenarioError(where, "must be from " + std::to_string(lo) + " to " +
                                               std::to_string(hi) + " (got " + show(v) + ")");
        }
        return i;
    }

private:
    std::string where() const { return mPath.empty() ? "(top level)" : mPath; }

    const Json::Value& mValue;
    std::string mPath;
    std::set<std::string> mKnown;
};

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();

std::string indexed(const std::string& path, Json::ArrayIndex i) {
    return path + "[" + std::to_string(i) + "]";
}

const Json::Value& requireArray(const Json::Value& v, const std::string& path) {
    if (!v.isArray()) throw ScenarioError(path, "must be an array, got " + show(v));
    return v;
}

// Property values are text on a device; numbers and booleans are accepted as their text.
std::string propertyText(const Json::Value& v, const std::string& path) {
    if (v.isString()) return v.asString();
    if (v.isBool()) return v.asBool() ? "true" : "false";
    if (v.isIntegral()) return std::to_string(v.asInt64());
    if (v.isDouble()) return showNumber(v.asDouble());
    throw ScenarioError(path, "must be a string, a number or a boolean, got " + show(v));
}

Bounds parseBounds(const Json::Value& v, const std::string& path) {
    requireArray(v, path);
    if (v.size() != 4) throw ScenarioError(path, "must be [left, top, right, bottom]");
    int32_t n[4];
    for (Json::ArrayIndex i = 0; i < 4; ++i) {
        n[i] = static_cast<int32_t>(Fields::checkInteger(v[i], indexed(path, i), -100000, 100000));
    }
    // Empty is allowed: a collapsed surface still draws and is reported.
    if (n[2] < n[0] || n[3] < n[1]) throw ScenarioError(path, "must have right >= left and bottom >= top");
    return Bounds{n[0], n[1], n[2], n[3]};
}

WorkModel parseWork(const Json::Value& v, const std::string& path) {
    Fields f(v, path);
    WorkModel w;
    w.meanMs = f.number("mean_ms", w.meanMs, 0.0, 10000.0, true);
    w.jitterMs = f.number("jitter_ms", 0.0, 0.0, 10000.0);
    w.gpuMs = f.number("gpu_ms", 0.0, 0.0, 10000.0);
    w.heavyMs = f.number("heavy_ms", 0.0, 0.0, 10000.0);
    w.heavyGpuMs = f.number("heavy_gpu_ms", 0.0, 0.0, 10000.0);
    w.heavyEveryS = f.number("heavy_every_s", 0.0, 0.0, 3600.0);
    w.heavyFromS = f.number("heavy_from_s", 0.0, 0.0, 3600.0);
    w.heavyBurst = static_cast<int>(f.integer("heavy_burst", 1, 1, 1000));
    w.dequeueAt = f.number("dequeue_at", w.dequeueAt, 0.0, 1.0);
    const std::string sample = f.string("input_sample", "frame_start", true);
    if (sample != "frame_start" && sample != "after_dequeue") {
        throw ScenarioError(f.path("input_sample"), "must be \"frame_start\" or \"after_dequeue\", got \"" + sample + "\"");
    }
    w.inputAfterDequeue = sample == "after_dequeue";
    f.finish();
    if (w.heavyMs > 0 && w.heavyEveryS <= 0) {
        throw ScenarioError(f.path("heavy_every_s"), "must be above 0 when heavy_ms is set");
    }
    return w;
}

std::string lastComponent(const std::string& package) {
    const size_t dot = package.rfind('.');
    return dot == std::string::npos ? package : package.substr(dot + 1);
}

LayerSetup parseLayer(const Json::Value& v, const std::string& path, const std::string& package,
                     size_t appIndex, Json::ArrayIndex layerIndex, Json::ArrayIndex layerCount,
                     const Scenario& s) {
    Fields f(v, path);
    LayerSetup l;
    l.appIndex = appIndex;
    l.id = static_cast<int32_t>(f.integer("id", 0, 1, kInt32Max));  // 0: assigned later
    std::string label = lastComponent(package);
    if (layerCount > 1) label += "." + std::to_string(layerIndex + 1);
    l.label = f.string("label", label, true);
    l.name = f.string("name", "", true);  // empty: derived from the package and id later
    l.bounds = Bounds{0, 0, s.width, s.height};
    if (const Json::Value* b = f.get("bounds")) l.bounds = parseBounds(*b, f.path("bounds"));
    l.focused = f.boolean("focused", appIndex == 0 && layerIndex == 0);
    l.visible = f.boolean("visible", true);
    l.buffers = static_cast<int>(f.integer("buffers", 3, 2, 8));
    l.fpsCap = f.number("fps_cap", 0.0, 0.0, 1000.0);
    // An app that caps its own rate without saying how is a Choreographer app.
    const std::string loop = f.string("loop", l.fpsCap > 0 ? "choreographer" : "free", true);
    if (!parseLoop(loop, &l.loop)) {
        throw ScenarioError(f.path("loop"), "must be \"choreographer\", \"free\" or \"present_time\", got \"" + loop + "\"");
    }
    l.startS = f.number("start_s", 0.0, 0.0, 3600.0);
    l.stopS = f.number("stop_s", -1.0, 0.0, 3600.0);
    if (l.stopS >= 0 && l.stopS <= l.startS) {
        throw ScenarioError(f.path("stop_s"), "must be after start_s");
    }
    l.smartTouch = f.boolean("smart_touch", false);
    if (const Json::Value* w = f.get("work")) l.work = parseWork(*w, f.path("work"));
    f.finish();
    return l;
}

AppSetup parseApp(const Json::Value& v, const std::string& path, size_t index, const Scenario& s) {
    Fields f(v, path);
    AppSetup a;
    f.require("package");
    a.package = f.string("package", "", true);
    a.pid = static_cast<int32_t>(f.integer("pid", 4100 + 100 * static_cast<int64_t>(index), 1, kInt32Max));
    a.uid = static_cast<int32_t>(f.integer("uid", 10100 + 100 * static_cast<int64_t>(index), 1, kInt32Max));
    a.game = f.boolean("game", false);
    a.gameWeight = static_cast<int32_t>(f.integer("game_weight", -1, -1, kInt32Max));
    const Json::Value& layers = requireArray(f.require("layers"), f.path("layers"));
    if (layers.empty()) throw ScenarioError(f.path("layers"), "must hold at least one layer");
    for (Json::ArrayIndex i = 0; i < layers.size(); ++i) {
        a.layers.push_back(
                parseLayer(layers[i], indexed(f.path("layers"), i), a.package, index, i, layers.size(), s));
    }
    f.finish();
    return a;
}

HintEvent parseHint(Fields& f) {
    HintEvent h;
    h.id = static_cast<int32_t>(f.integer("hint", 0, std::numeric_limits<int32_t>::min(), kInt32Max));
    h.text = f.string("text", "", false);
    h.value = static_cast<int32_t>(f.integer("value", 0, std::numeric_limits<int32_t>::min(), kInt32Max));
    h.value2 = static_cast<int32_t>(f.integer("value2", 0, std::numeric_limits<int32_t>::min(), kInt32Max));
    if (const Json::Value* values = f.get("values")) {
        requireArray(*values, f.path("values"));
        for (Json::ArrayIndex i = 0; i < values->size(); ++i) {
            h.values.push_back(static_cast<int32_t>(Fields::checkInteger(
                    (*values)[i], indexed(f.path("values"), i), std::numeric_limits<int32_t>::min(),
                    kInt32Max)));
        }
    }
    return h;
}

TouchEvent parseTouch(Fields& f) {
    TouchEvent t;
    const std::string gesture = f.string("touch", "", true);
    if (gesture == "tap") {
        t.gesture = Gesture::Tap;
        t.durationS = 0.08;
    } else if (gesture == "drag") {
        t.gesture = Gesture::Drag;
        t.durationS = 0.5;
    } else {
        throw ScenarioError(f.path("touch"), "must be \"tap\" or \"drag\", got \"" + gesture + "\"");
    }
    t.layer = f.string("layer", "", true);
    if (!f.get("layer")) throw ScenarioError(f.path("layer"), "missing");
    t.durationS = f.number("duration_s", t.durationS, 0.0, 60.0, true);
    t.intervalMs = f.number("interval_ms", t.intervalMs, 1.0, 1000.0);
    return t;
}

TimelineEvent parseEvent(const Json::Value& v, const std::string& path) {
    Fields f(v, path);
    TimelineEvent e;
    if (!f.get("at_s")) throw ScenarioError(f.path("at_s"), "missing");
    e.atS = f.number("at_s", 0.0, 0.0, 3600.0);
    const int kinds = (v.isMember("hint") ? 1 : 0) + (v.isMember("property") ? 1 : 0) +
            (v.isMember("touch") ? 1 : 0);
    if (kinds != 1) {
        throw ScenarioError(path, "must have exactly one of \"hint\", \"property\", \"touch\"");
    }
    if (v.isMember("hint")) {
        e.kind = EventKind::Hint;
        e.hint = parseHint(f);
    } else if (v.isMember("property")) {
        e.kind = EventKind::Property;
        e.property.key = f.string("property", "", true);
        e.property.value = propertyText(f.require("value"), f.path("value"));
    } else {
        e.kind = EventKind::Touch;
        e.touch = parseTouch(f);
    }
    e.count = static_cast<int>(f.integer("count", 1, 1, 100000));
    e.repeatEveryS = f.number("repeat_every_s", 0.0, 0.0, 3600.0, true);
    if (e.count > 1 && !v.isMember("repeat_every_s")) {
        throw ScenarioError(f.path("repeat_every_s"), "needed when count is above 1");
    }
    if (e.kind == EventKind::Touch && e.count > 1 && e.repeatEveryS <= e.touch.durationS) {
        throw ScenarioError(f.path("repeat_every_s"), "must be longer than the gesture's duration_s");
    }
    f.finish();
    return e;
}

DeviceModel parseDevice(Fields& f) {
    DeviceModel d;
    if (const Json::Value* v = f.get("gpu")) {
        Fields g(*v, "gpu");
        d.gpuBaseMhz = g.number("base_mhz", d.gpuBaseMhz, 1.0, 10000.0);
        d.gpuMaxMhz = g.number("max_mhz", d.gpuMaxMhz, 1.0, 10000.0);
        d.gpuRampMs = g.number("ramp_ms", d.gpuRampMs, 0.0, 1000.0);
        d.gpuWithdrawMs = g.number("withdraw_ms", d.gpuWithdrawMs, 0.0, 1000.0);
        // An object sets the governor; 0 turns it off.
        if (const Json::Value* gov = g.get("governor")) {
            if (gov->isObject()) {
                Fields r(*gov, "gpu.governor");
                d.gpuGovernorMs = r.number("sample_ms", d.gpuGovernorMs, 0.1, 1000.0);
                d.gpuGovernorUp = r.number("up", d.gpuGovernorUp, 0.0, 1.0);
                d.gpuGovernorDown = r.number("down", d.gpuGovernorDown, 0.0, 1.0);
                d.gpuGovernorSteps = static_cast<int>(r.integer("steps", d.gpuGovernorSteps, 1, 100));
                r.finish();
                if (d.gpuGovernorDown > d.gpuGovernorUp) {
                    throw ScenarioError("gpu.governor.down", "must be at most up");
                }
            } else if (gov->isNumeric() && !gov->isBool() && gov->asDouble() == 0.0) {
                d.gpuGovernorMs = 0;
            } else {
                throw ScenarioError("gpu.governor", "must be an object or 0, got " + show(*gov));
            }
        }
        g.finish();
        if (d.gpuMaxMhz < d.gpuBaseMhz) throw ScenarioError("gpu.max_mhz", "must be at least base_mhz");
    }
    if (const Json::Value* v = f.get("cpu")) {
        Fields c(*v, "cpu");
        d.cpuBoostFactor = c.number("boost_factor", d.cpuBoostFactor, 1.0, 10.0);
        d.cpuBoostMs = c.number("boost_ms", d.cpuBoostMs, 0.0, 60000.0);
        d.cpuLowLatencyFactor = c.number("low_latency_factor", d.cpuLowLatencyFactor, 1.0, 10.0);
        d.cpuRampMs = c.number("ramp_ms", d.cpuRampMs, 0.0, 1000.0);
        c.finish();
    }
    if (const Json::Value* v = f.get("compositor")) {
        Fields c(*v, "compositor");
        d.latchOffsetMs = c.number("latch_offset_ms", d.latchOffsetMs, 0.0, 1000.0, true);
        d.presentDelayVsyncs = static_cast<int>(c.integer("present_delay_vsyncs", 1, 1, 8));
        d.latchCostUs = c.number("latch_cost_us", d.latchCostUs, 0.0, 100000.0);
        d.releaseDelayUs = c.number("release_delay_us", d.releaseDelayUs, 0.0, 1000000.0);
        const std::string report = c.string("fence_report", "flush", true);
        if (report != "flush" && report != "now") {
            throw ScenarioError("compositor.fence_report", "must be \"flush\" or \"now\", got \"" + report + "\"");
        }
        d.fenceReportNow = report == "now";
        c.finish();
    }
    if (const Json::Value* v = f.get("scheduler")) {
        Fields c(*v, "scheduler");
        // A number is a fixed latency; an object a spread.
        if (const Json::Value* w = c.get("wakeup_us")) {
            if (w->isObject()) {
                Fields spread(*w, "scheduler.wakeup_us");
                d.wakeupMedianUs = spread.number("median", d.wakeupMedianUs, 0.0, 100000.0);
                d.wakeupP99Us = spread.number("p99", d.wakeupP99Us, 0.0, 100000.0);
                spread.finish();
                if (d.wakeupP99Us < d.wakeupMedianUs) {
                    throw ScenarioError("scheduler.wakeup_us.p99", "must be at least the median");
                }
            } else {
                d.wakeupMedianUs = Fields::checkNumber(*w, "scheduler.wakeup_us", 0.0, 100000.0, false);
                d.wakeupP99Us = d.wakeupMedianUs;
            }
        }
        c.finish();
    }
    return d;
}

std::vector<Phase> parsePhases(const Json::Value& v) {
    requireArray(v, "phases");
    std::vector<Phase> phases;
    std::set<std::string> names;
    for (Json::ArrayIndex i = 0; i < v.size(); ++i) {
        Fields p(v[i], indexed("phases", i));
        Phase phase;
        phase.name = p.string("name", "", true);
        if (!p.get("name")) throw ScenarioError(p.path("name"), "missing");
        phase.fromS = p.number("from_s", 0.0, 0.0, 3600.0);
        p.finish();
        if (i == 0 && phase.fromS != 0) throw ScenarioError(p.path("from_s"), "the first phase must start at 0");
        if (i > 0 && phase.fromS <= phases.back().fromS) {
            throw ScenarioError(p.path("from_s"), "must be after the phase before");
        }
        if (!names.insert(phase.name).second) throw ScenarioError(p.path("name"), "used twice");
        phases.push_back(phase);
    }
    return phases;
}

// jsoncpp reports "* Line 3, Column 5\n  Missing ',' or '}' in object declaration\n...":
// keep the first error on one line.
ScenarioError syntaxError(const std::string& errors) {
    std::istringstream in(errors);
    std::string where, what;
    std::getline(in, where);
    std::getline(in, what);
    auto trim = [](std::string s) {
        const size_t b = s.find_first_not_of(" *\t");
        const size_t e = s.find_last_not_of(" \t\r");
        return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
    };
    where = trim(where);
    what = trim(what);
    for (char& c : where) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (where.empty()) where = "JSON";
    return ScenarioError(where, what.empty() ? "not valid JSON" : what);
}

} // namespace

std::vector<const LayerSetup*> Scenario::layers() const {
    std::vector<const LayerSetup*> all;
    for (const AppSetup& app : apps) {
        for (const LayerSetup& layer : app.layers) all.push_back(&layer);
    }
    return all;
}

LayerSetup* Scenario::findLayer(const std::string& labelOrId) {
    for (AppSetup& app : apps) {
        for (LayerSetup& layer : app.layers) {
            if (layer.label == labelOrId || std::to_string(layer.id) == labelOrId) return &layer;
        }
    }
    return nullptr;
}

std::string Scenario::property(const std::string& key, const std::string& fallback) const {
    std::string value = fallback;
    for (const auto& [k, v] : properties) {
        if (k == key) value = v;
    }
    return value;
}

void Scenario::setProperty(const std::string& key, const std::string& value) {
    for (auto& [k, v] : properties) {
        if (k == key) {
            v = value;
            return;
        }
    }
    properties.emplace_back(key, value);
}

void validateScenario(const Scenario& s) {
    // Below a period, so that each latch still comes before its own vsync (also after --refresh).
    if (s.device.latchOffsetMs >= 1000.0 / s.refreshHz) {
        throw ScenarioError("compositor.latch_offset_ms", "must be below the display's period (" +
                                                                  showNumber(1000.0 / s.refreshHz) + " ms)");
    }
    std::set<int32_t> ids;
    std::set<std::string> labels;
    int smartTouch = 0;
    for (size_t a = 0; a < s.apps.size(); ++a) {
        for (size_t l = 0; l < s.apps[a].layers.size(); ++l) {
            const LayerSetup& layer = s.apps[a].layers[l];
            const std::string path = "apps[" + std::to_string(a) + "].layers[" + std::to_string(l) + "]";
            if (!ids.insert(layer.id).second) {
                throw ScenarioError(path + ".id", "layer id " + std::to_string(layer.id) + " is used twice");
            }
            if (!labels.insert(layer.label).second) {
                throw ScenarioError(path + ".label", "label \"" + layer.label + "\" is used twice");
            }
            smartTouch += layer.smartTouch;
            if (smartTouch > 1) {
                // The app-side state is one per process, and every app lives in this one.
                throw ScenarioError(path + ".smart_touch", "only one layer may ask for smart touch");
            }
        }
    }
    for (size_t i = 0; i < s.timeline.size(); ++i) {
        const TimelineEvent& e = s.timeline[i];
        if (e.kind != EventKind::Touch) continue;
        bool found = false;
        for (const LayerSetup* layer : s.layers()) found = found || layer->label == e.touch.layer;
        if (!found) {
            throw ScenarioError("timeline[" + std::to_string(i) + "].layer",
                                "no layer is labelled \"" + e.touch.layer + "\"");
        }
    }
}

const char* loopName(AppLoop loop) {
    switch (loop) {
        case AppLoop::Choreographer: return "choreographer";
        case AppLoop::Free: return "free";
        case AppLoop::PresentTime: return "present_time";
    }
    return "?";
}

bool parseLoop(const std::string& name, AppLoop* loop) {
    for (AppLoop l : {AppLoop::Choreographer, AppLoop::Free, AppLoop::PresentTime}) {
        if (name == loopName(l)) {
            *loop = l;
            return true;
        }
    }
    return false;
}

Json::Value parseStrictJson(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["allowComments"] = true;
    builder["rejectDupKeys"] = true;
    builder["failIfExtra"] = true;
    builder["strictRoot"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        throw syntaxError(errors);
    }
    return root;
}

bool writeJsonFile(const std::string& path, const Json::Value& value) {
    std::ofstream out(path);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    out << Json::writeString(builder, value) << "\n";
    out.close();
    return static_cast<bool>(out);
}

Scenario parseScenario(const std::string& text) {
    const Json::Value root = parseStrictJson(text);
    Fields f(root, "");
    Scenario s;
    s.name = f.string("name", "unnamed", true);
    s.description = f.string("description", "", false);
    s.durationS = f.number("duration_s", 10.0, 0.0, 3600.0, true);
    s.seed = static_cast<uint32_t>(f.integer("seed", 1, 0, std::numeric_limits<uint32_t>::max()));
    if (const Json::Value* d = f.get("display")) {
        Fields display(*d, "display");
        s.width = static_cast<int32_t>(display.integer("width", s.width, 1, 16384));
        s.height = static_cast<int32_t>(display.integer("height", s.height, 1, 16384));
        s.refreshHz = display.number("refresh_hz", s.refreshHz, 0.0, 480.0, true);
        display.finish();
    }
    if (const Json::Value* props = f.get("properties")) {
        Fields p(*props, "properties");
        for (const std::string& key : props->getMemberNames()) {
            s.properties.emplace_back(key, propertyText(*p.get(key), p.path(key)));
        }
        p.finish();
    }
    const Json::Value& apps = requireArray(f.require("apps"), "apps");
    if (apps.empty()) throw ScenarioError("apps", "must hold at least one app");
    for (Json::ArrayIndex i = 0; i < apps.size(); ++i) {
        s.apps.push_back(parseApp(apps[i], indexed("apps", i), i, s));
    }
    if (const Json::Value* timeline = f.get("timeline")) {
        requireArray(*timeline, "timeline");
        for (Json::ArrayIndex i = 0; i < timeline->size(); ++i) {
            s.timeline.push_back(parseEvent((*timeline)[i], indexed("timeline", i)));
        }
    }
    s.device = parseDevice(f);
    if (const Json::Value* phases = f.get("phases")) s.phases = parsePhases(*phases);
    f.finish();

    // Layers without an id get free ones from 1001 on; without a name, a SurfaceView name of
    // their package, which the library recognises.
    std::set<int32_t> used;
    for (const LayerSetup* layer : s.layers()) used.insert(layer->id);
    int32_t next = 1001;
    for (AppSetup& app : s.apps) {
        for (LayerSetup& layer : app.layers) {
            if (layer.id == 0) {
                while (used.count(next)) ++next;
                layer.id = next;
                used.insert(next);
            }
            if (layer.name.empty()) {
                layer.name = "SurfaceView[" + app.package + "/" + app.package +
                        ".MainActivity](BLAST)#" + std::to_string(layer.id);
            }
        }
    }
    validateScenario(s);
    std::stable_sort(s.timeline.begin(), s.timeline.end(),
                     [](const TimelineEvent& a, const TimelineEvent& b) { return a.atS < b.atS; });
    return s;
}

} // namespace pelyx_sim
