#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "Capture.h"
#include "Options.h"
#include "Scenario.h"
#include "TimelinePlan.h"

namespace pelyx_sim {
namespace {

const char* const kMinimal = R"({"apps": [{"package": "com.example.one", "layers": [{}]}]})";

ScenarioError errorOf(const std::string& text) {
    try {
        parseScenario(text);
    } catch (const ScenarioError& e) {
        return e;
    }
    ADD_FAILURE() << "accepted: " << text;
    return ScenarioError("", "");
}

TEST(SimScenario, BuiltInScenarioHasEveryFeature) {
    const Scenario s = parseScenario(kDefaultScenarioJson);
    EXPECT_EQ(s.refreshHz, 60.0);
    ASSERT_EQ(s.apps.size(), 2u);

    const AppSetup& game = s.apps[0];
    const LayerSetup& gameLayer = game.layers.at(0);
    EXPECT_TRUE(game.game && gameLayer.smartTouch && gameLayer.focused);
    EXPECT_GT(gameLayer.work.heavyMs, 2 * 1000.0 / s.refreshHz) << "heavy frames reach the third rescue level";
    EXPECT_GT(gameLayer.work.heavyEveryS, 0.0);

    const LayerSetup& window = s.apps[1].layers.at(0);
    EXPECT_FALSE(window.focused);
    EXPECT_LT(window.bounds.bottom - window.bounds.top, s.height * 0.85) << "the second app is in a window";

    EXPECT_EQ(s.property("vendor.perf.phr.enable", ""), "1");

    bool target = false, rescue = false, rates = false, touch = false;
    for (const TimelineEvent& e : s.timeline) {
        if (e.kind == EventKind::Touch && e.touch.layer == gameLayer.label) touch = true;
        if (e.kind != EventKind::Hint) continue;
        if (e.hint.id == 4171 && e.hint.text == game.package && e.hint.value == 4500) target = true;
        if (e.hint.id == 4189 && e.hint.text.rfind(game.package + ":", 0) == 0 && e.hint.values == std::vector<int32_t>{1}) {
            rescue = true;
        }
        if (e.hint.id == 4187 && e.hint.values == std::vector<int32_t>{0, 80, 0, 120}) rates = true;
    }
    EXPECT_TRUE(target && rescue && rates && touch);
}

TEST(SimScenario, DefaultsFillTheGaps) {
    const Scenario s = parseScenario(
            R"({"apps": [{"package": "com.example.one", "layers": [{}, {"id": 1001}]},
                         {"package": "two", "layers": [{}]}]})");
    ASSERT_EQ(s.apps.size(), 2u);
    const LayerSetup& a = s.apps[0].layers[0];
    const LayerSetup& b = s.apps[0].layers[1];
    const LayerSetup& c = s.apps[1].layers[0];
    EXPECT_EQ(a.label + " " + b.label + " " + c.label, "one.1 one.2 two");
    // 1001 is taken by the second layer: the free ids are handed out around it.
    EXPECT_EQ(std::vector<int>({b.id, a.id, c.id}), std::vector<int>({1001, 1002, 1003}));
    EXPECT_EQ(a.name, "SurfaceView[com.example.one/com.example.one.MainActivity](BLAST)#1002");
    EXPECT_TRUE(a.focused && !b.focused && !c.focused);
    EXPECT_EQ(a.bounds.bottom, s.height);
    EXPECT_EQ(a.buffers, 3);
    EXPECT_NE(s.apps[0].pid, s.apps[1].pid);
}

TEST(SimScenario, CommentsAndPropertyTextsAreAccepted) {
    const Scenario s = parseScenario(
            "// a comment\n" R"({"properties": {"a": 1, "b": true, "c": "x", "d": 0.5}, "apps": [{"package": "p", "layers": [{}]}]})");
    EXPECT_EQ(s.property("a", "") + s.property("b", "") + s.property("c", "") + s.property("d", ""), "1truex0.5");
}

TEST(SimScenario, TimelineIsSortedAndKeepsOrderAtEqualTimes) {
    const Scenario s = parseScenario(R"({"apps": [{"package": "p", "layers": [{}]}],
        "timeline": [{"at_s": 2, "property": "x", "value": "2"},
                     {"at_s": 1, "property": "x", "value": "1a"},
                     {"at_s": 1, "property": "x", "value": "1b"}]})");
    ASSERT_EQ(s.timeline.size(), 3u);
    EXPECT_EQ(s.timeline[0].property.value + s.timeline[1].property.value + s.timeline[2].property.value, "1a1b2");
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
            {R"({"duration_s": "10", "apps": [{"package": "p", "layers": [{}]}]})", "duration_s", "must be a number"},
            {withLayer(R"({"buffers": true})"), "apps[0].layers[0].buffers", "must be an integer"},
            {withLayer(R"({"buffers": 1})"), "apps[0].layers[0].buffers", "from 2 to 8"},
            {withLayer(R"({"work": {"mean_ms": -1}})"), "apps[0].layers[0].work.mean_ms", "above 0"},
            {withLayer(R"({"work": {"heavy_ms": 40}})"), "apps[0].layers[0].work.heavy_every_s", "above 0"},
            {withLayer(R"({"work": {"dequeue_at": 1.5}})"), "apps[0].layers[0].work.dequeue_at", "at most 1"},
            {withLayer(R"({"start_s": 2, "stop_s": 1})"), "apps[0].layers[0].stop_s", "after start_s"},
            {withLayer(R"({"bounds": [0, 0, 10]})"), "apps[0].layers[0].bounds", "[left, top, right, bottom]"},
            {R"({"apps": [{"layers": [{}]}]})", "apps[0].package", "missing"},
            {R"({"apps": [{"package": "", "layers": [{}]}]})", "apps[0].package", "must not be empty"},
            {R"({"apps": []})", "apps", "at least one app"},
            {R"({"apps": [{"package": "p", "layers": []}]})", "apps[0].layers", "at least one layer"},
            {withLayer("3"), "apps[0].layers[0]", "must be an object"},
            {"[1]", "(top level)", "must be an object"},
            {withLayer(R"({"id": 5}, {"id": 5})"), "apps[0].layers[1].id", "used twice"},
            {withLayer(R"({"smart_touch": true}, {"smart_touch": true})"), "apps[0].layers[1].smart_touch", "only one layer"},
            {withTimeline(R"({"at_s": 1, "touch": "tap", "layer": "x"})"), "timeline[0].layer", "no layer is labelled \"x\""},
            {withTimeline(R"({"at_s": 1, "touch": "swipe", "layer": "g"})"), "timeline[0].touch", "\"tap\" or \"drag\""},
            {withTimeline(R"({"at_s": 1, "hint": 4171, "property": "x", "value": "1"})"), "timeline[0]", "exactly one of"},
            {withTimeline(R"({"hint": 4171})"), "timeline[0].at_s", "missing"},
            {withTimeline(R"({"at_s": -1, "hint": 4171})"), "timeline[0].at_s", "at least 0"},
            {withTimeline(R"({"at_s": 1, "hint": 4171, "count": 3})"), "timeline[0].repeat_every_s", "needed"},
            {withTimeline(R"({"at_s": 1, "touch": "drag", "layer": "g", "duration_s": 1, "repeat_every_s": 0.5, "count": 2})"), "timeline[0].repeat_every_s", "longer than"},
            {withTimeline(R"({"at_s": 1, "hint": 4187, "values": [1, "x"]})"), "timeline[0].values[1]", "must be an integer"},
            {withTimeline(R"({"at_s": 1, "property": "k", "value": {}})"), "timeline[0].value", "a string, a number or a boolean"},
            {withLayer(R"({"id": 4294967296})"), "apps[0].layers[0].id", "from 1 to"},
            {R"({"gpu": {"base_mhz": 500, "max_mhz": 400}, "apps": [{"package": "p", "layers": [{}]}]})", "gpu.max_mhz", "at least base_mhz"},
            {R"({"cpu": {"boost": 2}, "apps": [{"package": "p", "layers": [{}]}]})", "cpu.boost", "unknown key"},
            {R"({"compositor": {"latch_offset_ms": 20}, "apps": [{"package": "p", "layers": [{}]}]})", "compositor.latch_offset_ms", "below the display's period"},
            {R"({"compositor": {"present_delay_vsyncs": 0}, "apps": [{"package": "p", "layers": [{}]}]})", "compositor.present_delay_vsyncs", "from 1 to 8"},
            {R"({"phases": [{"name": "a", "from_s": 1}], "apps": [{"package": "p", "layers": [{}]}]})", "phases[0].from_s", "start at 0"},
            {R"({"phases": [{"name": "a"}, {"name": "b", "from_s": 0}], "apps": [{"package": "p", "layers": [{}]}]})", "phases[1].from_s", "after the phase before"},
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

    for (std::string text : {std::string(R"({"name": "a", "name": "b", "apps": []})"), std::string(), std::string(kMinimal) + " {}"})
        EXPECT_EQ(errorOf(text).key().rfind("line 1", 0), 0u) << text;
}

TEST(SimOptions, ParsesEveryOption) {
    const Options o = parseOptions({"scenario.json", "--duration", "5", "--refresh=90", "--seed", "7",
                                    "--prop", "a=1", "--prop=b=x=y", "--replay", "game=cap.csv",
                                    "--summary", "s.json", "--trace=t.json", "--log", "l.txt",
                                    "--frames", "f.csv", "--quiet"});
    EXPECT_EQ(o.scenarioPath, "scenario.json");
    EXPECT_EQ(std::vector<double>({*o.durationS, *o.refreshHz, double(*o.seed)}), std::vector<double>({5, 90, 7}));
    ASSERT_EQ(o.props.size(), 2u);
    EXPECT_EQ(o.props[1], std::make_pair(std::string("b"), std::string("x=y")));
    ASSERT_EQ(o.replays.size(), 1u);
    EXPECT_EQ(o.replays[0], std::make_pair(std::string("game"), std::string("cap.csv")));
    EXPECT_EQ(o.summaryPath + o.tracePath + o.logPath + o.framesPath, "s.jsont.jsonl.txtf.csv");
    EXPECT_TRUE(o.quiet && !o.compare);

    const Options child = parseOptions(scenarioArguments(o));  // what a --compare child is given
    EXPECT_EQ(child.scenarioPath, "scenario.json");
    EXPECT_EQ(std::vector<double>({*child.durationS, *child.refreshHz, double(*child.seed)}), std::vector<double>({5, 90, 7}));
    EXPECT_TRUE(child.props == o.props && child.replays == o.replays);
    EXPECT_TRUE(child.summaryPath.empty()) << "the output files are the parent's";

    const Options sweep = parseOptions({"--sweep", "s.json", "--jobs", "3", "--summary", "o.json", "--quiet"});
    EXPECT_EQ(sweep.sweepPath + " " + std::to_string(sweep.jobs), "s.json 3");
    EXPECT_EQ(*parseOptions({"--phase-split", "2.5"}).phaseSplitS, 2.5);
}

TEST(SimOptions, RefusesBadCommandLines) {
    const std::vector<std::vector<std::string>> bad = {
            {"--bogus"}, {"--duration"}, {"--duration", "x"}, {"--duration", "-1"}, {"--refresh", "0"},
            {"--seed", "1.5"}, {"--prop", "novalue"}, {"--prop", "=1"}, {"--replay", "game="}, {"--summary="},
            {"--quiet=1"}, {"a.json", "b.json"}, {"--compare", "--disable"}, {"--compare", "--trace", "t.json"},
            {"--sweep", "s.json", "--seed", "2"}, {"--sweep", "s.json", "a.json"}, {"--jobs", "0"},
            {"--phase-split", "-1"}};
    for (const auto& args : bad) {
        std::string line;
        for (const auto& a : args) line += a + " ";
        EXPECT_THROW(parseOptions(args), UsageError) << line;
    }
}

class SimOverrides : public ::testing::Test {
protected:
    void TearDown() override { std::remove(mFile.c_str()); }
    std::string writeCapture(const std::string& text) {
        std::ofstream(mFile) << text;
        return mFile;
    }
    const std::string mFile = "/tmp/sim-capture-" + std::to_string(getpid()) + ".csv";
};

TEST_F(SimOverrides, CommandLineWinsOverTheScenario) {
    Scenario s = parseScenario(R"({"duration_s": 3, "properties": {"k": "scenario"},
                                   "apps": [{"package": "p", "layers": [{"label": "g", "id": 42}]}]})");
    const std::string capture = writeCapture("MsBetweenPresents\n10\n20\n");
    applyOverrides(s, parseOptions({"--duration", "7", "--refresh", "90", "--seed", "9", "--prop", "k=cli",
                                    "--replay", "42=" + capture}));
    EXPECT_EQ(std::vector<double>({s.durationS, s.refreshHz, double(s.seed)}), std::vector<double>({7, 90, 9}));
    EXPECT_EQ(s.property("k", ""), "cli");
    const WorkModel& work = s.apps[0].layers[0].work;
    ASSERT_NE(work.replayMs, nullptr) << "a layer is named by label or id";
    EXPECT_EQ(*work.replayMs, (std::vector<double>{10, 20}));
    EXPECT_EQ(work.replayFile, capture);

    try {
        applyOverrides(s, parseOptions({"--replay", "nope=" + capture}));
        FAIL() << "an unknown layer was accepted";
    } catch (const ScenarioError& e) {
        EXPECT_EQ(e.key(), "--replay");
    }
    EXPECT_THROW(applyOverrides(s, parseOptions({"--replay", "g=/nonexistent/file.csv"})), CaptureError);
}

TEST(SimTimeline, GesturesBecomeTouchEvents) {
    const Scenario s = parseScenario(withTimeline(
            R"({"at_s": 1, "touch": "tap", "layer": "g", "duration_s": 0.1},
               {"at_s": 2, "touch": "drag", "layer": "g", "duration_s": 0.05, "interval_ms": 20},
               {"at_s": 1.05, "hint": 4171, "text": "p", "value": 3000})"));
    const std::vector<TimedAction> plan = planTimeline(s);
    ASSERT_EQ(plan.size(), 7u);
    const std::vector<std::pair<int64_t, int>> want = {{1'000'000'000, kActionDown}, {1'050'000'000, -1},
            {1'100'000'000, kActionUp}, {2'000'000'000, kActionDown}, {2'020'000'000, kActionMove},
            {2'040'000'000, kActionMove}, {2'050'000'000, kActionUp}};
    for (size_t i = 0; i < plan.size(); ++i) {
        EXPECT_EQ(plan[i].atNs, want[i].first) << i;
        if (want[i].second < 0) {
            EXPECT_EQ(plan[i].kind, EventKind::Hint);
        }
        else EXPECT_EQ(plan[i].action, want[i].second) << i;
    }
}

TEST(SimTimeline, RepeatsUnroll) {
    const Scenario s = parseScenario(withTimeline(
            R"({"at_s": 0.5, "hint": 4192, "text": "p", "value": 1, "repeat_every_s": 0.25, "count": 3})"));
    const std::vector<TimedAction> plan = planTimeline(s);
    ASSERT_EQ(plan.size(), 3u);
    EXPECT_EQ(plan[1].atNs, 750'000'000);
    EXPECT_EQ(plan[2].atNs, 1'000'000'000);
}

HintEvent hint(int id, const std::string& text, int value, std::vector<int32_t> values = {}) {
    HintEvent h;
    h.id = id, h.text = text, h.value = value, h.values = std::move(values);
    return h;
}

TEST(SimServiceConfig, TargetsFollowTheTableRules) {
    ServiceConfig c;
    c.onHint(hint(4171, "com.game", 4500));
    EXPECT_EQ(c.targetFor("com.game", true), 45.0);

    c.onHint(hint(4171, "60", 0));  // a number as text: the global entry, which replaces all
    EXPECT_EQ(c.targetFor("com.game", true), 60.0);
    EXPECT_EQ(c.targetFor("com.game", false), 0.0) << "only games fall back to the global entry";

    c.onHint(hint(4171, "com.app", 3000));  // a package entry drops the global one
    EXPECT_EQ(c.targetFor("com.game", true), 0.0);
    EXPECT_EQ(c.targetFor("com.app", false), 30.0);

    c.onHint(hint(4171, "com.app", 24100));  // 241 fps: refused, nothing changes
    EXPECT_EQ(c.targetFor("com.app", false), 30.0);

    c.onHint(hint(4171, "vn-core-thermalCallbackHandler", 5000));
    EXPECT_EQ(c.targetFor("any.game", true), 50.0);
}

TEST(SimServiceConfig, FrameRescueEntries) {
    ServiceConfig c;
    c.onHint(hint(4189, "com.game:golden=0.8", 0, {1}));
    EXPECT_TRUE(c.frameRescueFor("com.game", true) && !c.frameRescueFor("com.other", true));
    c.onHint(hint(4189, "com.game:golden=0.8", 0, {3}));  // a bad flag changes nothing
    EXPECT_TRUE(c.frameRescueFor("com.game", true));
    c.onHint(hint(4189, "com.game:", 0, {0}));
    EXPECT_FALSE(c.frameRescueFor("com.game", true));
    c.onHint(hint(4189, "1.5;2.0", 0, {2}));  // no colon: the global entry
    EXPECT_TRUE(c.frameRescueFor("com.any", true) && !c.frameRescueFor("com.any", false));
    c.onHint(hint(4189, "com.game:jank=1.5", 0, {}));  // no flag: ignored
    EXPECT_FALSE(c.frameRescueFor("com.game", false));
}

TEST(SimServiceConfig, NumbersAsTheServiceWritesThem) {
    for (const char* yes : {"60", "-1", "5.", ".5", "0.25"}) EXPECT_TRUE(ServiceConfig::isNumeric(yes)) << yes;
    for (const char* no : {"", "-", ".", "-.", "1.2.3", "6O", " 60"}) EXPECT_FALSE(ServiceConfig::isNumeric(no)) << no;
}

} // namespace
} // namespace pelyx_sim
