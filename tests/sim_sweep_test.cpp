// The sweep's file, the scenario each setting plays, the figures it reads and how it ranks them.

#include <gtest/gtest.h>

#include <cmath>

#include "Scenario.h"
#include "Sweep.h"

namespace pelyx_sim {
namespace {

ScenarioError errorOf(const std::string& text) {
    try {
        parseSweep(text);
    } catch (const ScenarioError& e) {
        return e;
    }
    ADD_FAILURE() << "accepted: " << text;
    return ScenarioError("", "");
}

TEST(SimSweep, MistakesInASweepFileNameTheirKey) {
    const struct {
        const char* text;
        const char* key;
        const char* reason;
    } cases[] = {
            {R"({"axes": [{"hint": 4171, "values": [1]}], "seeds": 2})", "seeds", "unknown key"},
            {R"({"layer": "g"})", "axes", "missing"},
            {R"({"axes": []})", "axes", "non-empty list"},
            {R"({"axes": [{"hint": 4171}]})", "axes[0].values", "missing"},
            {R"({"axes": [{"hint": 4171, "property": "p", "values": [1]}]})", "axes[0]", "exactly one of"},
            {R"({"axes": [{"hint": "4171", "values": [1]}]})", "axes[0].hint", "hint id"},
            {R"({"axes": [{"hint": 4171, "values": [true]}]})", "axes[0].values[0]", "a text, an integer"},
            {R"({"axes": [{"hint": 4171, "values": [{"txt": "x"}]}]})", "axes[0].values[0].txt", "unknown key"},
            {R"({"axes": [{"property": "p", "at_s": 1, "values": ["1"]}]})", "axes[0].at_s", "hint axes only"},
            {R"({"axes": [{"property": "p", "values": [[1]]}]})", "axes[0].values[0]", "property value"},
            {R"({"axes": [{"hint": 1, "values": [1]}], "reruns": 50})", "reruns", "from 0 to 20"},
            {R"({"axes": [{"hint": 1, "values": [1]}], "replay": "f.csv"})", "replay", "layer label to capture file"},
            {"{\"axes\": [}", "line 1, column 11", ""},
    };
    for (const auto& c : cases) {
        const ScenarioError e = errorOf(c.text);
        EXPECT_EQ(e.key(), c.key) << c.text;
        EXPECT_NE(e.reason().find(c.reason), std::string::npos) << c.text << ": " << e.reason();
    }
}

TEST(SimSweep, SettingsCoverTheGridOrARepeatableSample) {
    SweepSpec plan = parseSweep(R"({"axes": [{"hint": 4171, "values": [4500, 6000, null]},
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
    const Json::Value base = [] {
        Json::Value v;
        Json::Reader().parse(kDefaultScenarioJson, v);
        return v;
    }();
    const SweepSpec plan = parseSweep(R"({"axes": [
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
    game["janks"] = 9;
    s["layers"].append(chat);
    s["layers"].append(game);
    s["boosts"]["level1"] = 1, s["boosts"]["level2"] = 2, s["boosts"]["level3"] = 3;
    return s;
}

TEST(SimSweep, FiguresComeFromTheRankedLayer) {
    const SweepMetrics m = metricsOf(summaryWith(R"({"late": 4, "late_vsyncs": 6})", 41.5), "");
    EXPECT_EQ(m.p50Ms, 41.5) << "the first game layer by default";
    EXPECT_TRUE(std::isnan(m.p95Ms));
    EXPECT_EQ(std::make_tuple(m.late, *m.lateVsyncs, m.boostTotal()), std::make_tuple(4, 6, 6));
    const SweepMetrics old = metricsOf(summaryWith(nullptr, 41.5), "game");
    EXPECT_EQ(old.late, 9) << "a summary without frame verdicts gives its rhythm janks";
    EXPECT_FALSE(old.lateVsyncs);
    EXPECT_THROW(metricsOf(summaryWith(nullptr, 1), "menu"), std::runtime_error);
}

TEST(SimSweep, RunsNoOtherBeatsOnAllThreeAreMarkedAndTheSmoothestLeads) {
    auto run = [](double p50, int late, int boosts, bool failed = false) {
        SweepRun r;
        r.metrics.p50Ms = p50, r.metrics.late = late, r.metrics.boosts[0] = boosts, r.failed = failed;
        return r;
    };
    const double none = std::nan("");
    std::vector<SweepRun> runs = {run(50, 10, 2), run(40, 20, 2), run(40, 20, 3), run(45, 5, 0),
                                  run(none, 5, 0), run(30, 0, 0, true), run(50, 10, 2)};
    const std::vector<size_t> order = rankRuns(&runs);
    EXPECT_EQ(order, (std::vector<size_t>{3, 4, 0, 6, 1, 2, 5})) << "late frames, then latency, then boosts";
    std::vector<bool> marked;
    for (const SweepRun& r : runs) marked.push_back(r.nonDominated);
    // 2 loses to 1 on boosts; 0 and 6 lose to 3, and so does the run without touches (latency
    // unmeasured is the worst); a failed run is never marked.
    EXPECT_EQ(marked, (std::vector<bool>{false, true, false, true, false, false, false}));
    EXPECT_FALSE(dominates(runs[0].metrics, runs[6].metrics)) << "equal is not better";
}

TEST(SimSweep, SpreadIsTakenOverTheRunsThatMeasuredSomething) {
    SweepMetrics a, b, c;
    a.p50Ms = 40, a.late = 10, b.p50Ms = 44, b.late = 14, c.p50Ms = std::nan(""), c.late = 12;
    const Spread s = spreadOf({a, b, c});
    EXPECT_EQ(std::make_tuple(s.runs, s.p50Min, s.p50Max, s.p50Mean), std::make_tuple(3, 40.0, 44.0, 42.0));
    EXPECT_EQ(std::make_tuple(s.lateMin, s.lateMax, s.lateMean), std::make_tuple(10.0, 14.0, 12.0));
}

} // namespace
} // namespace pelyx_sim
