// Sweeps over several entries: their files, the ranking rule, shards and their merge, and the
// recommendation played back.

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Options.h"
#include "Scenario.h"
#include "Sweep.h"
#include "SweepMerge.h"
#include "SweepRank.h"

namespace pelyx_sim {
namespace {

TEST(SimSweepFile, MistakesInTheEntriesNameTheirKey) {
    const std::string axes = R"("axes": [{"hint": 4171, "values": [1]}])";
    const struct {
        std::string text, key, reason;
    } cases[] = {
            {R"({"replays": {"game": "a.csv"}, )" + axes + "}", "replays", "non-empty list"},
            {R"({"replays": [{"layer": "game"}], )" + axes + "}", "replays[0].capture", "missing"},
            {R"({"replays": [{"capture": "a.csv"}], )" + axes + "}", "replays[0].layer", "missing"},
            {R"({"layer": "g", "replays": [{"capture": "a.csv", "refresh": 1}], )" + axes + "}", "replays[0].refresh", "unknown key"},
            {R"({"layer": "g", "replays": [{"capture": "x/a.csv"}, {"capture": "y/a.csv"}], )" + axes + "}", "replays[1]", "second entry named \"a\""},
            {R"({"replay": {"g": "a.csv"}, "scenarios": [{"scenario": "s.json"}], )" + axes + "}", "replay", "\"scenarios\""},
            {R"({"scenarios": [{"layer": "g"}], )" + axes + "}", "scenarios[0].scenario", "missing"},
            {R"({"scenarios": [{"scenario": "s.json", "package": ""}], )" + axes + "}", "scenarios[0].package", "non-empty"},
            {R"({"reruns": 4, )" + axes + "}", "reruns", "replaced by \"seeds\""},
            {R"({"seeds": 0, )" + axes + "}", "seeds", "from 1 to 20"},
            {R"({"axes": [{"hint": 4171, "values": [1]}], "seed_count": 2})", "seed_count", "unknown key"},
            {R"({"layer": "g"})", "axes", "missing"},
            {R"({"axes": [{"hint": 4171, "values": [true]}]})", "axes[0].values[0]", "a text, an integer"},
            {R"({"axes": [{"property": "p", "at_s": 1, "values": ["1"]}]})", "axes[0].at_s", "hint axes only"},
            {R"({"axes": [{"hint": 1, "values": [1]}], "replay": "f.csv"})", "replay", "layer label to capture file"},
            {"{\"axes\": [}", "line 1, column 11", ""},
    };
    for (const auto& c : cases) {
        try {
            parseSweep(c.text);
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const ScenarioError& e) {
            EXPECT_EQ(e.key(), c.key) << c.text;
            EXPECT_NE(e.reason().find(c.reason), std::string::npos) << c.text << ": " << e.reason();
        }
    }
    SweepSetup plan = parseSweep(R"({"scenario": "base.json", "layer": "game", "seeds": 2,
        "replays": [{"capture": "../c/one.csv", "package": "com.one"}, {"capture": "/abs/two.csv:ms", "name": "t"}],
        "scenarios": [{"scenario": "other.json", "layer": "x"}], )" + axes + "}");
    resolveBeside(&plan, "sweeps/s.json");
    std::vector<std::string> seen;
    for (const SweepEntry& e : plan.entries) {
        seen.push_back(e.name + " " + e.scenarioPath + " " + e.layer + " " + e.package + " " +
                       (e.replays.empty() ? "-" : e.replays[0].first + "=" + e.replays[0].second));
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"other sweeps/other.json x  -", "one sweeps/base.json game com.one game=sweeps/../c/one.csv",
                                              "t sweeps/base.json game  game=/abs/two.csv:ms"}));
}

SweepMetrics figures(double p50, int late, int boosts = 0) {
    SweepMetrics m;
    m.p50Ms = p50, m.late = late, m.boosts[0] = boosts;
    return m;
}

TEST(SimSweepRank, NoEntryWorseThanDisabledThenJanksSummedThenLatency) {
    const double none = std::nan("");
    SweepMetrics frugal = figures(50, 10);
    frugal.boosts[0] = 1;
    EXPECT_TRUE(dominates(figures(50, 10), frugal)) << "saving boosts alone is a better run";
    // Two entries; the library disabled gives 10 and 5 janks.
    const std::vector<SweepMetrics> baseline = {figures(50, 10), figures(30, 5)};
    auto setting = [](SweepMetrics a, SweepMetrics b, bool failed = false) {
        SettingFigures f;
        f.perEntry = {a, b};
        f.failed = failed;
        return f;
    };
    const std::vector<SettingFigures> settings = {
            setting(figures(40, 2), figures(20, 6)),      // 0: fewest janks, but entry 1 worse than disabled
            setting(figures(45, 8), figures(25, 5)),      // 1: 13 janks, p50 70
            setting(figures(44, 9), figures(25, 4)),      // 2: 13 janks, p50 69
            setting(figures(none, 6), figures(30, 5)),    // 3: 11 janks, no p50 on entry 0
            setting(figures(10, 0), figures(10, 0), true), // 4: failed
            setting(figures(44, 9), figures(25, 4, 3)),   // 5: as 2 with boosts
            setting(figures(60, 10), figures(40, 5)),     // 6: 15 janks
    };
    std::vector<size_t> order, worse;
    std::vector<bool> marked(settings.size());
    for (const RankedSetting& r : rankSettings(settings, baseline, {0, 1})) {
        order.push_back(r.setting);
        worse.push_back(r.worseOn.size());
        marked[r.setting] = r.nonDominated;
    }
    EXPECT_EQ(order, (std::vector<size_t>{3, 2, 5, 1, 6, 0, 4}));
    EXPECT_EQ(worse, (std::vector<size_t>{0, 0, 0, 0, 0, 1, 0}));
    // 0 has the fewest janks and the lowest mean p50 (3's is entry 1's alone): it beats every other.
    EXPECT_EQ(marked, (std::vector<bool>{true, false, false, false, false, false, false}));

    // Entry by entry the same rule: on entry 0 alone setting 0 is best and no worse than disabled.
    const std::vector<RankedSetting> first = rankSettings(settings, baseline, {0});
    EXPECT_EQ(first[0].setting, 0u);
    EXPECT_TRUE(first[0].worseOn.empty());
    EXPECT_EQ(rankSettings(settings, baseline, {1})[0].setting, 2u) << "janks 4, p50 25, before 5 on boosts";

    const SweepMetrics both = combineFigures({figures(40, 2, 1), figures(none, 3, 2), figures(50, 1)});
    EXPECT_EQ(std::make_tuple(both.late, both.boostTotal(), both.p50Ms), std::make_tuple(6, 3, 45.0))
            << "counts summed, rates the mean of the runs that have them";
}

TEST(SimSweepShards, EveryRunInExactlyOneShard) {
    for (size_t runs : {0u, 1u, 7u, 30u}) {
        for (int shards : {1, 2, 3, static_cast<int>(runs) + 5}) {
            std::vector<int> count(runs, 0);
            size_t smallest = runs, largest = 0;
            for (int k = 0; k < shards; ++k) {
                const std::vector<size_t> mine = shardRuns(runs, k, shards);
                for (size_t i : mine) ++count.at(i);
                smallest = std::min(smallest, mine.size()), largest = std::max(largest, mine.size());
            }
            EXPECT_EQ(count, std::vector<int>(runs, 1)) << runs << " runs in " << shards;
            EXPECT_LE(largest - std::min(smallest, largest), 1u) << "slices differ by one run at most";
        }
    }
}

// Parts of a sweep of `runs` runs in `shards` shards, each run's janks its index.
std::vector<std::pair<std::string, Json::Value>> partsOf(size_t runs, int shards, const std::string& hash = "h1",
                                                          const std::string& build = "b1") {
    SweepInputs inputs;
    inputs.sweepPath = "s.json", inputs.sweepText = "{}", inputs.inputsHash = hash, inputs.binaryHash = build;
    std::vector<std::pair<std::string, Json::Value>> parts;
    for (int k = 0; k < shards; ++k) {
        const std::vector<size_t> mine = shardRuns(runs, k, shards);
        std::vector<RunOutcome> outcomes;
        for (size_t i : mine) {
            RunOutcome o;
            o.ok = i != 3;
            o.error = o.ok ? "" : "run 3 failed";
            o.metrics = figures(i + 0.1, static_cast<int>(i));
            outcomes.push_back(o);
        }
        parts.emplace_back("part-" + std::to_string(k), makePart(inputs, k, shards, runs, mine, outcomes, 1.5));
    }
    return parts;
}

TEST(SimSweepShards, TheMergeTakesEveryShardOfOneSweepOnly) {
    const MergedRuns merged = mergeParts(partsOf(10, 3));
    ASSERT_EQ(merged.outcomes.size(), 10u);
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(merged.outcomes[i].ok, i != 3);
        if (i != 3) {
            EXPECT_EQ(std::make_pair(merged.outcomes[i].metrics.late, merged.outcomes[i].metrics.p50Ms),
                      std::make_pair(static_cast<int>(i), i + 0.1));
        }
    }
    EXPECT_EQ(merged.outcomes[3].error, "run 3 failed");

    auto refused = [](std::vector<std::pair<std::string, Json::Value>> parts) {
        try {
            mergeParts(parts);
        } catch (const MergeError& e) {
            return std::string(e.what());
        }
        return std::string("merged");
    };
    auto without = [](std::vector<std::pair<std::string, Json::Value>> parts, size_t k) {
        parts.erase(parts.begin() + static_cast<long>(k));
        return parts;
    };
    auto with = [](std::vector<std::pair<std::string, Json::Value>> parts, size_t k,
                   const std::pair<std::string, Json::Value>& other) {
        parts[k] = other;
        return parts;
    };
    const auto good = partsOf(10, 3);
    Json::Value edited = good[1].second;
    edited["results"][0][0] = 4;
    const struct {
        std::vector<std::pair<std::string, Json::Value>> parts;
        std::string message;
    } cases[] = {
            {without(good, 1), "missing part: shard 1 of 3 (2 given)"},
            {with(good, 2, partsOf(10, 3, "h2")[2]), "part-2: a part of another sweep than part-0"},
            {with(good, 2, partsOf(10, 3, "h1", "b2")[2]), "part-2: played by another build of pelyx-sim than part-0"},
            {with(good, 2, good[1]), "part-1: shard 1/3 again (also part-1)"},
            {with(good, 2, partsOf(10, 4)[2]), "part-2: one of 4 shards, part-0 one of 3"},
            {with(good, 1, {"part-1", edited}), "part-1: results[0]: not the run its shard plays"},
            {with(good, 1, {"notes.json", Json::Value("text")}), "notes.json: not a part of a sharded sweep"},
    };
    for (const auto& c : cases) {
        const std::string message = refused(c.parts);
        EXPECT_EQ(message.rfind(c.message, 0), 0u) << message;
        EXPECT_EQ(message.find('\n'), std::string::npos);
    }
}

TEST(SimSweepHints, ARecommendationChangesOnlyItsPackagesPushes) {
    const Json::Value base = parseStrictJson(R"({"apps": [{"package": "com.a", "game": true, "layers": [{}]},
        {"package": "com.b", "layers": [{}]}], "timeline": [
        {"at_s": 1, "hint": 4171, "text": "com.a", "value": 4500}, {"at_s": 2, "hint": 4171, "text": "com.b", "value": 3000}]})");
    const Json::Value hints = parseStrictJson(R"({"schema": "pelyx-sim-hints/1", "packages": {
        "com.a": {"axes": [{"hint": 4171, "text": "com.a", "values": [6000]},
                           {"hint": 4189, "at_s": 0.5, "values": ["com.a:jank=1.5"]}, {"property": "p", "values": ["1"]}]},
        "com.z": {"axes": [{"hint": 4171, "text": "com.z", "values": [9000]}]}}})");
    const Json::Value played = applyHints(base, hints);
    Json::FastWriter w;
    EXPECT_EQ(w.write(played["timeline"]),
              R"([{"at_s":1,"hint":4171,"text":"com.a","value":6000},{"at_s":2,"hint":4171,"text":"com.b","value":3000},)"
              R"({"at_s":0.5,"hint":4189,"text":"com.a:jank=1.5"}])" "\n");
    EXPECT_EQ(played["properties"]["p"].asString(), "1");

    // Renamed, the scenario's game takes the recommendation meant for com.z instead.
    const Json::Value renamed = renamePackage(base, "com.a", "com.z");
    EXPECT_EQ(renamed["apps"][0]["layers"][0]["label"].asString(), "a") << "the layer keeps its label";
    EXPECT_EQ(applyHints(renamed, hints)["timeline"][0]["value"].asInt(), 9000);

    Json::Value other = hints;
    other["packages"].removeMember("com.a");
    other["packages"].removeMember("com.z");
    other["packages"]["com.q"]["axes"][0] = hints["packages"]["com.z"]["axes"][0];
    try {
        applyHints(base, other);
        ADD_FAILURE() << "a file for none of the scenario's apps was played";
    } catch (const ScenarioError& e) {
        EXPECT_EQ(e.key() + ": " + e.reason(), "packages: names none of the scenario's apps (com.a, com.b)");
    }
}

// The executable on a small sweep of two entries: shards merged give the one-machine summary,
// and each entry played with the recommendation gives the figures the sweep ranked.
class SimSweepRun : public ::testing::Test {
public:
    void SetUp() override {
        char dir[] = "/tmp/sim-sweep-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        mDir = dir;
    }
    void TearDown() override { std::filesystem::remove_all(mDir); }

    std::string file(const std::string& name) { return mDir + "/" + name; }
    std::string slurp(const std::string& path) {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    int run(const std::string& args) {
        const int status = std::system((std::string(PELYX_SIM_PATH) + " " + args + " >" + file("out") + " 2>" + file("err")).c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string mDir;
};

TEST_F(SimSweepRun, TheHintsPlayBackItsFigures) {
    const std::string sim = PELYX_SIM_SOURCE_DIR;
    std::ofstream(file("sweep.json")) << R"({"scenario": ")" << sim << R"(/scenarios/replay.json", "layer": "game",
        "duration_s": 2, "seeds": 2, "replays": [
          {"capture": ")" << sim << R"(/captures/presentmon-far-cry-new-dawn-80fps-stutter.csv", "package": "com.far"},
          {"capture": ")" << sim << R"(/captures/dumpsys-surfaceflinger-latency-sample.txt", "package": "com.sf"}],
        "axes": [{"hint": 4171, "text": "com.example.game", "at_s": 0.5, "values": [null, 6000]},
                 {"hint": 4189, "values": ["com.example.game:jank=1.2;1.5;2.0", null]}]})";
    const std::string sweep = file("sweep.json");
    ASSERT_EQ(run("--sweep " + sweep + " --jobs 2 --quiet --summary " + file("one.json") + " --recommend " + file("hints.json")), 0)
            << slurp(file("err"));
    // Shards merged to this summary: scripts/sweep-parallel-check.sh, in CI.
    const Json::Value summary = parseStrictJson(slurp(file("one.json")));
    ASSERT_EQ(summary["entries"].size(), 2u);
    for (const Json::Value& entry : summary["entries"]) {
        const Json::Value& perSeed = entry["recommended"]["per_seed"];
        ASSERT_EQ(perSeed.size(), 2u);
        // The second seed plays at a quarter period's vsync phase, as the sweep played it.
        for (int k = 0; k < 2; ++k) {
            const std::string extra = k == 0 ? "" : " --seed 2 --vsync-phase 0.25";
            ASSERT_EQ(run(entry["play"].asString() + extra + " --hints " + file("hints.json") + " --quiet --summary " +
                          file("back.json")), 0) << slurp(file("err"));
            const Json::Value back = metricsJson(metricsOf(parseStrictJson(slurp(file("back.json"))), entry["layer"].asString()));
            EXPECT_EQ(back, perSeed[k]) << entry["name"] << " seed " << k << ": " << back.toStyledString();
        }
    }
}

} // namespace
} // namespace pelyx_sim
