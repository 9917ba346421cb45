#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Scenario.h"
#include "Summary.h"
#include "TraceCheck.h"

namespace pelyx_sim {
namespace {

struct Outcome {
    int status = -1;
    std::string out, err;
};

std::string slurp(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> all;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) all.push_back(line);
    return all;
}

class SimRun : public ::testing::Test {
public:
    void SetUp() override {
        char dir[] = "/tmp/sim-run-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        mDir = dir;
    }
    void TearDown() override { std::filesystem::remove_all(mDir); }

    std::string file(const std::string& name) { return mDir + "/" + name; }
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(file(name)) << text;
        return file(name);
    }

    // Arguments are single-quoted for the shell; none of ours holds a quote.
    Outcome run(const std::vector<std::string>& args) {
        std::string command = PELYX_SIM_PATH;
        for (const std::string& a : args) command += " '" + a + "'";
        const int status = std::system((command + " >" + file("stdout") + " 2>" + file("stderr")).c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(file("stdout")), slurp(file("stderr"))};
    }

    Json::Value json(const std::string& path) { return parseStrictJson(slurp(path)); }

    std::string mDir;
};

// One line on stderr naming the file and what is wrong, nothing on stdout, status 2.
void expectRefused(const Outcome& o, const std::string& file, const std::string& what) {
    EXPECT_EQ(o.status, 2);
    EXPECT_TRUE(o.out.empty()) << o.out;
    const std::vector<std::string> err = lines(o.err);
    ASSERT_EQ(err.size(), 1u) << o.err;
    EXPECT_EQ(err[0].rfind("pelyx-sim: error: " + file + ":", 0), 0u) << err[0];
    EXPECT_NE(err[0].find(what), std::string::npos) << err[0];
}

TEST_F(SimRun, BadInputStopsBeforeTheRun) {
    const std::string missing = mDir + "/missing.json";
    expectRefused(run({missing}), missing, "cannot open: No such file or directory");

    const std::string bad = write("bad.json", "{\"apps\": [\n  {\"package\": \"p\",, }\n]}");
    expectRefused(run({bad, "--quiet"}), bad, "line 2, column");

    expectRefused(run({mDir}), mDir, "cannot read: Is a directory");

    const Outcome option = run({"--frobnicate"});
    EXPECT_TRUE(option.status == 2 && lines(option.err).size() == 1u) << option.err;

    const std::string capture = write("capture.csv", "MsBetweenPresents\n10\nten\n");
    expectRefused(run({"--replay", "game=" + capture}), capture, ":3: bad MsBetweenPresents value \"ten\"");

    const std::string sweep = write("sweep.json", R"({"axes": [{"hint": 4171, "values": [true]}]})");
    expectRefused(run({"--sweep", sweep}), sweep, "axes[0].values[0]: must be a text, an integer");
}

TEST_F(SimRun, AShortRunWritesItsSummaryAndTrace) {
    const std::string summary = file("summary.json"), trace = file("trace.json");
    const Outcome o = run({"--duration", "2.5", "--summary", summary, "--trace", trace});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_NE(o.out.find("scenario \"default\""), std::string::npos) << "the report";

    EXPECT_NE(o.out.find("library enabled, virtual clock ("), std::string::npos) << o.out;

    // Exact figures: the virtual clock makes them a function of the scenario and its seed.
    const Json::Value s = json(summary);
    EXPECT_EQ(checkSummary(s), std::vector<std::string>{});
    EXPECT_EQ(s["clock"].asString(), "virtual");
    const Json::Value& game = s["layers"][0];
    EXPECT_EQ(game["frames_presented"].asInt(), 150);
    EXPECT_EQ(game["input_to_present_ms"]["frames"].asInt(), 65) << "the drag at 1 s reached frames";
    EXPECT_EQ(game["input_to_present_ms"]["p50"].asDouble(), 52.939);
    // Every touch event counts, to the first frame that read it, held MOVEs included.
    EXPECT_EQ(game["touch_event_to_present_ms"]["events"].asInt(), 135);
    EXPECT_EQ(game["touch_event_to_present_ms"]["p50"].asDouble(), 54.303);
    // Three buffers drawn ahead: stuffed a vsync late, which is no jank.
    EXPECT_EQ(game["frame_timeline"]["late"].asInt(), 1);
    EXPECT_EQ(game["frame_timeline"]["buffer_stuffing"]["frames"].asInt(), 121);
    EXPECT_EQ(game["frame_timeline"]["buffer_stuffing"]["late_ms_p50"].asDouble(), 16.667);
    EXPECT_EQ(game["holds"]["count"].asInt(), 28);
    // The app's vsync time is the vsync's, set at each vsync: smart touch holds some MOVEs only.
    EXPECT_EQ(game["smart_touch"]["moves_held"].asInt(), 64);
    EXPECT_EQ(game["smart_touch"]["moves_consumed_now"].asInt(), 72);
    EXPECT_TRUE(game["promoted"].asBool() && s["hints"]["delivered"].asInt() == 1);

    // The trace loads, holds both kinds of slices, and every slice on a thread is closed.
    const TraceResult t = checkTrace(trace);
    EXPECT_EQ(t.simulatorSlices, 1344u);
    EXPECT_EQ(t.librarySlices, 305u);
    EXPECT_EQ(t.unmatchedEnds + t.openSlices + t.unmatchedAsyncEnds, 0u);
}

TEST_F(SimRun, CompareRunsBothWaysAndPrintsThemSideBySide) {
    const std::string summary = file("both.json");
    const Outcome o = run({"--compare", "--duration", "1.5", "--summary", summary});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(o.out.find("disabled      enabled") != std::string::npos && o.out.find("touch->present p50 ms") != std::string::npos)
            << o.out;
    const Json::Value both = json(summary);
    // With the library disabled nothing reaches the service.
    const Json::Value& off = both["disabled"];
    EXPECT_TRUE(both["enabled"]["library_enabled"].asBool() && !off["library_enabled"].asBool());
    EXPECT_EQ(off["scene_reports"].size() + off["hints"]["delivered"].asInt() + off["layers"][0]["holds"]["count"].asInt(), 0u);
    EXPECT_EQ(off["layers"][0]["input_to_present_ms"]["p50"].asDouble(), 55.618);
    EXPECT_EQ(both["enabled"]["layers"][0]["input_to_present_ms"]["p50"].asDouble(), 55.641);
    // The scenario as it is, then four kinds of app, each at four vsync phases on four seeds.
    const Json::Value& runs = both["runs"];
    ASSERT_EQ(runs.size(), 20u);
    EXPECT_TRUE(runs[0]["loop"].isNull() && runs[4]["loop"].asString() == "choreographer" &&
                runs[19]["loop"].asString() == "choreographer@30");
    EXPECT_EQ(runs[6]["vsync_phase"].asDouble(), 0.5);
    EXPECT_EQ(runs[6]["seed"].asInt(), 3);
    EXPECT_EQ(runs[4]["enabled"]["loop"].asString(), "choreographer");
    EXPECT_NE(o.out.find("over 4 vsync phases"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("game capped at 30 fps (--loop game=choreographer@30)"), std::string::npos) << o.out;
}

// Two runs of the built-in scenario with its frames, log and trace: the second with the host's
// timing disturbed at every start and turn, and both cores kept busy. Only the host's own
// fields may differ.
TEST_F(SimRun, ARunIsTheSameWhateverTheHostDoes) {
    auto outputs = [&](const std::string& tag) {
        const Outcome o = run({"--quiet", "--summary", file(tag + ".json"), "--frames", file(tag + ".csv"),
                               "--log", file(tag + ".log"), "--trace", file(tag + ".trace")});
        EXPECT_EQ(o.status, 0) << o.err;
        Json::Value summary = json(file(tag + ".json"));
        for (const char* host : {"wall_s", "library_cpu_ms"}) summary.removeMember(host);
        summary["trace"].removeMember("file");
        return std::vector<std::string>{summary.toStyledString(), slurp(file(tag + ".csv")),
                                        slurp(file(tag + ".log")), slurp(file(tag + ".trace"))};
    };
    const std::vector<std::string> quiet = outputs("quiet");
    std::atomic<bool> busy{true};
    std::vector<std::thread> load;
    for (int i = 0; i < 2; i++) {
        load.emplace_back([&busy] {
            while (busy.load(std::memory_order_relaxed)) {
            }
        });
    }
    setenv("PELYX_SIM_REAL_JITTER_US", "100", 1);
    const std::vector<std::string> disturbed = outputs("disturbed");
    unsetenv("PELYX_SIM_REAL_JITTER_US");
    busy.store(false);
    for (std::thread& t : load) t.join();
    const char* names[] = {"summary", "frames", "log", "trace"};
    for (size_t i = 0; i < quiet.size(); i++) {
        EXPECT_GT(quiet[i].size(), 1000u) << names[i];
        EXPECT_TRUE(quiet[i] == disturbed[i]) << "the " << names[i] << " differs";
    }
}

} // namespace
} // namespace pelyx_sim
