#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
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

    // One app alone, library off; returns its layer's summary. `extra`: more top-level keys.
    Json::Value alone(const std::string& name, const std::string& layer, const std::string& extra = "") {
        const std::string scenario = write(name + ".json", R"({"duration_s": 1.5, )" + extra +
                                                                   R"("apps": [{"package": "p", "layers": [)" + layer + "]}]}");
        const Outcome o = run({scenario, "--disable", "--quiet", "--summary", file(name + ".out.json")});
        EXPECT_EQ(o.status, 0) << o.err;
        return json(file(name + ".out.json"))["layers"][0];
    }

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

TEST_F(SimRun, AShortRunWritesItsSummaryTraceAndFrames) {
    const std::string summary = file("summary.json"), trace = file("trace.json"), frames = file("frames.csv");
    const Outcome o = run({"--duration", "2.5", "--summary", summary, "--trace", trace, "--frames", frames});
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

    const std::vector<std::string> rows = lines(slurp(frames));
    EXPECT_TRUE(rows.size() == 211 && rows[0].rfind("layer,frame,start_s", 0) == 0);
}

TEST_F(SimRun, TheGpuAndTheReleaseFencesBoundTheFrameRate) {
    // 25 ms of GPU work a frame at the base clock: one GPU allows 40 fps whatever the CPU does,
    // until its governor raises the clock under the load.
    const std::string heavy = R"({"work": {"mean_ms": 4, "gpu_ms": 25}})";
    EXPECT_EQ(alone("fixed", heavy, R"("gpu": {"governor": 0}, )")["presented_fps"].asDouble(), 40.0);
    EXPECT_EQ(alone("governed", heavy)["presented_fps"].asDouble(), 60.0);
    // 12 ms of GPU work that may start only once the display has let go of the buffer: with two
    // buffers that is at the present, half a vsync after the latch, so every frame misses the
    // next latch; a third buffer hides it.
    const std::string layer = R"({"buffers": N, "work": {"mean_ms": 2, "dequeue_at": 0, "gpu_ms": 12}})";
    auto with = [&](const char* n) { return std::string(layer).replace(layer.find('N'), 1, n); };
    EXPECT_EQ(alone("two", with("2"))["presented_fps"].asDouble(), 30.337);
    EXPECT_EQ(alone("three", with("3"))["presented_fps"].asDouble(), 60.0);
}

// Three kinds of app alone, on a clock without wake-up latency: a Choreographer app starts its
// frames at vsyncs and skips those its heavy frame missed; a game with its own present times is
// shown at them; a free-running game drawing ahead is stuffed, a vsync late every frame, with
// no jank.
TEST_F(SimRun, EachKindOfAppIsJudgedAgainstTheVsyncItMeant) {
    const std::string scenario = write("kinds.json", R"({"duration_s": 1, "scheduler": {"wakeup_us": 0}, "apps": [
        {"package": "c", "layers": [{"loop": "choreographer", "work": {"mean_ms": 6, "gpu_ms": 2,
                                     "heavy_ms": 40, "heavy_every_s": 10, "heavy_from_s": 0.5}}]},
        {"package": "p", "layers": [{"loop": "present_time", "fps_cap": 30, "work": {"mean_ms": 6, "gpu_ms": 2}}]},
        {"package": "f", "layers": [{"work": {"mean_ms": 6, "gpu_ms": 2}}]}]})");
    const Outcome moved = run({scenario, "--disable", "--quiet", "--vsync-phase", "0.25", "--frames", file("moved.csv")});
    ASSERT_EQ(moved.status, 0) << moved.err;
    const Outcome o = run({scenario, "--disable", "--quiet", "--summary", file("kinds.out.json"), "--frames", file("kinds.csv")});
    ASSERT_EQ(o.status, 0) << o.err;
    const Json::Value s = json(file("kinds.out.json"));
    auto timeline = [&](int i) {
        const Json::Value& t = s["layers"][i]["frame_timeline"];
        return std::vector<int>{t["on_time"].asInt(), t["late"].asInt(), t["by_cause"]["app_deadline"].asInt(),
                                t["buffer_stuffing"]["frames"].asInt()};
    };
    EXPECT_EQ(timeline(0), std::vector<int>({56, 1, 1, 0})) << "only the heavy frame is late";
    EXPECT_EQ(timeline(1), std::vector<int>({30, 0, 0, 0}));
    EXPECT_EQ(s["layers"][1]["presented_fps"].asDouble(), 30.0);
    EXPECT_EQ(timeline(2), std::vector<int>({1, 0, 0, 59}));
    EXPECT_EQ(s["layers"][2]["frame_timeline"]["buffer_stuffing"]["late_ms_p50"].asDouble(), 16.667);
    // The Choreographer app's starts: each at a vsync, never two in one vsync; with the vsyncs
    // moved a quarter period earlier, on that grid.
    for (const auto& [csv, phase] : {std::pair<std::string, double>{"kinds.csv", 0}, {"moved.csv", 0.25}}) {
        double last = -1;
        for (const std::string& row : lines(slurp(file(csv)))) {
            if (row.rfind("c,", 0) != 0) continue;
            const double start = std::stod(row.substr(row.find(',', 2) + 1));
            EXPECT_NEAR(start * 60 + phase, std::round(start * 60 + phase), 1e-4) << csv << ": " << row;
            EXPECT_GT(start - last, 0.016) << row;
            last = start;
        }
    }
}

// What a device varies: where a game reads input against its dequeue wait, and how long a
// released buffer takes to come back.
TEST_F(SimRun, InputSampleAndBufferReturnAreTheDevicesToSet) {
    const std::string drag = R"("timeline": [{"at_s": 0.3, "touch": "drag", "layer": "p", "duration_s": 1}], )";
    auto p50 = [&](const char* name, const char* sample) {
        const Json::Value l = alone(name, std::string(R"({"work": {"mean_ms": 6, "input_sample": ")") + sample + R"("}})", drag);
        return l["touch_event_to_present_ms"]["p50"].asDouble();
    };
    EXPECT_EQ(p50("start", "frame_start"), 61.238);
    EXPECT_EQ(p50("dequeued", "after_dequeue"), 47.532) << "the wait for a buffer no longer counts";
    // Two buffers and 13 ms of work after the dequeue: a buffer back 2 ms after the latch still
    // makes the next latch, 4 ms after it does not.
    auto fps = [&](const char* name, const char* delayUs) {
        return alone(name, R"({"buffers": 2, "work": {"mean_ms": 13, "dequeue_at": 0}})",
                     std::string(R"("compositor": {"release_delay_us": )") + delayUs + "}, ")["presented_fps"]
                .asDouble();
    };
    EXPECT_EQ(fps("soon", "2000"), 60.0);
    EXPECT_EQ(fps("late", "4000"), 30.337);
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
