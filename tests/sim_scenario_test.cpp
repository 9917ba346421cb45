// The simulator's scenario files, command line and timeline: what a scenario means, and that
// every mistake in one is caught with the key at fault.

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
    EXPECT_EQ(s.name, "default");
    EXPECT_GE(s.durationS, 9.0);
    EXPECT_LE(s.durationS, 12.0);
    EXPECT_EQ(s.refreshHz, 60.0);
    ASSERT_EQ(s.apps.size(), 2u);

    const AppSetup& game = s.apps[0];
    EXPECT_TRUE(game.game);
    EXPECT_GE(game.gameWeight, 0);
    const LayerSetup& gameLayer = game.layers.at(0);
    EXPECT_TRUE(gameLayer.smartTouch);
    EXPECT_TRUE(gameLayer.focused);
    EXPECT_GT(gameLayer.work.heavyMs, 2 * 1000.0 / s.refreshHz) << "heavy frames reach the third rescue level";
    EXPECT_GT(gameLayer.work.heavyEveryS, 0.0);

    const LayerSetup& window = s.apps[1].layers.at(0);
    EXPECT_FALSE(window.focused);
    EXPECT_LT(window.bounds.bottom - window.bounds.top, s.height * 0.85) << "the second app is in a window";

    EXPECT_EQ(s.property("vendor.perf.phr.enable", ""), "1");
    EXPECT_EQ(s.property("vendor.ruvo.enable.target_fps", ""), "true");
    EXPECT_EQ(s.property("debug.vendor.perf.smart_touch", ""), "1");
    EXPECT_EQ(s.property("vendor.perf.pelyx.debug", "unset"), "unset");

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
    EXPECT_TRUE(target);
    EXPECT_TRUE(rescue);
    EXPECT_TRUE(rates);
    EXPECT_TRUE(touch);
}

TEST(SimScenario, DefaultsFillTheGaps) {
    const Scenario s = parseScenario(
            R"({"apps": [{"package": "com.example.one", "layers": [{}, {"id": 1001}]},
                         {"package": "two", "layers": [{}]}]})");
    ASSERT_EQ(s.apps.size(), 2u);
    const LayerSetup& a = s.apps[0].layers[0];
    const LayerSetup& b = s.apps[0].layers[1];
    const LayerSetup& c = s.apps[1].layers[0];
    EXPECT_EQ(a.label, "one.1");
    EXPECT_EQ(b.label, "one.2");
    EXPECT_EQ(c.label, "two");
    // 1001 is taken by the second layer: the free ids are handed out around it.
    EXPECT_EQ(b.id, 1001);
    EXPECT_EQ(a.id, 1002);
    EXPECT_EQ(c.id, 1003);
    EXPECT_EQ(a.name, "SurfaceView[com.example.one/com.example.one.MainActivity](BLAST)#1002");
    EXPECT_TRUE(a.focused);
    EXPECT_FALSE(b.focused);
    EXPECT_FALSE(c.focused);
    EXPECT_EQ(a.bounds.right, s.width);
    EXPECT_EQ(a.bounds.bottom, s.height);
    EXPECT_EQ(a.buffers, 3);
    EXPECT_NE(s.apps[0].pid, s.apps[1].pid);
    EXPECT_NE(s.apps[0].uid, s.apps[1].uid);
    EXPECT_EQ(s.apps[0].gameWeight, -1);
    EXPECT_EQ(s.name, "unnamed");
}

TEST(SimScenario, CommentsAndPropertyTextsAreAccepted) {
    const Scenario s = parseScenario(R"(// a comment
        {"properties": {"a": 1, "b": true, "c": "x", "d": 0.5},
         "apps": [{"package": "p", "layers": [{}]}]})");
    EXPECT_EQ(s.property("a", ""), "1");
    EXPECT_EQ(s.property("b", ""), "true");
    EXPECT_EQ(s.property("c", ""), "x");
    EXPECT_EQ(s.property("d", ""), "0.5");
}

TEST(SimScenario, TimelineIsSortedAndKeepsOrderAtEqualTimes) {
    const Scenario s = parseScenario(R"({"apps": [{"package": "p", "layers": [{}]}],
        "timeline": [{"at_s": 2, "property": "x", "value": "2"},
                     {"at_s": 1, "property": "x", "value": "1a"},
                     {"at_s": 1, "property": "x", "value": "1b"}]})");
    ASSERT_EQ(s.timeline.size(), 3u);
    EXPECT_EQ(s.timeline[0].property.value, "1a");
    EXPECT_EQ(s.timeline[1].property.value, "1b");
    EXPECT_EQ(s.timeline[2].property.value, "2");
}

struct BadCase {
    const char* what;
    std::string text;
    std::string key;
    std::string reason;  // a part of the reason
};

std::string withLayer(const std::string& layer) {
    return R"({"apps": [{"package": "p", "layers": [)" + layer + "]}]}";
}

std::string withTimeline(const std::string& events) {
    return R"({"apps": [{"package": "p", "layers": [{"label": "g"}]}], "timeline": [)" + events + "]}";
}

TEST(SimScenario, MistakesNameTheirKey) {
    const std::vector<BadCase> cases = {
            {"unknown top-level key", R"({"appz": [], "apps": [{"package": "p", "layers": [{}]}]})", "appz", "unknown key"},
            {"unknown nested key", withLayer(R"({"work": {"mean": 5}})"), "apps[0].layers[0].work.mean", "unknown key"},
            {"negative rate", R"({"display": {"refresh_hz": -60}, "apps": [{"package": "p", "layers": [{}]}]})",
             "display.refresh_hz", "must be above 0"},
            {"zero rate", R"({"display": {"refresh_hz": 0}, "apps": [{"package": "p", "layers": [{}]}]})",
             "display.refresh_hz", "must be above 0"},
            {"text for a number", R"({"duration_s": "10", "apps": [{"package": "p", "layers": [{}]}]})",
             "duration_s", "must be a number"},
            {"boolean for an integer", withLayer(R"({"buffers": true})"), "apps[0].layers[0].buffers", "must be an integer"},
            {"fraction for an integer", withLayer(R"({"buffers": 2.5})"), "apps[0].layers[0].buffers", "must be an integer"},
            {"one buffer", withLayer(R"({"buffers": 1})"), "apps[0].layers[0].buffers", "from 2 to 8"},
            {"negative work", withLayer(R"({"work": {"mean_ms": -1}})"), "apps[0].layers[0].work.mean_ms", "above 0"},
            {"heavy without a period", withLayer(R"({"work": {"heavy_ms": 40}})"), "apps[0].layers[0].work.heavy_every_s", "above 0"},
            {"share above one", withLayer(R"({"work": {"dequeue_at": 1.5}})"), "apps[0].layers[0].work.dequeue_at", "at most 1"},
            {"stop before start", withLayer(R"({"start_s": 2, "stop_s": 1})"), "apps[0].layers[0].stop_s", "after start_s"},
            {"three bounds", withLayer(R"({"bounds": [0, 0, 10]})"), "apps[0].layers[0].bounds", "[left, top, right, bottom]"},
            {"inverted bounds", withLayer(R"({"bounds": [0, 10, 10, 0]})"), "apps[0].layers[0].bounds", "bottom > top"},
            {"no package", R"({"apps": [{"layers": [{}]}]})", "apps[0].package", "missing"},
            {"empty package", R"({"apps": [{"package": "", "layers": [{}]}]})", "apps[0].package", "must not be empty"},
            {"no apps", R"({"apps": []})", "apps", "at least one app"},
            {"no layers", R"({"apps": [{"package": "p", "layers": []}]})", "apps[0].layers", "at least one layer"},
            {"layer not an object", withLayer("3"), "apps[0].layers[0]", "must be an object"},
            {"top level not an object", "[1]", "(top level)", "must be an object"},
            {"same id twice", withLayer(R"({"id": 5}, {"id": 5})"), "apps[0].layers[1].id", "used twice"},
            {"same label twice", withLayer(R"({"label": "a"}, {"label": "a"})"), "apps[0].layers[1].label", "used twice"},
            {"two smart-touch layers", withLayer(R"({"smart_touch": true}, {"smart_touch": true})"),
             "apps[0].layers[1].smart_touch", "only one layer"},
            {"touch on an unknown layer", withTimeline(R"({"at_s": 1, "touch": "tap", "layer": "x"})"),
             "timeline[0].layer", "no layer is labelled \"x\""},
            {"unknown gesture", withTimeline(R"({"at_s": 1, "touch": "swipe", "layer": "g"})"), "timeline[0].touch", "\"tap\" or \"drag\""},
            {"two kinds in one event", withTimeline(R"({"at_s": 1, "hint": 4171, "property": "x", "value": "1"})"),
             "timeline[0]", "exactly one of"},
            {"no kind", withTimeline(R"({"at_s": 1})"), "timeline[0]", "exactly one of"},
            {"no time", withTimeline(R"({"hint": 4171})"), "timeline[0].at_s", "missing"},
            {"negative time", withTimeline(R"({"at_s": -1, "hint": 4171})"), "timeline[0].at_s", "at least 0"},
            {"repeat without a period", withTimeline(R"({"at_s": 1, "hint": 4171, "count": 3})"),
             "timeline[0].repeat_every_s", "needed"},
            {"gestures that overlap", withTimeline(R"({"at_s": 1, "touch": "drag", "layer": "g", "duration_s": 1,
                                                      "repeat_every_s": 0.5, "count": 2})"),
             "timeline[0].repeat_every_s", "longer than"},
            {"hint values not integers", withTimeline(R"({"at_s": 1, "hint": 4187, "values": [1, "x"]})"),
             "timeline[0].values[1]", "must be an integer"},
            {"property value an object", withTimeline(R"({"at_s": 1, "property": "k", "value": {}})"), "timeline[0].value",
             "a string, a number or a boolean"},
            {"integer out of range", withLayer(R"({"id": 4294967296})"), "apps[0].layers[0].id", "from 1 to"},
    };
    for (const BadCase& c : cases) {
        const ScenarioError e = errorOf(c.text);
        EXPECT_EQ(e.key(), c.key) << c.what;
        EXPECT_NE(e.reason().find(c.reason), std::string::npos) << c.what << ": " << e.reason();
    }
}

TEST(SimScenario, SyntaxErrorsGiveLineAndColumnOnOneLine) {
    const ScenarioError e = errorOf("{\n  \"apps\": [\n    {\"package\": \"p\" \"layers\": []}\n]}");
    EXPECT_EQ(e.key().rfind("line 3, column", 0), 0u) << e.key();
    EXPECT_FALSE(e.reason().empty());
    EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);

    EXPECT_EQ(errorOf(R"({"name": "a", "name": "b", "apps": []})").key().rfind("line 1", 0), 0u)
            << "a key given twice is refused";
    EXPECT_EQ(errorOf("").key().rfind("line 1", 0), 0u);
    EXPECT_EQ(errorOf(std::string(kMinimal) + " {}").key().rfind("line 1", 0), 0u) << "text after the object";
}

TEST(SimScenario, PropertiesKeepTheirLastSetting) {
    Scenario s = parseScenario(kMinimal);
    EXPECT_EQ(s.property("k", "fallback"), "fallback");
    s.setProperty("k", "1");
    s.setProperty("other", "x");
    s.setProperty("k", "2");
    EXPECT_EQ(s.property("k", ""), "2");
    EXPECT_EQ(s.properties.size(), 2u);
}

TEST(SimOptions, ParsesEveryOption) {
    const Options o = parseOptions({"scenario.json", "--duration", "5", "--refresh=90", "--seed", "7",
                                    "--prop", "a=1", "--prop=b=x=y", "--replay", "game=cap.csv",
                                    "--summary", "s.json", "--trace=t.json", "--log", "l.txt",
                                    "--frames", "f.csv", "--quiet"});
    EXPECT_EQ(o.scenarioPath, "scenario.json");
    EXPECT_EQ(*o.durationS, 5.0);
    EXPECT_EQ(*o.refreshHz, 90.0);
    EXPECT_EQ(*o.seed, 7u);
    ASSERT_EQ(o.props.size(), 2u);
    EXPECT_EQ(o.props[1].first, "b");
    EXPECT_EQ(o.props[1].second, "x=y");
    ASSERT_EQ(o.replays.size(), 1u);
    EXPECT_EQ(o.replays[0].first, "game");
    EXPECT_EQ(o.replays[0].second, "cap.csv");
    EXPECT_EQ(o.summaryPath, "s.json");
    EXPECT_EQ(o.tracePath, "t.json");
    EXPECT_EQ(o.logPath, "l.txt");
    EXPECT_EQ(o.framesPath, "f.csv");
    EXPECT_TRUE(o.quiet);
    EXPECT_FALSE(o.compare);
}

TEST(SimOptions, RefusesBadCommandLines) {
    const std::vector<std::vector<std::string>> bad = {
            {"--bogus"},
            {"--duration"},
            {"--duration", "x"},
            {"--duration", "-1"},
            {"--refresh", "0"},
            {"--seed", "1.5"},
            {"--prop", "novalue"},
            {"--prop", "=1"},
            {"--replay", "game="},
            {"--summary="},
            {"--quiet=1"},
            {"a.json", "b.json"},
            {"--compare", "--disable"},
            {"--compare", "--trace", "t.json"},
    };
    for (const auto& args : bad) {
        std::string line;
        for (const auto& a : args) line += a + " ";
        EXPECT_THROW(parseOptions(args), UsageError) << line;
    }
}

TEST(SimOptions, ChildRunsGetTheSameScenario) {
    const Options o = parseOptions({"s.json", "--duration", "2.5", "--refresh", "120", "--seed", "3",
                                    "--prop", "a=1", "--replay", "g=c.csv", "--summary", "x.json"});
    const Options child = parseOptions(scenarioArguments(o));
    EXPECT_EQ(child.scenarioPath, "s.json");
    EXPECT_EQ(*child.durationS, 2.5);
    EXPECT_EQ(*child.refreshHz, 120.0);
    EXPECT_EQ(*child.seed, 3u);
    EXPECT_EQ(child.props, o.props);
    EXPECT_EQ(child.replays, o.replays);
    EXPECT_TRUE(child.summaryPath.empty()) << "the output files are the parent's";
}

class SimOverrides : public ::testing::Test {
protected:
    void TearDown() override {
        if (!mFile.empty()) unlink(mFile.c_str());
    }
    std::string writeCapture(const std::string& text) {
        char name[] = "/tmp/sim-capture-XXXXXX";
        const int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        close(fd);
        mFile = name;
        std::ofstream(mFile) << text;
        return mFile;
    }
    std::string mFile;
};

TEST_F(SimOverrides, CommandLineWinsOverTheScenario) {
    Scenario s = parseScenario(
            R"({"duration_s": 3, "properties": {"k": "scenario"}, "apps": [{"package": "p", "layers": [{"label": "g"}]}]})");
    const std::string capture = writeCapture("MsBetweenPresents\n10\n20\n");
    applyOverrides(s, parseOptions({"--duration", "7", "--refresh", "90", "--seed", "9", "--prop", "k=cli",
                                    "--replay", "g=" + capture}));
    EXPECT_EQ(s.durationS, 7.0);
    EXPECT_EQ(s.refreshHz, 90.0);
    EXPECT_EQ(s.seed, 9u);
    EXPECT_EQ(s.property("k", ""), "cli");
    const WorkModel& work = s.apps[0].layers[0].work;
    ASSERT_NE(work.replayMs, nullptr);
    EXPECT_EQ(*work.replayMs, (std::vector<double>{10, 20}));
    EXPECT_EQ(work.replayFile, capture);
}

TEST_F(SimOverrides, ReplayNamesALayerByLabelOrId) {
    Scenario s = parseScenario(R"({"apps": [{"package": "p", "layers": [{"label": "g", "id": 42}]}]})");
    const std::string capture = writeCapture("MsBetweenPresents\n5\n");
    applyOverrides(s, parseOptions({"--replay", "42=" + capture}));
    EXPECT_NE(s.apps[0].layers[0].work.replayMs, nullptr);

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
    EXPECT_EQ(plan[0].atNs, 1'000'000'000);
    EXPECT_EQ(plan[0].action, kActionDown);
    EXPECT_EQ(plan[1].kind, EventKind::Hint);
    EXPECT_EQ(plan[1].atNs, 1'050'000'000);
    EXPECT_EQ(plan[2].atNs, 1'100'000'000);
    EXPECT_EQ(plan[2].action, kActionUp);
    EXPECT_EQ(plan[3].action, kActionDown);
    EXPECT_EQ(plan[4].action, kActionMove);
    EXPECT_EQ(plan[4].atNs, 2'020'000'000);
    EXPECT_EQ(plan[5].action, kActionMove);
    EXPECT_EQ(plan[5].atNs, 2'040'000'000);
    EXPECT_EQ(plan[6].action, kActionUp);
    EXPECT_EQ(plan[6].atNs, 2'050'000'000);
    for (const TimedAction& a : plan) {
        if (a.kind == EventKind::Touch) EXPECT_EQ(a.layer, "g");
    }
}

TEST(SimTimeline, RepeatsUnroll) {
    const Scenario s = parseScenario(withTimeline(
            R"({"at_s": 0.5, "hint": 4192, "text": "p", "value": 1, "repeat_every_s": 0.25, "count": 3})"));
    const std::vector<TimedAction> plan = planTimeline(s);
    ASSERT_EQ(plan.size(), 3u);
    EXPECT_EQ(plan[0].atNs, 500'000'000);
    EXPECT_EQ(plan[1].atNs, 750'000'000);
    EXPECT_EQ(plan[2].atNs, 1'000'000'000);
    EXPECT_EQ(plan[2].hint.id, 4192);
}

HintEvent hint(int id, const std::string& text, int value, std::vector<int32_t> values = {}) {
    HintEvent h;
    h.id = id;
    h.text = text;
    h.value = value;
    h.values = std::move(values);
    return h;
}

TEST(SimServiceConfig, TargetsFollowTheTableRules) {
    ServiceConfig c;
    c.onHint(hint(4171, "com.game", 4500));
    EXPECT_EQ(c.targetFor("com.game", true), 45.0);
    EXPECT_EQ(c.targetFor("com.other", true), 0.0);

    c.onHint(hint(4171, "60", 0));  // a number as text: the global entry, which replaces all
    EXPECT_EQ(c.targetFor("com.game", true), 60.0);
    EXPECT_EQ(c.targetFor("com.game", false), 0.0) << "only games fall back to the global entry";

    c.onHint(hint(4171, "com.app", 3000));  // a package entry drops the global one
    EXPECT_EQ(c.targetFor("com.game", true), 0.0);
    EXPECT_EQ(c.targetFor("com.app", false), 30.0);

    c.onHint(hint(4171, "com.app", 24100));  // 241 fps: refused, nothing changes
    EXPECT_EQ(c.targetFor("com.app", false), 30.0);
    c.onHint(hint(4171, "com.app", 0));
    EXPECT_EQ(c.targetFor("com.app", false), 0.0);

    c.onHint(hint(4171, "vn-core-thermalCallbackHandler", 5000));
    EXPECT_EQ(c.targetFor("any.game", true), 50.0);
}

TEST(SimServiceConfig, FrameRescueEntries) {
    ServiceConfig c;
    c.onHint(hint(4189, "com.game:golden=0.8", 0, {1}));
    EXPECT_TRUE(c.frameRescueFor("com.game", true));
    EXPECT_FALSE(c.frameRescueFor("com.other", true));
    c.onHint(hint(4189, "com.game:golden=0.8", 0, {3}));  // a bad flag changes nothing
    EXPECT_TRUE(c.frameRescueFor("com.game", true));
    c.onHint(hint(4189, "com.game:", 0, {0}));
    EXPECT_FALSE(c.frameRescueFor("com.game", true));
    c.onHint(hint(4189, "1.5;2.0", 0, {2}));  // no colon: the global entry
    EXPECT_TRUE(c.frameRescueFor("com.any", true));
    EXPECT_FALSE(c.frameRescueFor("com.any", false));
    c.onHint(hint(4189, "com.game:jank=1.5", 0, {}));  // no flag: ignored
    EXPECT_FALSE(c.frameRescueFor("com.game", false));
}

TEST(SimServiceConfig, NumbersAsTheServiceWritesThem) {
    for (const char* yes : {"60", "-1", "5.", ".5", "0.25"}) EXPECT_TRUE(ServiceConfig::isNumeric(yes)) << yes;
    for (const char* no : {"", "-", ".", "-.", "1.2.3", "6O", " 60"}) EXPECT_FALSE(ServiceConfig::isNumeric(no)) << no;
}

} // namespace
} // namespace pelyx_sim
