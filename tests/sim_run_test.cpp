// pelyx-sim as a user runs it: the built executable, started with a command line, judged by its
// exit status, its messages and the files it writes.

#include <gtest/gtest.h>
#include <json/json.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Scenario.h"
#include "Summary.h"
#include "TraceCheck.h"

extern char** environ;

namespace pelyx_sim {
namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> all;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) all.push_back(line);
    return all;
}

class SimRun : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/sim-run-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        mDir = dir;
    }
    void TearDown() override {
        for (const std::string& f : mFiles) unlink(f.c_str());
        rmdir(mDir.c_str());
    }

    std::string file(const std::string& name) {
        mFiles.push_back(mDir + "/" + name);
        return mFiles.back();
    }
    std::string write(const std::string& name, const std::string& text) {
        const std::string path = file(name);
        std::ofstream(path) << text;
        return path;
    }

    Outcome run(std::vector<std::string> args) {
        const std::string out = file("stdout"), err = file("stderr");
        args.insert(args.begin(), PELYX_SIM_PATH);
        std::vector<char*> argv;
        for (std::string& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        pid_t pid = 0;
        Outcome o;
        if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
            int status = 0;
            waitpid(pid, &status, 0);
            o.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        posix_spawn_file_actions_destroy(&actions);
        o.out = slurp(out);
        o.err = slurp(err);
        return o;
    }

    Json::Value json(const std::string& path) {
        std::ifstream in(path);
        Json::CharReaderBuilder builder;
        Json::Value value;
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << path << ": " << errors;
        return value;
    }

    std::string mDir;
    std::vector<std::string> mFiles;
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

TEST_F(SimRun, BadScenarioFilesStopBeforeTheRun) {
    const std::string missing = mDir + "/missing.json";
    expectRefused(run({missing}), missing, "cannot open: No such file or directory");

    const std::string bad = write("bad.json", "{\"apps\": [\n  {\"package\": \"p\",, }\n]}");
    expectRefused(run({bad, "--quiet"}), bad, "line 2, column");

    const std::string unknown = write("unknown.json", R"({"apps": [{"package": "p", "layers": [{"buffer": 3}]}]})");
    expectRefused(run({unknown}), unknown, "apps[0].layers[0].buffer: unknown key");

    const std::string negative = write("negative.json",
                                       R"({"display": {"refresh_hz": -60}, "apps": [{"package": "p", "layers": [{}]}]})");
    expectRefused(run({negative}), negative, "display.refresh_hz: must be above 0");

    expectRefused(run({mDir}), mDir, "cannot read: Is a directory");
}

TEST_F(SimRun, BadCommandLinesAndCapturesStopToo) {
    const Outcome option = run({"--frobnicate"});
    EXPECT_EQ(option.status, 2);
    EXPECT_EQ(lines(option.err).size(), 1u) << option.err;
    EXPECT_NE(option.err.find("unknown option --frobnicate"), std::string::npos);

    const std::string capture = write("capture.csv", "MsBetweenPresents\n10\nten\n");
    expectRefused(run({"--replay", "game=" + capture}), capture, ":3: bad MsBetweenPresents value \"ten\"");
    const Outcome layer = run({"--replay", "nolayer=" + capture});
    EXPECT_EQ(layer.status, 2);
    EXPECT_NE(layer.err.find("--replay: no layer"), std::string::npos) << layer.err;
}

TEST_F(SimRun, PrintsTheBuiltInScenario) {
    const Outcome o = run({"--print-default"});
    EXPECT_EQ(o.status, 0);
    EXPECT_EQ(o.out, kDefaultScenarioJson);
    EXPECT_EQ(parseScenario(o.out).name, "default");
    EXPECT_EQ(run({"--help"}).status, 0);
}

TEST_F(SimRun, AShortRunWritesItsSummaryTraceAndFrames) {
    const std::string summary = file("summary.json"), trace = file("trace.json"), frames = file("frames.csv");
    const Outcome o = run({"--duration", "2.5", "--summary", summary, "--trace", trace, "--frames", frames});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_NE(o.out.find("scenario \"default\""), std::string::npos) << "the report";

    const Json::Value s = json(summary);
    EXPECT_EQ(checkSummary(s), std::vector<std::string>{});
    EXPECT_TRUE(s["library_enabled"].asBool());
    EXPECT_GE(s["duration_s"].asDouble(), 2.5);
    ASSERT_EQ(s["layers"].size(), 2u);
    const Json::Value& game = s["layers"][0];
    EXPECT_EQ(game["label"].asString(), "game");
    EXPECT_GT(game["frames_queued"].asInt(), 60);
    EXPECT_GT(game["frames_presented"].asInt(), 60);
    EXPECT_LE(game["frames_presented"].asInt(), game["frames_queued"].asInt());
    EXPECT_GT(game["input_to_present_ms"]["frames"].asInt(), 0) << "the drag at 1 s reached frames";
    EXPECT_TRUE(game["promoted"].asBool());
    EXPECT_GE(s["hints"]["delivered"].asInt(), 1);
    EXPECT_EQ(s["trace"]["file"].asString(), trace);

    // The trace loads, holds both kinds of slices, and every slice on a thread is closed.
    const TraceResult t = checkTrace(trace);
    EXPECT_GT(t.events, 1000u);
    EXPECT_GT(t.simulatorSlices, 100u);
    EXPECT_GT(t.librarySlices, 0u);
    EXPECT_EQ(t.unmatchedEnds, 0u);
    EXPECT_EQ(t.openSlices, 0u);
    EXPECT_EQ(t.unmatchedAsyncEnds, 0u);

    const std::vector<std::string> rows = lines(slurp(frames));
    ASSERT_GT(rows.size(), 60u);
    EXPECT_EQ(rows[0].rfind("layer,frame,start_s", 0), 0u);
}

TEST_F(SimRun, AReplayRunsToTheEndOfItsCapture) {
    std::string csv = "// a capture\nApplication,MsBetweenPresents\n";
    for (int i = 0; i < 90; ++i) csv += "g.exe,10\n";
    const std::string capture = write("capture.csv", csv);
    const std::string summary = file("summary.json");
    const Outcome o = run({"--replay", "game=" + capture, "--quiet", "--summary", summary});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_TRUE(o.out.empty()) << "--quiet";
    const Json::Value s = json(summary);
    const Json::Value& game = s["layers"][0];
    EXPECT_EQ(game["replay"]["frames"].asInt(), 90);
    EXPECT_EQ(game["replay"]["replayed"].asInt(), 90);
    EXPECT_EQ(game["frames_presented"].asInt(), 90);
    EXPECT_EQ(game["replay"]["expected_fps_mode"].asInt(), 60) << "100 fps on a 60 Hz display";
    EXPECT_LT(s["duration_s"].asDouble(), 8.0) << "90 frames at 60 Hz end the run early";
}

TEST_F(SimRun, WithTheLibraryDisabledNothingReachesTheService) {
    const std::string summary = file("summary.json");
    const Outcome o = run({"--disable", "--duration", "1.5", "--quiet", "--summary", summary});
    ASSERT_EQ(o.status, 0) << o.err;
    const Json::Value s = json(summary);
    EXPECT_FALSE(s["library_enabled"].asBool());
    EXPECT_EQ(s["scene_reports"].size(), 0u);
    EXPECT_EQ(s["hints"]["delivered"].asInt(), 0);
    EXPECT_GE(s["hints"]["refused"].asInt(), 1);
    EXPECT_EQ(s["layers"][0]["holds"]["count"].asInt(), 0);
    EXPECT_FALSE(s["layers"][0]["promoted"].asBool());
    EXPECT_GT(s["layers"][0]["frames_presented"].asInt(), 30);
}

TEST_F(SimRun, CompareRunsBothWaysAndPrintsThemSideBySide) {
    const std::string summary = file("both.json");
    const Outcome o = run({"--compare", "--duration", "1.5", "--summary", summary});
    ASSERT_EQ(o.status, 0) << o.err;
    EXPECT_NE(o.out.find("disabled      enabled"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("touch->present p50 ms"), std::string::npos);
    const Json::Value both = json(summary);
    EXPECT_FALSE(both["disabled"]["library_enabled"].asBool());
    EXPECT_TRUE(both["enabled"]["library_enabled"].asBool());
    EXPECT_TRUE(checkSummary(both["enabled"]).empty());
}

} // namespace
} // namespace pelyx_sim
