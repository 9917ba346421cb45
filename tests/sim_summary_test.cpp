#include <gtest/gtest.h>
#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "BufferQueue.h"
#include "FakeDevices.h"
#include "LogSink.h"
#include "ServiceLog.h"
#include "Stats.h"
#include "Summary.h"
#include "TraceCheck.h"
#include "platform/Clock.h"
#include "platform/Ioctl.h"

namespace pelyx_sim {
namespace {

TEST(SimStats, PercentilesInterpolate) {
    EXPECT_TRUE(std::isnan(percentile({}, 50)));
    EXPECT_EQ(percentile({7}, 99), 7);
    EXPECT_EQ(percentile({4, 1, 3, 2}, 0), 1);
    EXPECT_EQ(percentile({4, 1, 3, 2}, 100), 4);
    EXPECT_EQ(percentile({4, 1, 3, 2}, 50), 2.5);
    EXPECT_NEAR(percentile({10, 20}, 95), 19.5, 1e-12);
}

TEST(SimStats, RateClassesAreTheDisplayModes) {
    const std::vector<std::pair<double, int>> cases = {{0, -1}, {-5, -1}, {std::nan(""), -1}, {12.4, 12},
            {18, 18}, {18.1, 30}, {33, 30}, {45.5, 45}, {59.9, 60}, {79.7, 90}, {98.6, 120}, {200, 185},
            {240, 240}, {286, -1}};
    for (const auto& [rate, mode] : cases) EXPECT_EQ(rateClass(rate), mode) << rate;
}

TEST(SimStats, FramesMayStayLongerAtLowerCadences) {
    for (int mode : {60, 0, 90, 59}) EXPECT_EQ(allowedVsyncs(60, mode), 1) << mode;
    EXPECT_EQ(allowedVsyncs(60, 45), 2);
    EXPECT_EQ(allowedVsyncs(120, 30), 4);
    EXPECT_EQ(allowedVsyncs(60, 20), 3);
}

TEST(SimStats, JanksArePresentsPastTheirVsync) {
    constexpr int64_t kPeriod = 16'666'667;
    JankCounter j;
    EXPECT_FALSE(j.onPresent(100 * kPeriod, kPeriod, 1)) << "the first present has nothing to miss";
    EXPECT_FALSE(j.onPresent(101 * kPeriod, kPeriod, 1));
    EXPECT_FALSE(j.onPresent(102 * kPeriod + kPeriod / 3, kPeriod, 1)) << "rounded to whole vsyncs";
    EXPECT_TRUE(j.onPresent(104 * kPeriod, kPeriod, 1));
    EXPECT_FALSE(j.onPresent(106 * kPeriod, kPeriod, 2));
    EXPECT_TRUE(j.onPresent(109 * kPeriod, kPeriod, 2));
    EXPECT_EQ(j.janks(), 2);
}

BoostRecord level(int32_t l) {
    BoostRecord r;
    r.level = l;
    return r;
}

TEST(SimStats, BoostsAreWithdrawnOnlyAfterABoost) {
    const BoostCounts c = tallyBoosts({level(0), level(1), level(2), level(3), level(0), level(0),
                                       level(1), level(0), level(5), level(2)});
    EXPECT_EQ(std::vector<int>({c.level1, c.level2, c.level3, c.withdrawn, c.other, c.total()}),
              std::vector<int>({2, 2, 1, 2, 1, 5}));
}

TEST(SimStats, LongestModeWeighsTime) {
    EXPECT_EQ(longestMode({}, 10), -1);
    EXPECT_EQ(longestMode({{0.5, -1}}, 10), -1) << "no mode is not a mode";
    EXPECT_EQ(longestMode({{0.5, -1}, {1.0, 120}, {4.0, 90}, {6.0, 120}, {9.0, 90}}, 10), 120);
    EXPECT_EQ(longestMode({{1.0, 60}, {2.0, 45}}, 10), 45);
}

perfd_stub::Call call(const std::string& fn, const std::string& pkg, std::vector<int> ints,
                      std::vector<int> args = {}) {
    perfd_stub::Call c;
    c.fn = fn, c.pkg = pkg, c.hasPkg = true, c.ints = std::move(ints), c.args = std::move(args);
    return c;
}

TEST(SimServiceLog, ReadsEventsReportsAndLocks) {
    std::vector<perfd_stub::Call> calls = {
            call("perf_get_prop", "vendor.perf.phr.enable", {}),
            call("perf_get_feedback", "com.game", {5633}),
            call("perf_event", "{\"apps\":[{\"F\":1,\"pkg\":\"com.game\",\"fps\":0}]}", {4194, 2}, {101, 1}),
            call("perf_lock_acq", "", {0, 0, 2}, {0x40CD0000, 4100}),
    };
    calls[3].hasPkg = false;
    ServiceLog log;
    log.consume(calls, 1.0);
    EXPECT_TRUE(log.tracked("com.game") && !log.tracked("vendor.perf.phr.enable"));
    ASSERT_EQ(log.sceneReports().size(), 1u);
    EXPECT_EQ(log.sceneReports()[0].atS, 1.0);
    ASSERT_EQ(log.modes("com.game").size(), 1u);
    EXPECT_EQ(log.modes("com.game")[0].mode, -1);

    // The record only grows: what was read is not counted again.
    calls.insert(calls.end(), {call("perf_event", "com.game", {4196, 2}, {0, 60}), call("perf_event", "null", {4196, 2}, {0, -1}),
            call("perf_event", "{\"apps\":[{\"M\":60,\"pkg\":\"com.game\"},{\"M\":30,\"pkg\":\"com.chat\"}]}", {4194, 2}, {101, 2}),
            call("perf_event", "com.game", {4186, 2}, {5, 0}), call("perf_event", "not json", {4194, 2}, {101, 1}),
            call("perf_lock_acq", "", {0, 0, 2}, {0x40CD0000, 4100}), call("perf_lock_acq", "", {0, 0, 2}, {0x40CD0000, 4200})});
    log.consume(calls, 3.0);
    EXPECT_EQ(log.perfEvents(), (std::map<int, int>{{4186, 1}, {4194, 3}, {4196, 2}}));
    EXPECT_EQ(log.sceneReports().size(), 3u);
    EXPECT_EQ(log.sceneReports()[2].json, "not json");
    const std::vector<ModeChange> game = log.modes("com.game");
    ASSERT_EQ(game.size(), 2u) << "a mode reported twice is one change";
    EXPECT_TRUE(game[1].mode == 60 && game[1].atS == 3.0);
    EXPECT_EQ(log.modes("com.chat").back().mode, 30);
    EXPECT_TRUE(log.tracked("com.chat") && !log.tracked("null"));
    EXPECT_EQ(log.serviceBoosts("com.game").at(5), 1);
    EXPECT_EQ(log.lowLatencyPids(), (std::vector<int>{4100, 4200}));
}

class SimFakeDevices : public ::testing::Test {
protected:
    void SetUp() override { FakeDevices::instance().install(); }
    void TearDown() override { FakeDevices::instance().uninstall(); }
    const android::platform::IoctlTable& table() { return android::platform::ioctlTable(); }
};

TEST_F(SimFakeDevices, BoostDeviceKeepsEveryRecord) {
    const int fd = table().open(FakeDevices::kBoostDevicePath, O_RDONLY);
    EXPECT_EQ(fd, FakeDevices::kBoostFd);
    int32_t boost[3] = {2, 8'000'000, 500};
    EXPECT_EQ(table().ioctl(fd, FakeDevices::kBoostRequest, boost), 0);
    int32_t withdraw[3] = {0, 16'000'000, 0};
    EXPECT_EQ(table().ioctl(fd, FakeDevices::kBoostRequest, withdraw), 0);
    EXPECT_EQ(table().ioctl(fd, 0x1234, boost), -1);
    const std::vector<BoostRecord> records = FakeDevices::instance().boostRecords();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(std::vector<int64_t>({records[0].level, records[0].headroom, records[0].frequency, records[1].level}),
              std::vector<int64_t>({2, 8'000'000, 500, 0}));
    EXPECT_EQ(table().close(fd), 0);
}

TEST_F(SimFakeDevices, FencesFollowTheGpuAndADeadlineRaisesItsClock) {
    FakeDevices& devices = FakeDevices::instance();
    const int64_t now = android::platform::now();
    const int done = devices.submitGpuWork(4, 0, 0), late = devices.submitGpuWork(3, 1'000'000'000, 0);
    const int behind = devices.submitGpuWork(4, 0, 0);
    ASSERT_GE(late, FakeDevices::kFirstFenceFd);
    unsigned char info[56] = {};
    int32_t status;
    auto statusOf = [&](int fd) {
        EXPECT_EQ(table().ioctl(fd, FakeDevices::kSyncFileInfo, info), 0);
        memcpy(&status, info + 32, sizeof(status));
        return status;
    };
    EXPECT_EQ(statusOf(late), 0) << "still running";
    EXPECT_STREQ(reinterpret_cast<const char*>(info), "mavu-timeline");
    EXPECT_EQ(statusOf(done), 1) << "no work: signalled at once";
    EXPECT_EQ(statusOf(behind), 0) << "the GPU runs its work in order";
    EXPECT_NEAR(devices.signalTime(late), now + 1'000'000'000, 100'000'000);

    // A deadline request runs the rest at the maximum clock, four times the base one.
    unsigned char deadline[16] = {};
    EXPECT_EQ(table().ioctl(late, FakeDevices::kSyncSetDeadline, deadline), 0);
    EXPECT_NEAR(devices.signalTime(late), now + 250'000'000, 100'000'000);
    EXPECT_EQ(table().ioctl(done, FakeDevices::kSyncSetDeadline, deadline), 0);
    EXPECT_EQ(std::vector<int>({devices.deadlineRequests(3), devices.deadlineRequests(4), devices.deadlineRequests(5)}),
              std::vector<int>({1, 1, 0}));

    devices.releaseFence(late);
    errno = 0;
    EXPECT_EQ(table().ioctl(late, FakeDevices::kSyncFileInfo, info), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(SimLogSink, CountsByPriorityAndKeepsTheFirstLines) {
    LogSink& sink = LogSink::instance();
    for (int i = 0; i < 25; ++i) sink.write(ANDROID_LOG_ERROR, "Tag", ("error " + std::to_string(i)).c_str());
    sink.write(ANDROID_LOG_WARN, "Tag", "careful");
    sink.write(ANDROID_LOG_DEBUG, nullptr, nullptr);
    EXPECT_EQ(std::vector<int>({sink.errors(), sink.warnings(), sink.lines()}), std::vector<int>({25, 1, 27}));
    ASSERT_EQ(sink.errorLines().size(), LogSink::kKeptLines);
    EXPECT_EQ(sink.errorLines()[0], "Tag: error 0");
    EXPECT_EQ(sink.warningLines(), std::vector<std::string>{"Tag: careful"});
}

TEST(SimLogSink, CatchesTheProcessLog) {
    const std::string name = "/tmp/sim-log-" + std::to_string(getpid());
    LogSink& sink = LogSink::instance();
    ASSERT_TRUE(sink.install(true, name.c_str()));
    __android_log_print(ANDROID_LOG_ERROR, "Pelyx.Test", "broken %d", 7);
    __android_log_print(ANDROID_LOG_DEBUG, "Pelyx.Test", "detail");
    sink.uninstall();
    EXPECT_EQ(sink.errorLines(), std::vector<std::string>{"Pelyx.Test: broken 7"});
    std::stringstream text;
    text << std::ifstream(name).rdbuf();
    unlink(name.c_str());
    EXPECT_NE(text.str().find("E Pelyx.Test: broken 7"), std::string::npos) << text.str();
    EXPECT_NE(text.str().find("D Pelyx.Test: detail"), std::string::npos) << text.str();
}

class SimTrace : public ::testing::Test {
protected:
    void TearDown() override { unlink(mPath.c_str()); }
    TraceResult check(const std::string& events) {
        std::ofstream(mPath) << "{\"traceEvents\":[" << events << "]}";
        return checkTrace(mPath);
    }
    const std::string mPath = "/tmp/sim-trace-" + std::to_string(getpid()) + ".json";
};

TEST_F(SimTrace, PairsSlicesAndFindsTheUnpaired) {
    const TraceResult r = check(
            R"({"ph":"B","name":"vsync","pid":1,"tid":1,"ts":1}, {"ph":"B","name":"onVsync","pid":1,"tid":1,"ts":2},
               {"ph":"B","name":"work game","pid":1,"tid":2,"ts":2}, {"ph":"E","name":"","pid":1,"tid":1,"ts":3},
               {"ph":"E","name":"","pid":1,"tid":2,"ts":3}, {"ph":"E","name":"","pid":1,"tid":1,"ts":4},
               {"ph":"b","name":"track","cat":"pelyx","id":5,"pid":1,"tid":3,"ts":4},
               {"ph":"e","name":"track","cat":"pelyx","id":5,"pid":1,"tid":4,"ts":5},
               {"ph":"C","name":"queued game","pid":1,"tid":1,"ts":5,"args":{"value":1}},
               {"ph":"M","name":"thread_name","pid":1,"tid":1,"ts":5,"args":{"name":"x"}})");
    EXPECT_TRUE(r.balanced && r.problems.empty());
    EXPECT_EQ(std::vector<size_t>({r.events, r.simulatorSlices, r.librarySlices}), std::vector<size_t>({10, 2, 2}));

    const TraceResult bad = check(
            R"({"ph":"E","name":"","pid":1,"tid":1,"ts":1}, {"ph":"B","name":"latch game","pid":1,"tid":2,"ts":2},
               {"ph":"e","name":"track","cat":"pelyx","id":5,"pid":1,"tid":3,"ts":3},
               {"ph":"b","name":"other","cat":"pelyx","id":5,"pid":1,"tid":3,"ts":4})");
    EXPECT_FALSE(bad.balanced);
    EXPECT_EQ(std::vector<size_t>({bad.unmatchedEnds, bad.openSlices, bad.unmatchedAsyncEnds, bad.openAsync,
                                   bad.problems.size()}), std::vector<size_t>({1, 1, 1, 1, 4}));
    const TraceResult open = check(R"({"ph":"b","name":"track","cat":"pelyx","id":5,"pid":1,"tid":3,"ts":4})");
    EXPECT_TRUE(open.balanced) << "an async slice left open is only noted";
    ASSERT_EQ(open.problems.size(), 1u);
    EXPECT_EQ(open.problems[0].rfind("note:", 0), 0u);

    EXPECT_FALSE(check(R"({"ph":"B")").balanced);
    EXPECT_FALSE(checkTrace("/nonexistent/trace.json").balanced);
    std::ofstream(mPath) << "{\"events\":[]}";
    EXPECT_EQ(checkTrace(mPath).problems, std::vector<std::string>{"no traceEvents array"});
}

TEST(SimBufferQueue, FramesGoOutInOrderAndAFullQueueBlocksTheAppUntilALatch) {
    BufferQueue q(2);
    int64_t release = -1;
    for (uint64_t n = 1; n <= 2; ++n) {
        ASSERT_TRUE(q.dequeue(&release));
        Frame f;
        f.number = n, q.queue(f);
    }
    EXPECT_TRUE(q.freeBuffers() == 0 && q.queued() == 2 && q.oldest()->number == 1u);
    Frame latched;
    EXPECT_EQ(q.latch(&latched, 100), 1);
    EXPECT_EQ(latched.number, 1u);
    EXPECT_EQ(q.freeBuffers(), 0) << "the first frame on screen frees nothing";
    std::atomic<bool> got{false};
    std::thread app([&] { got = q.dequeue(&release); });
    EXPECT_EQ(q.latch(&latched, 200), 0);
    app.join();
    EXPECT_TRUE(got) << "the frame it replaced is free again";
    EXPECT_EQ(release, 200) << "the display lets go of it when the new frame is presented";
    EXPECT_EQ(latched.number, 2u);
    q.cancel(release);
    EXPECT_EQ(q.freeBuffers(), 1);

    std::atomic<bool> after{true};
    std::thread blocked([&] { after = q.dequeue(&release) && q.dequeue(&release); });
    q.close();
    blocked.join();
    EXPECT_FALSE(after) << "closing wakes the app for good";
}

TEST(SimStopSignal, WakesSleepers) {
    StopSignal stop;
    const int64_t now = android::platform::now();
    EXPECT_FALSE(stop.waitUntil(now + 1'000'000) || stop.stopped());
    std::thread sleeper([&] { EXPECT_TRUE(stop.waitUntil(now + 60'000'000'000LL)); });
    stop.stop();
    sleeper.join();
    EXPECT_TRUE(stop.waitUntil(0));
}

RunResult sampleResult() {
    RunResult r;
    r.scenario = "sample", r.libraryEnabled = true, r.durationS = 10, r.refreshHz = 60;
    LayerResult game, chat;
    game.label = "game", game.package = "com.game", game.id = 1, game.promoted = true;
    game.name = "SurfaceView[com.game/com.game.A](BLAST)#1";
    game.fpsModes = {{0.6, -1}, {1.6, 60}, {8.7, 45}};
    game.framesQueued = 520, game.framesPresented = 519, game.rhythmJanks = 4;
    game.holdsMs = {12, 13, 14};
    game.quickTouchHolds = 3;
    game.boosts.level1 = 6, game.boosts.level2 = 5, game.boosts.level3 = 4, game.boosts.withdrawn = 6;
    game.boostsAttributed = true;
    game.inputToPresentMs = {50, 52, 54};
    game.targetFps = 45, game.targetFpsActive = true;
    chat.label = "chat", chat.package = "com.chat";
    r.layers = {game, chat};
    r.perfEvents = {{4194, 4}, {4196, 3}};
    r.sceneReports = {{1.0, "{\"apps\":[]}"}};
    r.lowLatencyPids = {4100};
    return r;
}

TEST(SimSummary, CarriesTheFiguresOfTheRun) {
    const Json::Value s = toJson(sampleResult());
    EXPECT_TRUE(checkSummary(s).empty());
    EXPECT_EQ(s["schema"].asString(), kSummarySchema);
    const Json::Value& game = s["layers"][0];
    EXPECT_EQ(game["fps_mode"].asInt(), 45) << "the last mode";
    EXPECT_EQ(game["fps_modes"][1]["mode"].asInt(), 60);
    EXPECT_EQ(game["holds"]["p50_ms"].asDouble(), 13);
    EXPECT_EQ(game["input_to_present_ms"]["p50"].asDouble(), 52);
    EXPECT_EQ(game["boosts"]["level3"].asInt(), 4);
    EXPECT_TRUE(game["quick_touch"].asBool());
    LayerResult slowCall;
    slowCall.quickTouchHolds = 2;
    EXPECT_FALSE(slowCall.quickTouch()) << "a slow call or two is no headroom hold";
    EXPECT_EQ(game["target_fps"].asDouble(), 45);
    const Json::Value& chat = s["layers"][1];
    EXPECT_TRUE(chat["holds"]["p50_ms"].isNull() && chat["target_fps"].isNull()) << "nothing measured is null, not 0";
    EXPECT_FALSE(chat["quick_touch"].asBool());
    EXPECT_EQ(s["perf_events"]["4194"].asInt(), 4);
    EXPECT_EQ(s["scene_reports"][0].asString(), "{\"apps\":[]}");
    EXPECT_EQ(s["low_latency_pids"][0].asInt(), 4100);
}

TEST(SimSummary, SchemaCheckFindsEveryMissingOrMistypedField) {
    const Json::Value good = toJson(sampleResult());
    for (const char* key : {"duration_s", "perf_events", "scene_reports", "low_latency_pids", "log_errors",
                            "layers", "schema"}) {
        Json::Value s = good;
        s.removeMember(key);
        EXPECT_FALSE(checkSummary(s).empty()) << key;
    }
    for (const char* key : {"name", "package", "promoted", "fps_mode", "frames_queued", "frames_presented",
                            "rhythm_janks", "frame_timeline", "phases", "holds", "boosts", "input_to_present_ms", "target_fps_active",
                            "quick_touch"}) {
        Json::Value s = good;
        s["layers"][0].removeMember(key);
        const std::vector<std::string> problems = checkSummary(s);
        ASSERT_FALSE(problems.empty()) << key;
        EXPECT_EQ(problems[0].rfind(std::string("layers[0].") + key, 0), 0u) << problems[0];
    }
    for (const char* key : {"level1", "level2", "level3", "withdrawn"}) {
        Json::Value s = good;
        s["layers"][1]["boosts"][key] = "six";
        EXPECT_EQ(checkSummary(s), std::vector<std::string>{std::string("layers[1].boosts.") + key + ": must be an integer"});
    }
    Json::Value s = good;
    s["layers"][0]["holds"]["p99_ms"] = "slow";
    s["layers"][0]["promoted"] = 1;
    s["perf_events"]["x"] = 1;
    s["scene_reports"][1] = 5;
    s["low_latency_pids"][1] = "pid";
    s["schema"] = "other/1";
    EXPECT_EQ(checkSummary(s).size(), 6u);
    EXPECT_FALSE(checkSummary(Json::Value(3)).empty());
}

TEST(SimSummary, ReportAndComparisonShowTheFigures) {
    const Json::Value on = toJson(sampleResult());
    std::ostringstream report;
    printReport(on, report);
    for (const char* part : {"library enabled", "6/5/4/6", "-1 @0.6s -> 60 @1.6s -> 45 @8.7s", "low latency pids: 4100"})
        EXPECT_NE(report.str().find(part), std::string::npos) << part;

    RunResult offResult = sampleResult();
    offResult.libraryEnabled = false;
    offResult.layers[0].inputToPresentMs = {60, 64, 68};
    std::ostringstream comparison;
    printComparison(toJson(offResult), on, comparison);
    EXPECT_NE(comparison.str().find("64.0"), std::string::npos);
    EXPECT_NE(comparison.str().find("-12.0 ms (-19%)"), std::string::npos) << comparison.str();
}

} // namespace
} // namespace pelyx_sim
