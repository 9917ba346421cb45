// What the simulator reads: scenarios, its command line, captures and sweep files; and the work and
// timeline they turn into.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Capture.h"
#include "Options.h"
#include "Scenario.h"
#include "Sweep.h"
#include "TimelinePlan.h"
#include "WorkSource.h"

namespace pelyx_sim {
namespace {

// The error a scenario is refused with.
ScenarioError errorOf(const std::string& text) {
    try {
        parseScenario(text);
    } catch (const ScenarioError& e) {
        return e;
    }
    ADD_FAILURE() << "accepted: " << text;
    return ScenarioError("", "");
}

TEST(SimScenario, DefaultsFillTheGapsAndPropertiesMayBeAnyScalar) {
    const Scenario s = parseScenario("// a comment\n" R"({"properties": {"a": 1, "b": true, "c": "x", "d": 0.5},
            "apps": [{"package": "com.example.one", "layers": [{}, {"id": 1001}]}, {"package": "two", "layers": [{"id": 1002}]}]})");
    EXPECT_EQ(s.property("a", "") + s.property("b", "") + s.property("c", "") + s.property("d", ""), "1truex0.5");
    ASSERT_EQ(s.apps.size(), 2u);
    const LayerSetup& a = s.apps[0].layers[0];
    const LayerSetup& b = s.apps[0].layers[1];
    const LayerSetup& c = s.apps[1].layers[0];
    EXPECT_EQ(a.label + " " + b.label + " " + c.label, "one.1 one.2 two");
    // 1001 and 1002 are taken: the free ids are handed out around them.
    EXPECT_EQ(std::vector<int>({b.id, c.id, a.id}), std::vector<int>({1001, 1002, 1003}));
    EXPECT_EQ(a.name, "SurfaceView[com.example.one/com.example.one.MainActivity](BLAST)#1003");
    EXPECT_TRUE(a.focused && !b.focused && !c.focused && a.bounds.bottom == s.height);
}

struct BadCase {
    std::string text, key, reason;  // reason: a part of it
};

std::string withLayer(const std::string& layer) {
    return R"({"apps": [{"package": "p", "layers": [)" + layer + "]}]}";
}

std::string withTimeline(const std::string& events) {
    return R"({"apps": [{"package": "p", "layers": [{"label": "g"}]}], "timeline": [)" + events + "]}";
}

TEST(SimScenario, MistakesNameTheirKey) {
    const std::vector<BadCase> cases = {
            {R"({"appz": [], "apps": [{"package": "p", "layers": [{}]}]})", "appz", "unknown key"},
            {withLayer(R"({"work": {"mean": 5}})"), "apps[0].layers[0].work.mean", "unknown key"},
            {R"({"display": {"refresh_hz": -60}, "apps": [{"package": "p", "layers": [{}]}]})", "display.refresh_hz", "must be above 0"},
            {withLayer(R"({"buffers": 1})"), "apps[0].layers[0].buffers", "from 2 to 8"},
            {R"({"apps": [{"layers": [{}]}]})", "apps[0].package", "missing"},
            {withLayer(R"({"id": 5}, {"id": 5})"), "apps[0].layers[1].id", "used twice"},
            {withLayer(R"({"smart_touch": true}, {"smart_touch": true})"), "apps[0].layers[1].smart_touch", "only one layer"},
            {withTimeline(R"({"at_s": 1, "touch": "tap", "layer": "x"})"), "timeline[0].layer", "no layer is labelled \"x\""},
            {withTimeline(R"({"at_s": 1, "touch": "drag", "layer": "g", "duration_s": 1, "repeat_every_s": 0.5, "count": 2})"), "timeline[0].repeat_every_s", "longer than"},
            {R"({"compositor": {"latch_offset_ms": 20}, "apps": [{"package": "p", "layers": [{}]}]})", "compositor.latch_offset_ms", "below the display's period"},
            {R"({"phases": [{"name": "a", "from_s": 1}], "apps": [{"package": "p", "layers": [{}]}]})", "phases[0].from_s", "start at 0"},
    };
    for (const BadCase& c : cases) {
        const ScenarioError e = errorOf(c.text);
        EXPECT_EQ(e.key(), c.key) << c.text;
        EXPECT_NE(e.reason().find(c.reason), std::string::npos) << c.text << ": " << e.reason();
    }
}

TEST(SimScenario, SyntaxErrorsGiveLineAndColumnOnOneLine) {
    const ScenarioError e = errorOf("{\n  \"apps\": [\n    {\"package\": \"p\" \"layers\": []}\n]}");
    EXPECT_EQ(e.key().rfind("line 3, column", 0), 0u) << e.key();
    EXPECT_FALSE(e.reason().empty());
    EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);

    for (std::string text : {std::string(R"({"name": "a", "name": "b", "apps": []})"), std::string(), std::string(R"({"apps": [{"package": "p", "layers": [{}]}]} {})")})
        EXPECT_EQ(errorOf(text).key().rfind("line 1", 0), 0u) << text;
}

TEST(SimOptions, ParsesEveryOption) {
    const Options o = parseOptions({"scenario.json", "--duration", "5", "--refresh=90", "--seed", "7",
                                    "--prop", "a=1", "--prop=b=x=y", "--replay", "game=cap.csv",
                                    "--summary", "s.json", "--trace=t.json", "--log", "l.txt",
                                    "--frames", "f.csv", "--quiet"});
    EXPECT_EQ(o.props.at(1), std::make_pair(std::string("b"), std::string("x=y")));
    EXPECT_EQ(o.summaryPath + o.tracePath + o.logPath + o.framesPath, "s.jsont.jsonl.txtf.csv");

    const Options child = parseOptions(scenarioArguments(o));  // what a --compare child is given
    EXPECT_EQ(child.scenarioPath, "scenario.json");
    EXPECT_EQ(std::vector<double>({*child.durationS, *child.refreshHz, double(*child.seed)}), std::vector<double>({5, 90, 7}));
    EXPECT_TRUE(child.props == o.props && child.replays == o.replays);
    EXPECT_TRUE(child.summaryPath.empty()) << "the output files are the parent's";
}

TEST(SimOptions, RefusesBadCommandLines) {
    const std::vector<std::vector<std::string>> bad = {
            {"--bogus"}, {"--duration"}, {"--duration", "-1"}, {"--seed", "1.5"}, {"--prop", "=1"},
            {"--replay", "game="}, {"--quiet=1"}, {"a.json", "b.json"}, {"--compare", "--disable"},
            {"--compare", "--trace", "t.json"}, {"--sweep", "s.json", "--seed", "2"}, {"--jobs", "0"},
            {"--sweep", "s.json", "--shard", "2/2", "--summary", "p"}, {"--sweep", "s.json", "--shard", "1/2"},
            {"--sweep", "s.json", "--shard", "1", "--summary", "p"}, {"--merge"}, {"--merge", "p", "--jobs", "2"},
            {"--recommend", "r.json"}, {"--sweep", "s.json", "--hints", "h.json"}};
    for (const auto& args : bad) {
        std::string line;
        for (const auto& a : args) line += a + " ";
        EXPECT_THROW(parseOptions(args), UsageError) << line;
    }
}

TEST(SimOverrides, CommandLineWinsOverTheScenario) {
    Scenario s = parseScenario(R"({"duration_s": 3, "properties": {"k": "scenario"},
                                   "apps": [{"package": "p", "layers": [{"label": "g", "id": 42}]}]})");
    const std::string capture = std::string(PELYX_SIM_SOURCE_DIR) + "/captures/dumpsys-gfxinfo-framestats-sample.txt";
    applyOverrides(s, parseOptions({"--duration", "7", "--refresh", "90", "--seed", "9", "--prop", "k=cli",
                                    "--replay", "42=" + capture}));
    EXPECT_EQ(std::vector<double>({s.durationS, s.refreshHz, double(s.seed)}), std::vector<double>({7, 90, 9}));
    EXPECT_EQ(s.property("k", ""), "cli");
    const WorkModel& work = s.apps[0].layers[0].work;
    ASSERT_NE(work.replayMs, nullptr) << "a layer is named by label or id";
    EXPECT_TRUE(work.replayMs->size() == 118u && work.replayFile == capture);

    EXPECT_THROW(applyOverrides(s, parseOptions({"--replay", "nope=" + capture})), ScenarioError);
    EXPECT_THROW(applyOverrides(s, parseOptions({"--replay", "g=/nonexistent/file.csv"})), CaptureError);
}

TEST(SimTimeline, GesturesBecomeTouchEventsAndRepeatsUnroll) {
    const Scenario s = parseScenario(withTimeline(
            R"({"at_s": 1, "touch": "tap", "layer": "g", "duration_s": 0.1},
               {"at_s": 2, "touch": "drag", "layer": "g", "duration_s": 0.06, "interval_ms": 20},
               {"at_s": 1.05, "hint": 4171, "text": "p", "value": 3000, "repeat_every_s": 1.5, "count": 2})"));
    const std::vector<TimedAction> plan = planTimeline(s);
    ASSERT_EQ(plan.size(), 8u);
    const std::vector<std::pair<int64_t, int>> want = {{1'000'000'000, kActionDown}, {1'050'000'000, -1},
            {1'100'000'000, kActionUp}, {2'000'000'000, kActionDown}, {2'020'000'000, kActionMove},
            {2'040'000'000, kActionMove}, {2'060'000'000, kActionUp}, {2'550'000'000, -1}};
    for (size_t i = 0; i < plan.size(); ++i) {
        EXPECT_EQ(std::make_pair(plan[i].atNs, plan[i].kind == EventKind::Hint ? -1 : plan[i].action), want[i]) << i;
    }
}

TEST(SimServiceConfig, TargetsFollowTheTableRules) {
    ServiceConfig c;
    auto push = [&](const char* text, int value) {
        HintEvent h;
        h.id = 4171, h.text = text, h.value = value;
        c.onHint(h);
    };
    push("com.game", 4500);
    EXPECT_EQ(c.targetFor("com.game", true), 45.0);
    push("60", 0);  // a number as text: the global entry, which replaces all
    EXPECT_EQ(std::make_pair(c.targetFor("com.game", true), c.targetFor("com.game", false)), std::make_pair(60.0, 0.0))
            << "only games fall back to the global entry";
    push("com.app", 3000);  // a package entry drops the global one
    push("com.app", 24100);  // 241 fps: refused, nothing changes
    EXPECT_EQ(std::make_pair(c.targetFor("com.game", true), c.targetFor("com.app", false)), std::make_pair(0.0, 30.0));
    push("vn-core-thermalCallbackHandler", 5000);
    EXPECT_EQ(c.targetFor("any.game", true), 50.0);
}

Capture parse(const std::string& text) {
    std::istringstream in(text);
    return parseCapture(in, "test.csv");
}

std::string captureError(const std::string& text) {
    try {
        parse(text);
    } catch (const CaptureError& e) {
        return e.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return "";
}

TEST(SimCapture, ReadsTheIntervalColumnPastMetadataAndQuotes) {
    const Capture c = parse(
            "\xEF\xBB\xBF//GameName=x.exe\r\n"
            "// another note\r\n"
            "\r\n"
            "Application,Comment,MsBetweenPresents,Dropped\r\n"
            "game.exe,\"a, quoted, comment\",16.5,0\r\n"
            "game.exe,,0,1\r\n"
            "game.exe,,33.25,0\r\n");
    EXPECT_EQ(c.application, "game.exe");
    EXPECT_EQ(c.intervalsMs, (std::vector<double>{16.5, 0, 33.25}));
    EXPECT_NEAR(c.rate(), 1000.0 / 16.5, 1e-9) << "from the median";
}

TEST(SimCapture, ReadsAndroidFrameDataAndAnyNamedColumn) {
    // SurfaceFlinger's latency dump: present intervals; a frame not yet shown is skipped.
    const Capture sf = parse("16666666\n0 0 0\n10 1000000000 5\n20 1016666666 6\n30 1050000000 7\n"
                             "40 9223372036854775807 0\n");
    EXPECT_EQ(sf.format, "SurfaceFlinger latency");
    ASSERT_EQ(sf.intervalsMs.size(), 2u);
    EXPECT_NEAR(sf.intervalsMs[1], 33.333, 0.001);
    // gfxinfo framestats: the first section's frames without flags, by intended vsync.
    const Capture gfx = parse("Stats since: 1ns\n---PROFILEDATA---\nFlags,IntendedVsync,Vsync,\n"
                              "0,100000000,100000000,\n1,111111111,1,\n0,122222222,1,\n0,144444444,1,\n"
                              "---PROFILEDATA---\n---PROFILEDATA---\nFlags,IntendedVsync,\n0,900000000,\n");
    EXPECT_EQ(gfx.format, "gfxinfo framestats");
    ASSERT_EQ(gfx.intervalsMs.size(), 2u);
    EXPECT_NEAR(gfx.intervalsMs[0], 22.222, 0.001);

    const std::string dir = std::string(PELYX_SIM_SOURCE_DIR) + "/captures/";
    EXPECT_EQ(readCapture(dir + "dumpsys-surfaceflinger-latency-sample.txt").intervalsMs.size(), 149u);
    EXPECT_EQ(readCapture(dir + "dumpsys-gfxinfo-framestats-sample.txt").intervalsMs.size(), 118u);
    const Capture named = readCapture(dir + "presentmon-csgo-120fps.csv:MsBetweenDisplayChange");
    EXPECT_EQ(named.format, "CSV column");
    EXPECT_EQ(named.intervalsMs.size(), 4265u);
}

TEST(SimCapture, BadInputSaysWhereAndWhy) {
    const std::vector<std::pair<std::string, std::string>> cases = {
            {"Application,MsInPresentAPI\nx,1\n", "test.csv:1: no MsBetweenPresents column in the header"},
            {"A,MsBetweenPresents\nx,16\nx,abc\n", "test.csv:3: bad MsBetweenPresents value \"abc\""},
            {"//only metadata\n", "test.csv: no header row"},
            {"16666666\n1 2 3\n4 5\n", "test.csv:3: expected three times in ns"},
            {"16666666\n1 2000 3\n4 1000 6\n", "test.csv:3: actual present time goes back"},
            {"0\n1 2 3\n", "test.csv:1: refresh period must be above 0"},
            {"---PROFILEDATA---\nFlags,IntendedVsync,\n0,1,\n0,2,\n", "test.csv: truncated: no closing ---PROFILEDATA---"},
            {"---PROFILEDATA---\nFlags,Vsync,\n0,1,\n---PROFILEDATA---\n", "test.csv:2: no Flags and IntendedVsync columns"},
    };
    for (const auto& [text, message] : cases) EXPECT_EQ(captureError(text).rfind(message, 0), 0u) << captureError(text);
    EXPECT_THROW(readCapture(std::string(PELYX_SIM_SOURCE_DIR) + "/captures/presentmon-csgo-120fps.csv:NoSuchColumn"),
                 CaptureError);
}

WorkModel model(double meanMs) {
    WorkModel m;
    m.meanMs = meanMs;
    return m;
}

constexpr int64_t kMs = 1'000'000;

TEST(SimWork, ReplayPlaysEachIntervalOnceThenEnds) {
    WorkModel m = model(5);
    m.gpuMs = 2;
    m.replayMs = std::make_shared<const std::vector<double>>(std::vector<double>{10, 0, 12.5});
    WorkSource w(m, 1);
    EXPECT_TRUE(w.replaying() && w.replayLength() == 3u);
    const FrameWork f = w.next(0).value();
    EXPECT_TRUE(f.cpuNs == 10 * kMs && f.gpuNs == 2 * kMs);
    EXPECT_EQ(w.next(0)->cpuNs, 50'000) << "a zero interval still takes a little time";
    EXPECT_EQ(w.next(0)->cpuNs, 12'500'000);
    EXPECT_TRUE(w.replayed() == 3u && !w.next(0));
}

TEST(SimWork, HeavyFramesComeInBurstsOnTheirSchedule) {
    WorkModel m = model(8);
    m.heavyMs = 40, m.heavyGpuMs = 30, m.gpuMs = 4, m.heavyEveryS = 1.0, m.heavyFromS = 2.0, m.heavyBurst = 2;
    WorkSource w(m, 1);
    auto at = [&](double s) { return *w.next(static_cast<int64_t>(s * 1e9)); };
    EXPECT_FALSE(at(1.99).heavy);
    const FrameWork first = at(2.0);
    EXPECT_TRUE(first.heavy && first.cpuNs == 40 * kMs && first.gpuNs == 30 * kMs);
    EXPECT_TRUE(at(2.01).heavy);
    const FrameWork after = at(2.02);
    EXPECT_TRUE(!after.heavy && after.cpuNs == 8 * kMs && after.gpuNs == 4 * kMs);
    EXPECT_FALSE(at(2.9).heavy);
    // A pause longer than the period starts one burst, not one per missed period.
    for (double t : {5.5, 5.51, 5.52, 6.0}) EXPECT_EQ(at(t).heavy, t != 5.52) << t;
}

TEST(SimWork, JitterSpreadsAroundTheMeanAndRepeatsWithTheSeed) {
    WorkModel m = model(10);
    m.jitterMs = 2;
    WorkSource a(m, 42), b(m, 42);
    std::vector<double> ms;
    for (int i = 0; i < 4000; ++i) {
        ms.push_back(static_cast<double>(a.next(0)->cpuNs) / kMs);
        EXPECT_EQ(static_cast<double>(b.next(0)->cpuNs) / kMs, ms.back());
    }
    std::sort(ms.begin(), ms.end());
    EXPECT_NEAR(ms[2000], 10.0, 0.2);
    EXPECT_NEAR(ms[3364] - ms[2000], 2.0, 0.25) << "the 84th percentile is one deviation above the median";
}

TEST(SimSweep, SettingsCoverTheGridOrARepeatableSample) {
    SweepSetup plan = parseSweep(R"({"axes": [{"hint": 4171, "values": [4500, 6000, null]},
                                             {"property": "p", "values": ["0", 1, true]}]})");
    EXPECT_EQ(settingsOf(plan).size(), 9u);
    EXPECT_EQ(settingsOf(plan)[5], (Setting{1, 2}));
    plan.sample = 4;
    const std::vector<Setting> sample = settingsOf(plan);
    EXPECT_EQ(sample.size(), 4u);
    EXPECT_EQ(sample, settingsOf(plan)) << "the same seed draws the same sample";
    EXPECT_EQ(std::set<Setting>(sample.begin(), sample.end()).size(), 4u);
}

TEST(SimSweep, ASettingReplacesTheScenariosPushesOrAddsOne) {
    const Json::Value base = parseStrictJson(kDefaultScenarioJson);
    const SweepSetup plan = parseSweep(R"({"axes": [
        {"hint": 4189, "values": ["com.example.game:jank=1.5", null]},
        {"hint": 4171, "text": "com.example.game", "values": [6000]},
        {"hint": 4321, "at_s": 2, "text": "x", "values": [7]},
        {"property": "vendor.perf.phr.enable", "values": [0]}]})");
    const Json::Value tuned = applySetting(base, plan, {0, 0, 0, 0});
    const std::vector<std::string> pushes = describeSetting(tuned, plan);
    ASSERT_EQ(pushes.size(), 4u);
    EXPECT_EQ(pushes[0], R"(hint 4189 at 3 s {"text":"com.example.game:jank=1.5","values":[1]})")
            << "the scenario's own push keeps its time and other fields";
    EXPECT_EQ(pushes[1], R"(hint 4171 at 5 s {"text":"com.example.game","value":6000})");
    EXPECT_EQ(pushes[2], R"(hint 4321 at 2 s {"text":"x","value":7})") << "a hint the scenario lacks is added";
    EXPECT_EQ(pushes[3], "property vendor.perf.phr.enable = 0");
    EXPECT_NO_THROW(parseScenario(Json::FastWriter().write(tuned)));
    EXPECT_EQ(describeSetting(applySetting(base, plan, {1, 0, 0, 0}), plan)[0], "hint 4189: not pushed");
    EXPECT_EQ(settingLabel(plan, {1, 0, 0, 0}), "none | 6000 | 7 | 0");
}

Json::Value summaryWith(const char* timeline, double p50) {
    Json::Value s;
    Json::Value chat, game;
    chat["label"] = "chat", chat["game"] = false;
    game["label"] = "game", game["game"] = true;
    game["input_to_present_ms"]["p50"] = p50;
    game["input_to_present_ms"]["p95"] = Json::Value();
    if (timeline) Json::Reader().parse(timeline, game["frame_timeline"]);
    s["layers"].append(chat);
    s["layers"].append(game);
    s["boosts"]["level1"] = 1, s["boosts"]["level2"] = 2, s["boosts"]["level3"] = 3;
    return s;
}

TEST(SimSweep, FiguresComeFromTheRankedLayer) {
    const SweepMetrics m = metricsOf(summaryWith(R"({"late": 4, "late_vsyncs": 6})", 41.5), "");
    EXPECT_EQ(m.p50Ms, 41.5) << "the first game layer by default";
    EXPECT_TRUE(std::isnan(m.p95Ms));
    EXPECT_EQ(std::make_tuple(m.late, m.lateVsyncs, m.boostTotal()), std::make_tuple(4, 6, 6));
    EXPECT_THROW(metricsOf(summaryWith(nullptr, 1), "menu"), std::runtime_error);
}

} // namespace
} // namespace pelyx_sim
