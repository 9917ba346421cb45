#include "Summary.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <cstdio>
#include <functional>
#include <sstream>

namespace pelyx_sim {
namespace {

Json::Value number(double v) {
    if (!std::isfinite(v)) return Json::Value();  // null: nothing measured
    return Json::Value(std::round(v * 1000.0) / 1000.0);
}

Json::Value boostsJson(const BoostCounts& b) {
    Json::Value v(Json::objectValue);
    v["level1"] = b.level1;
    v["level2"] = b.level2;
    v["level3"] = b.level3;
    v["withdrawn"] = b.withdrawn;
    return v;
}

Json::Value latencyJson(const std::vector<double>& ms, const char* counted = "frames") {
    Json::Value latency(Json::objectValue);
    latency[counted] = static_cast<int>(ms.size());
    latency["p50"] = number(percentile(ms, 50));
    latency["p95"] = number(percentile(ms, 95));
    return latency;
}

Json::Value timelineJson(const FrameTimelineCounts& t) {
    Json::Value v(Json::objectValue);
    v["on_time"] = t.onTime;
    v["late"] = t.late;
    v["late_vsyncs"] = t.lateVsyncs;
    Json::Value causes(Json::objectValue);
    for (int c = 1; c <= kJankCauses; ++c) causes[causeName(static_cast<LateCause>(c))] = t.of(static_cast<LateCause>(c));
    v["by_cause"] = causes;
    Json::Value stuffing(Json::objectValue);
    stuffing["frames"] = t.stuffed();
    stuffing["late_ms_p50"] = number(percentile(t.stuffedLateMs, 50));
    stuffing["late_ms_p95"] = number(percentile(t.stuffedLateMs, 95));
    v["buffer_stuffing"] = stuffing;
    return v;
}

Json::Value layerJson(const LayerResult& l) {
    Json::Value v(Json::objectValue);
    v["label"] = l.label;
    v["name"] = l.name;
    v["id"] = l.id;
    v["package"] = l.package;
    v["game"] = l.game;
    v["loop"] = l.loop;
    v["promoted"] = l.promoted;
    v["fps_mode"] = l.fpsMode();
    Json::Value modes(Json::arrayValue);
    for (const ModeChange& m : l.fpsModes) {
        Json::Value change(Json::objectValue);
        change["t_s"] = number(m.atS);
        change["mode"] = m.mode;
        modes.append(change);
    }
    v["fps_modes"] = modes;
    v["frames_queued"] = Json::Int64(l.framesQueued);
    v["frames_presented"] = Json::Int64(l.framesPresented);
    v["presented_fps"] = number(l.presentedFps);
    v["rhythm_janks"] = l.rhythmJanks;
    v["frame_timeline"] = timelineJson(l.timeline);
    Json::Value phases(Json::arrayValue);
    for (const PhaseResult& p : l.phases) {
        Json::Value phase(Json::objectValue);
        phase["name"] = p.name;
        phase["from_s"] = number(p.fromS);
        phase["to_s"] = number(p.toS);
        phase["frames_presented"] = Json::Int64(p.framesPresented);
        phase["input_to_present_ms"] = latencyJson(p.inputToPresentMs);
        phase["touch_event_to_present_ms"] = latencyJson(p.touchEventToPresentMs, "events");
        phase["frame_timeline"] = timelineJson(p.timeline);
        phase["rhythm_janks"] = p.rhythmJanks;
        phases.append(phase);
    }
    v["phases"] = phases;
    Json::Value holds(Json::objectValue);
    holds["count"] = static_cast<int>(l.holdsMs.size());
    holds["p50_ms"] = number(percentile(l.holdsMs, 50));
    holds["p99_ms"] = number(percentile(l.holdsMs, 99));
    holds["quick_touch"] = l.quickTouchHolds;
    v["holds"] = holds;
    Json::Value boosts = boostsJson(l.boosts);
    boosts["attributed"] = l.boostsAttributed;
    boosts["service"] = l.serviceBoosts;
    v["boosts"] = boosts;
    v["input_to_present_ms"] = latencyJson(l.inputToPresentMs);
    v["touch_event_to_present_ms"] = latencyJson(l.touchEventToPresentMs, "events");
    v["target_fps"] = l.targetFps ? number(*l.targetFps) : Json::Value();
    v["last_second_fps"] = number(l.lastSecondFps);
    v["target_fps_active"] = l.targetFpsActive;
    v["quick_touch"] = l.quickTouch();
    Json::Value touch(Json::objectValue);
    touch["instant_buffers"] = l.instantBuffers;
    touch["moves_consumed_now"] = l.movesConsumedNow;
    touch["moves_held"] = l.movesHeld;
    v["smart_touch"] = touch;
    Json::Value gpu(Json::objectValue);
    gpu["late_fences"] = l.lateFences;
    gpu["deadline_requests"] = l.deadlineRequests;
    v["gpu"] = gpu;
    if (!l.replayFile.empty()) {
        Json::Value replay(Json::objectValue);
        replay["file"] = l.replayFile;
        replay["frames"] = static_cast<Json::UInt64>(l.replayFrames);
        replay["replayed"] = static_cast<Json::UInt64>(l.replayed);
        replay["median_ms"] = number(l.replayMedianMs);
        replay["expected_fps_mode"] = l.expectedFpsMode;
        replay["longest_fps_mode"] = l.longestFpsMode;
        v["replay"] = replay;
    } else {
        v["replay"] = Json::Value();
    }
    return v;
}

Json::Value strings(const std::vector<std::string>& lines) {
    Json::Value v(Json::arrayValue);
    for (const std::string& line : lines) v.append(line);
    return v;
}

} // namespace

int longestMode(const std::vector<ModeChange>& modes, double endS) {
    std::map<int, double> held;
    for (size_t i = 0; i < modes.size(); ++i) {
        const double until = i + 1 < modes.size() ? modes[i + 1].atS : endS;
        held[modes[i].mode] += std::max(0.0, until - modes[i].atS);
    }
    int best = -1;
    double longest = -1;
    for (const auto& [mode, seconds] : held) {
        if (mode != -1 && seconds > longest) {
            best = mode;
            longest = seconds;
        }
    }
    return best;
}

Json::Value toJson(const RunResult& r) {
    Json::Value root(Json::objectValue);
    root["schema"] = kSummarySchema;
    root["scenario"] = r.scenario;
    root["library_enabled"] = r.libraryEnabled;
    root["clock"] = r.virtualClock ? "virtual" : "real";
    root["vsync_phase"] = number(r.vsyncPhase);
    root["seed"] = r.seed;
    root["duration_s"] = number(r.durationS);
    // From the host, unlike everything else on the virtual clock: not the same from run to run.
    root["wall_s"] = number(r.wallS);
    if (r.virtualClock) root["handoffs"] = static_cast<Json::UInt64>(r.handoffs);
    Json::Value display(Json::objectValue);
    display["width"] = r.width;
    display["height"] = r.height;
    display["refresh_hz"] = number(r.refreshHz);
    root["display"] = display;
    Json::Value layers(Json::arrayValue);
    for (const LayerResult& l : r.layers) layers.append(layerJson(l));
    root["layers"] = layers;
    Json::Value boosts = boostsJson(r.boosts);
    boosts["records"] = static_cast<Json::UInt64>(r.boostRecords);
    boosts["device_opened"] = r.boostDeviceOpened;
    root["boosts"] = boosts;
    Json::Value records(Json::arrayValue);
    for (const BoostRecord& b : r.boostRecordList) {
        Json::Value record(Json::objectValue);
        record["t_s"] = number(static_cast<double>(b.timeNs) / 1e9);
        record["level"] = b.level;
        record["headroom"] = b.headroom;
        record["frequency"] = b.frequency;
        records.append(record);
    }
    root["boost_records"] = records;
    root["first_act_s"] = r.firstActS >= 0 ? number(r.firstActS) : Json::Value();
    Json::Value gpu(Json::objectValue);
    gpu["base_mhz"] = number(r.gpuBaseMhz);
    gpu["max_mhz"] = number(r.gpuMaxMhz);
    root["gpu"] = gpu;
    Json::Value events(Json::objectValue);
    for (const auto& [id, count] : r.perfEvents) events[std::to_string(id)] = count;
    root["perf_events"] = events;
    Json::Value reports(Json::arrayValue);
    for (const SceneReport& report : r.sceneReports) reports.append(report.json);
    root["scene_reports"] = reports;
    Json::Value pids(Json::arrayValue);
    for (int pid : r.lowLatencyPids) pids.append(pid);
    root["low_latency_pids"] = pids;
    root["target_fps_active"] = r.targetFpsActive;
    root["touch_boosts"] = r.touchBoosts;
    Json::Value hints(Json::objectValue);
    hints["delivered"] = r.hintsDelivered;
    hints["refused"] = r.hintsRefused;
    root["hints"] = hints;
    Json::Value vsync(Json::objectValue);
    vsync["count"] = Json::Int64(r.vsyncs);
    vsync["missed"] = Json::Int64(r.vsyncsMissed);
    vsync["late_p99_ms"] = number(r.vsyncLateP99Ms);
    root["vsync"] = vsync;
    Json::Value cpu(Json::objectValue);
    double cpuTotalMs = 0;
    for (const auto& [thread, ms] : r.libraryThreadCpuMs) {
        cpu[thread] = number(ms);
        cpuTotalMs += ms;
    }
    cpu["ms_per_s"] = number(r.durationS > 0 ? cpuTotalMs / r.durationS : 0);
    root["library_cpu_ms"] = cpu;
    root["log_errors"] = r.logErrors;
    root["log_warnings"] = r.logWarnings;
    root["log_error_lines"] = strings(r.errorLines);
    root["log_warning_lines"] = strings(r.warningLines);
    if (r.trace) {
        Json::Value trace(Json::objectValue);
        trace["file"] = r.trace->path;
        trace["events"] = static_cast<Json::UInt64>(r.trace->events);
        trace["simulator_slices"] = static_cast<Json::UInt64>(r.trace->simulatorSlices);
        trace["library_slices"] = static_cast<Json::UInt64>(r.trace->librarySlices);
        trace["balanced"] = r.trace->balanced;
        trace["problems"] = strings(r.trace->problems);
        root["trace"] = trace;
    } else {
        root["trace"] = Json::Value();
    }
    root["failures"] = strings(r.failures);
    return root;
}

namespace {

using Check = std::function<bool(const Json::Value&)>;

const Check kInt = [](const Json::Value& v) { return v.isIntegral() && !v.isBool(); };
const Check kNumber = [](const Json::Value& v) { return v.isNumeric() && !v.isBool(); };
const Check kNumberOrNull = [](const Json::Value& v) { return v.isNull() || (v.isNumeric() && !v.isBool()); };
const Check kBool = [](const Json::Value& v) { return v.isBool(); };
const Check kString = [](const Json::Value& v) { return v.isString(); };
const Check kObject = [](const Json::Value& v) { return v.isObject(); };
const Check kArray = [](const Json::Value& v) { return v.isArray(); };

void expect(const Json::Value& parent, const std::string& path, const char* key, const Check& check,
            const char* what, std::vector<std::string>* problems) {
    if (!parent.isObject() || !parent.isMember(key)) {
        problems->push_back(path + key + ": missing");
    } else if (!check(parent[key])) {
        problems->push_back(path + key + ": must be " + what);
    }
}

} // namespace

std::vector<std::string> checkSummary(const Json::Value& s) {
    std::vector<std::string> problems;
    if (!s.isObject()) return {"(top level): must be an object"};
    expect(s, "", "schema", [](const Json::Value& v) { return v.isString() && v.asString() == kSummarySchema; },
           kSummarySchema, &problems);
    expect(s, "", "duration_s", kNumber, "a number", &problems);
    expect(s, "", "library_enabled", kBool, "a boolean", &problems);
    expect(s, "", "layers", kArray, "an array", &problems);
    expect(s, "", "perf_events", kObject, "an object", &problems);
    expect(s, "", "scene_reports", kArray, "an array", &problems);
    expect(s, "", "low_latency_pids", kArray, "an array", &problems);
    expect(s, "", "log_errors", kInt, "an integer", &problems);
    if (s["perf_events"].isObject()) {
        for (const std::string& id : s["perf_events"].getMemberNames()) {
            const bool numeric = !id.empty() && id.find_first_not_of("0123456789") == std::string::npos;
            if (!numeric || !kInt(s["perf_events"][id])) {
                problems.push_back("perf_events." + id + ": must be an event id with a count");
            }
        }
    }
    if (s["scene_reports"].isArray()) {
        for (Json::ArrayIndex i = 0; i < s["scene_reports"].size(); ++i) {
            if (!s["scene_reports"][i].isString()) {
                problems.push_back("scene_reports[" + std::to_string(i) + "]: must be a string");
            }
        }
    }
    if (s["low_latency_pids"].isArray()) {
        for (Json::ArrayIndex i = 0; i < s["low_latency_pids"].size(); ++i) {
            if (!kInt(s["low_latency_pids"][i])) {
                problems.push_back("low_latency_pids[" + std::to_string(i) + "]: must be an integer");
            }
        }
    }
    if (!s["layers"].isArray()) return problems;
    for (Json::ArrayIndex i = 0; i < s["layers"].size(); ++i) {
        const Json::Value& l = s["layers"][i];
        const std::string p = "layers[" + std::to_string(i) + "].";
        if (!l.isObject()) {
            problems.push_back(p + ": must be an object");
            continue;
        }
        expect(l, p, "name", kString, "a string", &problems);
        expect(l, p, "package", kString, "a string", &problems);
        expect(l, p, "promoted", kBool, "a boolean", &problems);
        expect(l, p, "fps_mode", kInt, "an integer", &problems);
        expect(l, p, "frames_queued", kInt, "an integer", &problems);
        expect(l, p, "frames_presented", kInt, "an integer", &problems);
        expect(l, p, "rhythm_janks", kInt, "an integer", &problems);
        expect(l, p, "frame_timeline", kObject, "an object", &problems);
        for (const char* key : {"on_time", "late", "late_vsyncs"}) {
            expect(l["frame_timeline"], p + "frame_timeline.", key, kInt, "an integer", &problems);
        }
        expect(l["frame_timeline"], p + "frame_timeline.", "by_cause", kObject, "an object", &problems);
        expect(l, p, "phases", kArray, "an array", &problems);
        expect(l, p, "holds", kObject, "an object", &problems);
        expect(l["holds"], p + "holds.", "count", kInt, "an integer", &problems);
        expect(l["holds"], p + "holds.", "p50_ms", kNumberOrNull, "a number or null", &problems);
        expect(l["holds"], p + "holds.", "p99_ms", kNumberOrNull, "a number or null", &problems);
        expect(l, p, "boosts", kObject, "an object", &problems);
        for (const char* level : {"level1", "level2", "level3", "withdrawn"}) {
            expect(l["boosts"], p + "boosts.", level, kInt, "an integer", &problems);
        }
        expect(l, p, "input_to_present_ms", kObject, "an object", &problems);
        expect(l["input_to_present_ms"], p + "input_to_present_ms.", "p50", kNumberOrNull,
               "a number or null", &problems);
        expect(l["input_to_present_ms"], p + "input_to_present_ms.", "p95", kNumberOrNull,
               "a number or null", &problems);
        expect(l, p, "target_fps_active", kBool, "a boolean", &problems);
        expect(l, p, "quick_touch", kBool, "a boolean", &problems);
    }
    return problems;
}

namespace {

std::string fmt(const char* format, double v) {
    char text[64];
    snprintf(text, sizeof(text), format, v);
    return text;
}

std::string ms(const Json::Value& v) {
    return v.isNumeric() ? fmt("%.1f", v.asDouble()) : "-";
}

std::string modeHistory(const Json::Value& modes) {
    std::string text;
    for (const Json::Value& m : modes) {
        if (!text.empty()) text += " -> ";
        text += std::to_string(m["mode"].asInt()) + " @" + fmt("%.1fs", m["t_s"].asDouble());
    }
    return text.empty() ? "none reported" : text;
}

std::string pad(const std::string& text, size_t width) {
    return text.size() >= width ? text + " " : text + std::string(width - text.size(), ' ');
}

// "app deadline 2, GPU 1, composition 0; buffer stuffing 5 frames (+16.7 ms p50)".
std::string causes(const Json::Value& timeline) {
    const Json::Value& c = timeline["by_cause"];
    const Json::Value& stuffing = timeline["buffer_stuffing"];
    std::string text = "app deadline " + std::to_string(c["app_deadline"].asInt()) + ", GPU " +
            std::to_string(c["gpu_late"].asInt()) + ", composition " + std::to_string(c["composition"].asInt()) +
            "; buffer stuffing " + std::to_string(stuffing["frames"].asInt()) + " frames";
    if (stuffing["late_ms_p50"].isNumeric()) text += " (+" + ms(stuffing["late_ms_p50"]) + " ms p50)";
    return text;
}

// "54.6/60.1 ms (56)", or "-" with nothing measured.
std::string latency(const Json::Value& l, const char* counted) {
    if (!l[counted].asInt()) return "-";
    return ms(l["p50"]) + "/" + ms(l["p95"]) + " ms (" + std::to_string(l[counted].asInt()) + ")";
}

} // namespace

void printReport(const Json::Value& s, std::ostream& out) {
    const Json::Value& d = s["display"];
    out << "pelyx-sim: scenario \"" << s["scenario"].asString() << "\", "
        << fmt("%.1f", s["duration_s"].asDouble()) << " s at " << fmt("%g", d["refresh_hz"].asDouble())
        << " Hz (" << d["width"].asInt() << "x" << d["height"].asInt() << "), library "
        << (s["library_enabled"].asBool() ? "enabled" : "disabled") << ", " << s["clock"].asString()
        << " clock (" << fmt("%.2f", s["wall_s"].asDouble()) << " s of wall time)";
    if (s["vsync_phase"].asDouble() != 0) out << ", vsyncs " << fmt("%g", s["vsync_phase"].asDouble()) << " of a period early";
    out << "\n\n";

    out << pad("layer", 10) << pad("promoted", 9) << pad("mode", 5) << pad("queued", 7)
        << pad("shown", 7) << pad("fps", 6) << pad("janks/vsyncs", 13) << pad("holds n/p50/p99 ms", 20)
        << pad("boosts L1/L2/L3/wd", 19) << pad("touch->present p50/p95 ms", 26)
        << pad("target", 8) << "QT\n";
    for (const Json::Value& l : s["layers"]) {
        const Json::Value& h = l["holds"];
        const Json::Value& b = l["boosts"];
        const Json::Value& lat = l["input_to_present_ms"];
        std::string boosts = std::to_string(b["level1"].asInt()) + "/" + std::to_string(b["level2"].asInt()) +
                "/" + std::to_string(b["level3"].asInt()) + "/" + std::to_string(b["withdrawn"].asInt());
        if (!b["attributed"].asBool()) boosts = "(run)";
        std::string target = "-";
        if (l["target_fps"].isNumeric()) {
            target = fmt("%g", l["target_fps"].asDouble()) + (l["target_fps_active"].asBool() ? " on" : " off");
        }
        out << pad(l["label"].asString(), 10) << pad(l["promoted"].asBool() ? "yes" : "no", 9)
            << pad(std::to_string(l["fps_mode"].asInt()), 5)
            << pad(std::to_string(l["frames_queued"].asInt64()), 7)
            << pad(std::to_string(l["frames_presented"].asInt64()), 7)
            << pad(ms(l["presented_fps"]), 6)
            << pad(std::to_string(l["frame_timeline"]["late"].asInt()) + "/" +
                           std::to_string(l["frame_timeline"]["late_vsyncs"].asInt()),
                   13)
            << pad(std::to_string(h["count"].asInt()) + "/" + ms(h["p50_ms"]) + "/" + ms(h["p99_ms"]), 20)
            << pad(boosts, 19) << pad(ms(lat["p50"]) + "/" + ms(lat["p95"]) + " (" +
                                              std::to_string(lat["frames"].asInt()) + ")",
                                      26)
            << pad(target, 8) << (l["quick_touch"].asBool() ? "yes" : "no") << "\n";
    }
    out << "\n";
    for (const Json::Value& l : s["layers"]) {
        out << l["label"].asString() << " (" << l["package"].asString() << ", layer " << l["id"].asInt()
            << ", " << l["loop"].asString() << " loop): fps modes " << modeHistory(l["fps_modes"])
            << "; touch event->present p50/p95 " << latency(l["touch_event_to_present_ms"], "events");
        const Json::Value& t = l["smart_touch"];
        if (t["instant_buffers"].asInt() || t["moves_consumed_now"].asInt() || t["moves_held"].asInt()) {
            out << "; smart touch: " << t["instant_buffers"].asInt() << " instant buffers, "
                << t["moves_consumed_now"].asInt() << " moves consumed now, " << t["moves_held"].asInt()
                << " held";
        }
        const Json::Value& g = l["gpu"];
        if (g["late_fences"].asInt()) {
            out << "; late GPU fences " << g["late_fences"].asInt() << ", deadline requests "
                << g["deadline_requests"].asInt();
        }
        if (l["boosts"]["service"].asInt()) out << "; boost events " << l["boosts"]["service"].asInt();
        const Json::Value& ft = l["frame_timeline"];
        out << "; janks by cause: " << causes(ft) << "; rhythm janks " << l["rhythm_janks"].asInt();
        if (l["replay"].isObject()) {
            const Json::Value& r = l["replay"];
            out << "; replayed " << r["replayed"].asUInt64() << "/" << r["frames"].asUInt64()
                << " frames of " << r["file"].asString() << " (median " << ms(r["median_ms"])
                << " ms); mode held longest " << r["longest_fps_mode"].asInt() << ", expected "
                << r["expected_fps_mode"].asInt();
        }
        out << "\n";
        for (const Json::Value& p : l["phases"]) {
            const Json::Value& lat = p["input_to_present_ms"];
            out << "  " << pad(p["name"].asString(), 14) << fmt("%5.1f", p["from_s"].asDouble()) << "-"
                << pad(fmt("%.1f s", p["to_s"].asDouble()), 8) << "touch->present per frame " << latency(lat, "frames")
                << ", per event " << latency(p["touch_event_to_present_ms"], "events") << "; janks "
                << p["frame_timeline"]["late"].asInt() << " (" << p["frame_timeline"]["late_vsyncs"].asInt()
                << " vsyncs): " << causes(p["frame_timeline"]) << "\n";
        }
    }
    const Json::Value& b = s["boosts"];
    out << "\nboost device: " << b["records"].asUInt64() << " records, L1 " << b["level1"].asInt()
        << ", L2 " << b["level2"].asInt() << ", L3 " << b["level3"].asInt() << ", withdrawn "
        << b["withdrawn"].asInt() << "\n";
    out << "perf events:";
    if (s["perf_events"].empty()) out << " none";
    for (const std::string& id : s["perf_events"].getMemberNames()) {
        out << " " << id << "x" << s["perf_events"][id].asInt();
    }
    out << "\nscene reports: " << s["scene_reports"].size();
    if (!s["scene_reports"].empty()) {
        out << ", last " << s["scene_reports"][s["scene_reports"].size() - 1].asString();
    }
    out << "\nlow latency pids:";
    if (s["low_latency_pids"].empty()) out << " none";
    for (const Json::Value& pid : s["low_latency_pids"]) out << " " << pid.asInt();
    out << "\ntarget fps active: " << (s["target_fps_active"].asBool() ? "yes" : "no")
        << "; touch boosts " << s["touch_boosts"].asInt() << "; hints delivered "
        << s["hints"]["delivered"].asInt() << ", refused " << s["hints"]["refused"].asInt() << "\n";
    const Json::Value& v = s["vsync"];
    out << "vsync: " << v["count"].asInt64() << " ticks, " << v["missed"].asInt64()
        << " missed, wake-up lateness p99 " << ms(v["late_p99_ms"]) << " ms\n";
    if (s.isMember("library_cpu_ms")) {
        const Json::Value& cpu = s["library_cpu_ms"];
        out << "library threads CPU:";
        for (const std::string& thread : cpu.getMemberNames()) {
            if (thread != "ms_per_s") out << " " << thread << " " << ms(cpu[thread]) << " ms";
        }
        out << " (" << ms(cpu["ms_per_s"]) << " ms per simulated second)\n";
    }
    out << "log: " << s["log_errors"].asInt() << " errors, " << s["log_warnings"].asInt()
        << " warnings\n";
    for (const Json::Value& line : s["log_error_lines"]) out << "  E " << line.asString() << "\n";
    for (const Json::Value& line : s["log_warning_lines"]) out << "  W " << line.asString() << "\n";
    if (s["trace"].isObject()) {
        const Json::Value& t = s["trace"];
        out << "trace: " << t["file"].asString() << ", " << t["events"].asUInt64() << " events ("
            << t["simulator_slices"].asUInt64() << " simulator slices, " << t["library_slices"].asUInt64()
            << " library slices), " << (t["balanced"].asBool() ? "balanced" : "NOT balanced") << "\n";
        for (const Json::Value& p : t["problems"]) out << "  " << p.asString() << "\n";
    }
    for (const Json::Value& f : s["failures"]) out << "FAILURE: " << f.asString() << "\n";
}

namespace {

const Json::Value& layerByLabel(const Json::Value& s, const std::string& label) {
    static const Json::Value kNone;
    for (const Json::Value& l : s["layers"]) {
        if (l["label"].asString() == label) return l;
    }
    return kNone;
}

const Json::Value& phaseByName(const Json::Value& layer, const std::string& name) {
    static const Json::Value kNone;
    for (const Json::Value& p : layer["phases"]) {
        if (p["name"].asString() == name) return p;
    }
    return kNone;
}

std::string count(const Json::Value& v) {
    return v.isNumeric() ? std::to_string(v.asInt64()) : "-";
}

std::string delta(const Json::Value& a, const Json::Value& b, const char* unit) {
    if (!a.isNumeric() || !b.isNumeric()) return "";
    const double d = b.asDouble() - a.asDouble();
    std::string text = fmt("%+.1f", d) + unit;
    if (a.asDouble() != 0) text += " (" + fmt("%+.0f", 100.0 * d / a.asDouble()) + "%)";
    return text;
}

using Get = std::function<Json::Value(const Json::Value& layer)>;

Get at(std::vector<std::string> path) {
    return [path](const Json::Value& layer) {
        const Json::Value* v = &layer;
        for (const std::string& key : path) {
            if (!v->isObject() || !v->isMember(key)) return Json::Value();
            v = &(*v)[key];
        }
        return *v;
    };
}

Get inPhase(const std::string& phase, std::vector<std::string> path) {
    return [phase, get = at(std::move(path))](const Json::Value& layer) { return get(phaseByName(layer, phase)); };
}

// One layer in runs that differ only in the library's switch: (disabled, enabled), the first
// pair at the scenario's own vsync phase.
using LayerPairs = std::vector<std::pair<const Json::Value*, const Json::Value*>>;

// "-15.0..-13.1": the change over every pair, when there are several to compare.
std::string changeRange(const LayerPairs& pairs, const Get& get, bool integer = false) {
    double lo = 0, hi = 0;
    int n = 0;
    for (const auto& [a, b] : pairs) {
        const Json::Value va = get(*a), vb = get(*b);
        if (!va.isNumeric() || !vb.isNumeric()) continue;
        const double d = vb.asDouble() - va.asDouble();
        lo = n ? std::min(lo, d) : d;
        hi = n ? std::max(hi, d) : d;
        ++n;
    }
    if (n < 2) return "";
    const char* format = integer ? "%+.0f" : "%+.1f";
    return fmt(format, lo) + ".." + fmt(format, hi);
}

class ComparisonTable {
public:
    ComparisonTable(std::ostream& out, const LayerPairs& pairs) : mOut(out), mPairs(pairs) {}

    // A figure with its change, and the change's range over the vsync phases.
    void figure(const std::string& name, const Get& get, const char* unit, bool integer = false) {
        const Json::Value a = get(*mPairs[0].first), b = get(*mPairs[0].second);
        auto show = [integer](const Json::Value& v) { return integer ? count(v) : ms(v); };
        line(name, show(a), show(b), delta(a, b, unit), changeRange(mPairs, get, integer));
    }
    // Shown side by side, without a change.
    void plain(const std::string& name, const std::function<std::string(const Json::Value&)>& show) {
        line(name, show(*mPairs[0].first), show(*mPairs[0].second), "", "");
    }

private:
    void line(const std::string& name, const std::string& a, const std::string& b, const std::string& change,
              const std::string& range) {
        mOut << "  " << pad(name, 26) << pad(a, 14) << pad(b, 14);
        if (mPairs.size() > 1) {
            mOut << pad(change, 20) << range;
        } else {
            mOut << change;
        }
        mOut << "\n";
    }

    std::ostream& mOut;
    const LayerPairs& mPairs;
};

} // namespace

void printComparison(const Json::Value& off, const Json::Value& on, std::ostream& out,
                     const std::vector<std::pair<Json::Value, Json::Value>>& otherPhases) {
    out << "pelyx-sim --compare: scenario \"" << on["scenario"].asString() << "\", "
        << fmt("%.1f", on["duration_s"].asDouble()) << " s per run\n\n";
    out << "  " << pad("", 26) << pad("disabled", 14) << pad("enabled", 14) << "change";
    if (!otherPhases.empty()) {
        out << std::string(14, ' ') << "over " << otherPhases.size() + 1 << " vsync phases";
    }
    out << "\n";
    for (const Json::Value& b : on["layers"]) {
        const std::string label = b["label"].asString();
        LayerPairs pairs{{&layerByLabel(off, label), &b}};
        for (const auto& [o, e] : otherPhases) pairs.emplace_back(&layerByLabel(o, label), &layerByLabel(e, label));
        ComparisonTable t(out, pairs);
        out << label << " (" << b["package"].asString() << ", " << b["loop"].asString() << " loop)\n";
        t.figure("touch->present p50 ms", at({"input_to_present_ms", "p50"}), " ms");
        t.figure("touch->present p95 ms", at({"input_to_present_ms", "p95"}), " ms");
        t.figure("touch event->present p50", at({"touch_event_to_present_ms", "p50"}), " ms");
        t.figure("touch event->present p95", at({"touch_event_to_present_ms", "p95"}), " ms");
        t.figure("frames with touch", at({"input_to_present_ms", "frames"}), "", true);
        t.figure("touch events shown", at({"touch_event_to_present_ms", "events"}), "", true);
        t.figure("frames queued", at({"frames_queued"}), "", true);
        t.figure("frames presented", at({"frames_presented"}), "", true);
        t.figure("janks", at({"frame_timeline", "late"}), "", true);
        t.figure("jank vsyncs", at({"frame_timeline", "late_vsyncs"}), "", true);
        for (const char* cause : {"app_deadline", "gpu_late", "composition"}) {
            t.plain(std::string("  janks: ") + cause,
                    [cause](const Json::Value& l) { return count(l["frame_timeline"]["by_cause"][cause]); });
        }
        t.figure("buffer-stuffed frames", at({"frame_timeline", "buffer_stuffing", "frames"}), "", true);
        t.figure("  stuffed: late p50 ms", at({"frame_timeline", "buffer_stuffing", "late_ms_p50"}), " ms");
        t.figure("rhythm janks", at({"rhythm_janks"}), "", true);
        for (const Json::Value& pb : b["phases"]) {
            const std::string name = pb["name"].asString();
            out << "  " << name << " " << fmt("%.1f", pb["from_s"].asDouble()) << "-"
                << fmt("%.1f s", pb["to_s"].asDouble()) << "\n";
            t.figure("  touch->present p50 ms", inPhase(name, {"input_to_present_ms", "p50"}), " ms");
            t.figure("  touch->present p95 ms", inPhase(name, {"input_to_present_ms", "p95"}), " ms");
            t.figure("  touch event p50 ms", inPhase(name, {"touch_event_to_present_ms", "p50"}), " ms");
            t.figure("  touch event p95 ms", inPhase(name, {"touch_event_to_present_ms", "p95"}), " ms");
            t.plain("  janks / vsyncs", [name](const Json::Value& l) {
                const Json::Value& f = phaseByName(l, name)["frame_timeline"];
                return count(f["late"]) + " / " + count(f["late_vsyncs"]);
            });
            t.figure("  buffer-stuffed frames", inPhase(name, {"frame_timeline", "buffer_stuffing", "frames"}), "", true);
        }
        t.figure("holds", at({"holds", "count"}), "", true);
        t.plain("hold p50 / p99 ms",
                [](const Json::Value& l) { return ms(l["holds"]["p50_ms"]) + " / " + ms(l["holds"]["p99_ms"]); });
        t.plain("boosts L1/L2/L3/withdrawn", [](const Json::Value& l) {
            const Json::Value& x = l["boosts"];
            return count(x["level1"]) + "/" + count(x["level2"]) + "/" + count(x["level3"]) + "/" + count(x["withdrawn"]);
        });
        t.plain("fps mode (last)", [](const Json::Value& l) { return count(l["fps_mode"]); });
    }
    out << "run\n";
    auto runRow = [&out](const std::string& name, const std::string& a, const std::string& b) {
        out << "  " << pad(name, 26) << pad(a, 14) << pad(b, 14) << "\n";
    };
    runRow("scene reports", std::to_string(off["scene_reports"].size()), std::to_string(on["scene_reports"].size()));
    runRow("boost records", count(off["boosts"]["records"]), count(on["boosts"]["records"]));
    runRow("log errors", count(off["log_errors"]), count(on["log_errors"]));
}

void printArchetypes(const std::string& layer, const std::vector<ArchetypeRuns>& kinds, std::ostream& out) {
    if (kinds.empty() || kinds[0].runs.empty()) return;
    out << "\nkinds of app in " << layer << "'s place: disabled -> enabled at the scenario's vsync phase, "
        << "and the change's range over " << kinds[0].runs.size() << " vsync phases\n";
    const Json::Value& first = layerByLabel(kinds[0].runs[0].second, layer);
    std::vector<std::string> phases{""};
    for (const Json::Value& p : first["phases"]) phases.push_back(p["name"].asString());
    out << "  " << pad("phase", 16) << pad("per frame p50 ms", 28) << pad("per touch event p50 ms", 28)
        << pad("per touch event p95 ms", 28) << pad("janks", 20) << "buffer-stuffed frames\n";
    for (const ArchetypeRuns& kind : kinds) {
        out << kind.name << " (--loop " << layer << "=" << kind.option << ")\n";
        LayerPairs pairs;
        for (const auto& [o, e] : kind.runs) pairs.emplace_back(&layerByLabel(o, layer), &layerByLabel(e, layer));
        for (const std::string& phase : phases) {
            auto get = [&phase](std::vector<std::string> path) { return phase.empty() ? at(path) : inPhase(phase, path); };
            auto cell = [&](const Get& g, bool integer, size_t width) {
                const Json::Value a = g(*pairs[0].first), b = g(*pairs[0].second);
                std::string text = integer ? count(a) + " -> " + count(b) : ms(a) + " -> " + ms(b);
                const std::string range = changeRange(pairs, g, integer);
                if (!range.empty()) text += " (" + range + ")";
                return pad(text, width);
            };
            out << "  " << pad(phase.empty() ? "whole run" : phase, 16)
                << cell(get({"input_to_present_ms", "p50"}), false, 28)
                << cell(get({"touch_event_to_present_ms", "p50"}), false, 28)
                << cell(get({"touch_event_to_present_ms", "p95"}), false, 28)
                << cell(get({"frame_timeline", "late"}), true, 20)
                << cell(get({"frame_timeline", "buffer_stuffing", "frames"}), true, 0) << "\n";
        }
    }
}

} // namespace pelyx_sim
