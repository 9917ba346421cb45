// The simulator's device model, element by element, on explicit times (the GPU, frame verdicts,
// held input, CPU boosts, buffer queue, fences), and the figures it reports.

#include <gtest/gtest.h>
#include <android/log.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "BufferQueue.h"
#include "Cpu.h"
#include "FakeDevices.h"
#include "FrameTimeline.h"
#include "Gpu.h"
#include "LayerRuntime.h"
#include "LogSink.h"
#include "ServiceLog.h"
#include "Stats.h"
#include "Summary.h"
#include "TraceCheck.h"
#include "platform/Clock.h"
#include "platform/Ioctl.h"

namespace pelyx_sim {
namespace {

constexpr int64_t kMs = 1'000'000;

perfd_stub::Call call(const std::string& fn, const std::string& pkg, std::vector<int> ints,
                      std::vector<int> args = {}) {
    perfd_stub::Call c;
    c.fn = fn, c.pkg = pkg, c.hasPkg = true, c.ints = std::move(ints), c.args = std::move(args);
    return c;
}

TEST(SimGpu, RunsOneJobAtATimeInSubmissionOrderAcrossLayers) {
    Gpu gpu(250, 1000, 0, 0);
    // A 25 ms frame per vsync, queued faster than the GPU can draw: 40 frames a second.
    std::vector<uint64_t> jobs;
    for (int i = 0; i < 40; ++i) jobs.push_back(gpu.submit(i * 16 * kMs, 25 * kMs, 0));
    EXPECT_EQ(gpu.endOf(jobs[1], 0), 50 * kMs);
    EXPECT_EQ(gpu.endOf(jobs.back(), 0), 1000 * kMs);
    // Work that draws into a buffer the display still shows waits for its release.
    const uint64_t gated = gpu.submit(1000 * kMs, 5 * kMs, 1200 * kMs);
    EXPECT_EQ(gpu.startOf(gated, 1000 * kMs), 1200 * kMs);
    EXPECT_EQ(gpu.endOf(gated, 1300 * kMs), 1205 * kMs) << "still known once finished";
}

TEST(SimGpu, ABoostRecordSetsTheClockAfterItsRampAndAWithdrawalAfterTheNextSample) {
    Gpu gpu(250, 1000, 2 * kMs, 16 * kMs);
    const uint64_t first = gpu.submit(0, 20 * kMs, 0);
    gpu.request(0, 500);
    // 2 ms at the base clock, then twice as fast: 18 ms of work in 9 ms.
    EXPECT_EQ(gpu.endOf(first, 0), 11 * kMs);
    gpu.request(11 * kMs, 0);
    const uint64_t second = gpu.submit(11 * kMs, 20 * kMs, 0);
    EXPECT_EQ(gpu.endOf(second, 11 * kMs), 21 * kMs) << "the raised clock lasts until 27 ms";
    const uint64_t third = gpu.submit(30 * kMs, 8 * kMs, 0);
    EXPECT_EQ(gpu.endOf(third, 30 * kMs), 38 * kMs) << "back at the base clock";
    gpu.request(40 * kMs, 2000);
    EXPECT_EQ(gpu.requestedMhzAt(50 * kMs), 1000) << "capped at the maximum";
}

TEST(SimGpu, ADeadlineRunsTheGpuAtItsMaximumUntilThatFenceSignals) {
    Gpu gpu(250, 1000, 2 * kMs, 16 * kMs);
    const uint64_t a = gpu.submit(0, 20 * kMs, 0);
    const uint64_t b = gpu.submit(0, 20 * kMs, 0);
    const uint64_t c = gpu.submit(0, 20 * kMs, 0);
    gpu.hurry(b, 0);
    // From 2 ms on at four times the base clock, through a (which b waits for) and b only.
    EXPECT_EQ(gpu.endOf(a, 0), 6'500'000);
    EXPECT_EQ(gpu.endOf(b, 0), 11'500'000);
    EXPECT_EQ(gpu.endOf(c, 0), 31'500'000);
}

// Operating points 250, 437.5, 625, 812.5 and 1000 MHz: 1, 1.75, 2.5, 3.25 and 4 times the base.
constexpr GpuGovernor kGovernor{16 * kMs, 0.9, 0.5, 4};

TEST(SimGpu, TheGovernorStepsTheClockUpUnderALongJobAndDownWhenIdle) {
    Gpu gpu(250, 1000, 0, 0, kGovernor);
    // A point up at each fully busy sample: 16 + 28 + 40 + 52 ms of work by 64 ms, then 4 times
    // the base (no fifth point) for the last 160 ms.
    const uint64_t longJob = gpu.submit(0, 296 * kMs, 0);
    EXPECT_EQ(gpu.endOf(longJob, 0), 104 * kMs);
    // Busy half the window to 112 ms: kept; idle to 128 and 144 ms: two points down.
    const uint64_t afterIdle = gpu.submit(146 * kMs, 5 * kMs, 0);
    EXPECT_EQ(gpu.endOf(afterIdle, 146 * kMs), 148 * kMs);
    // Idle for seconds: back at base, sampling still on multiples of 16 ms (10 016 ms is one).
    const uint64_t late = gpu.submit(10'001 * kMs, 32'500'000, 0);
    EXPECT_EQ(gpu.endOf(late, 10'001 * kMs), 10'026 * kMs);
}

TEST(SimGpu, TheClockIsTheHigherOfTheGovernorsPointAndTheRequest) {
    Gpu gpu(250, 1000, 0, 0, kGovernor);
    gpu.request(0, 500);
    // 500 MHz over the governor's 250 and 437.5 to 32 ms, then its 625: 64 ms of work by 32 ms.
    const uint64_t job = gpu.submit(0, 84 * kMs, 0);
    EXPECT_EQ(gpu.endOf(job, 0), 40 * kMs);
}

TEST(SimGpu, TheGovernorDecidesOnlyFromWorkRunBeforeItsSample) {
    // The second job reaches the GPU after the first finished, or was known all along.
    Gpu stepwise(250, 1000, 0, 0, kGovernor);
    Gpu upfront(250, 1000, 0, 0, kGovernor);
    const uint64_t first = stepwise.submit(0, 23 * kMs, 0);
    upfront.submit(0, 23 * kMs, 0);
    const uint64_t ahead = upfront.submit(0, 28'200'000, 21'600'000);
    EXPECT_EQ(stepwise.endOf(first, 0), 20 * kMs);
    const uint64_t second = stepwise.submit(21'600'000, 28'200'000, 0);
    EXPECT_EQ(stepwise.endOf(first, 40 * kMs), 20 * kMs) << "a finished job keeps its end";
    // 4 ms of the first and 10.4 ms of the second: exactly 0.9 of the window to 32 ms, a point up.
    EXPECT_EQ(stepwise.endOf(second, 21'600'000), 36 * kMs);
    EXPECT_EQ(upfront.endOf(ahead, 0), 36 * kMs);
}

TEST(SimFrameTimeline, FramesAreJudgedAgainstTheirIntendedVsyncAndStuffingIsAState) {
    const VsyncGrid grid{0, 16 * kMs, 8 * kMs, 1};
    struct Case {
        const char* what;
        int64_t enterMs, queueMs, readyMs, dequeueWaitMs;
        int ahead;
        int64_t presentMs;
        std::set<int64_t> lateTicks;
        LateCause cause;
        int lateVsyncs;
    };
    // Meant for the 16 ms latch, shown at 24 ms.
    const std::vector<Case> cases = {
            {"on time", 10, 10, 14, 0, 0, 24, {}, LateCause::OnTime, 0},
            {"less than half a vsync late", 10, 10, 14, 0, 0, 31, {}, LateCause::OnTime, 0},
            {"queued after its latch", 17, 17, 17, 0, 0, 40, {}, LateCause::AppDeadline, 1},
            {"queued late after a wait for a buffer", 17, 17, 17, 5, 0, 40, {}, LateCause::BufferStuffing, 1},
            {"GPU still drawing at the latch", 10, 10, 20, 0, 0, 40, {}, LateCause::GpuLate, 1},
            {"the compositor overslept the latch", 10, 10, 14, 0, 0, 40, {16 * kMs}, LateCause::Composition, 1},
            {"held in the queue path past the latch", 10, 17, 14, 0, 0, 40, {}, LateCause::Composition, 1},
            {"older frames before it", 10, 10, 14, 0, 1, 56, {}, LateCause::BufferStuffing, 2},
            {"ready and first in line, not latched", 10, 10, 14, 0, 0, 40, {}, LateCause::Composition, 1},
    };
    FrameTimelineCounts counts;
    for (const Case& c : cases) {
        Frame f;
        f.intendedTickNs = 16 * kMs, f.queueEnterNs = c.enterMs * kMs, f.queueNs = c.queueMs * kMs;
        f.dequeueWaitNs = c.dequeueWaitMs * kMs, f.queuedAhead = c.ahead, f.gpuWorkNs = 3 * kMs;
        const FrameVerdict v = judgeFrame(f, c.readyMs * kMs, c.presentMs * kMs, grid, c.lateTicks);
        EXPECT_EQ(causeName(v.cause), std::string(causeName(c.cause))) << c.what;
        EXPECT_EQ(v.lateVsyncs, c.lateVsyncs) << c.what;
        counts.add(v);
    }
    // Stuffed frames are no janks: they are counted apart with what they cost.
    EXPECT_EQ(counts.onTime, 2);
    EXPECT_EQ(counts.late, 5);
    EXPECT_EQ(counts.lateVsyncs, 5);
    EXPECT_EQ(counts.stuffedLateMs, std::vector<double>({16, 32}));
    EXPECT_EQ(counts.of(LateCause::Composition), 3);
    Frame held;
    held.intendedTickNs = 16 * kMs, held.queueEnterNs = 10 * kMs, held.queueNs = 17 * kMs;
    EXPECT_EQ(judgeFrame(held, held.queueNs, 40 * kMs, grid, {}).cause, LateCause::Composition)
            << "without GPU work its ready time is its queue time: the hold, not the GPU";

    EXPECT_EQ(grid.tickPresentingAt(24 * kMs), 16 * kMs);
    EXPECT_EQ(grid.tickPresentingAt(25 * kMs), 32 * kMs) << "no tick presents then: the next one";
    EXPECT_EQ(grid.firstTickAtOrAfter(0), 16 * kMs) << "the first tick is a period after the origin";
    const VsyncGrid later{0, 16 * kMs, 8 * kMs, 2};
    EXPECT_EQ(later.tickPresentingAt(40 * kMs), 16 * kMs) << "a present delay of 2";
}

TEST(SimFrameTimeline, ABoostThatLandsBeforeTheDeadlineTurnsALateFrameIntoAnOnTimeOne) {
    const VsyncGrid grid{0, 16 * kMs, 8 * kMs, 1};
    Frame f;
    f.intendedTickNs = 32 * kMs, f.queueEnterNs = f.queueNs = 10 * kMs, f.gpuWorkNs = 30 * kMs;
    auto verdict = [&](bool boost) {
        Gpu gpu(250, 1000, 2 * kMs, 16 * kMs);
        const uint64_t job = gpu.submit(f.queueNs, 30 * kMs, 0);
        if (boost) gpu.request(12 * kMs, 1000);
        const int64_t ready = gpu.endOf(job, f.queueNs);
        return judgeFrame(f, ready, grid.presentOf(grid.firstTickAtOrAfter(ready)), grid, {});
    };
    EXPECT_EQ(verdict(false).cause, LateCause::GpuLate);
    EXPECT_EQ(verdict(true).cause, LateCause::OnTime);
}

TEST(SimInput, TheInputStageConsumesTheWholeBatchHeldMovesIncluded) {
    TouchInput input;
    input.deliver(5);
    EXPECT_EQ(input.consume(), std::vector<int64_t>({5}));
    input.deliver(8);
    input.deliver(9);
    EXPECT_EQ(input.consume(), std::vector<int64_t>({8, 9}));
    EXPECT_TRUE(input.consume().empty());
}

TEST(SimCpu, ServiceBoostsAndTheLowLatencyLockSpeedTheAppAfterTheRamp) {
    DeviceModel device;
    device.cpuBoostFactor = 1.5, device.cpuBoostMs = 100, device.cpuLowLatencyFactor = 1.2, device.cpuRampMs = 5;
    CpuModel cpu(device);
    cpu.onCall(call("perf_event", "game", {4186, 2}, {5, 8}), 0);
    EXPECT_EQ(cpu.factor("game", 1, 4 * kMs), 1.0) << "still ramping";
    EXPECT_EQ(cpu.factor("game", 1, 50 * kMs), 1.5);
    EXPECT_EQ(cpu.factor("chat", 2, 50 * kMs), 1.0) << "another app";
    EXPECT_EQ(cpu.factor("game", 1, 106 * kMs), 1.0) << "the boost has run out";
    cpu.onCall(call("perf_event", "game", {4186, 2}, {5, 8}), 200 * kMs);
    cpu.onCall(call("perf_event", "game", {4186, 2}, {0, 8}), 250 * kMs);
    EXPECT_EQ(cpu.factor("game", 1, 260 * kMs), 1.0) << "a level-0 event ends it";

    cpu.onCall(call("perf_lock_acq", "", {0, 0, 2}, {0x40CD0000, 1}), 300 * kMs);
    EXPECT_EQ(cpu.factor("game", 1, 310 * kMs), 1.2);
    EXPECT_EQ(cpu.factor("chat", 2, 310 * kMs), 1.0);
    cpu.onCall(call("perf_lock_rel", "", {1}), 400 * kMs);
    EXPECT_EQ(cpu.factor("game", 1, 410 * kMs), 1.0);
}

TEST(SimStats, PercentilesInterpolate) {
    EXPECT_TRUE(std::isnan(percentile({}, 50)));
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

TEST(SimServiceLog, ReadsEventsReportsAndLocks) {
    std::vector<perfd_stub::Call> calls = {
            call("perf_get_feedback", "com.game", {5633}),
            call("perf_event", "{\"apps\":[{\"F\":1,\"pkg\":\"com.game\",\"fps\":0}]}", {4194, 2}, {101, 1}),
            call("perf_event", "com.game", {4196, 2}, {0, 60}), call("perf_event", "null", {4196, 2}, {0, -1})};
    ServiceLog log;
    log.consume(calls, 1.0);
    calls.insert(calls.end(), {call("perf_event", "{\"apps\":[{\"M\":60,\"pkg\":\"com.game\"}]}", {4194, 2}, {101, 2}),
            call("perf_event", "com.game", {4186, 2}, {5, 0}), call("perf_lock_acq", "", {0, 0, 2}, {0x40CD0000, 4100}),
            call("perf_lock_acq", "", {0, 0, 2}, {0x40CD0000, 4100})});
    log.consume(calls, 3.0);  // the record only grows: what was read is not counted again
    EXPECT_EQ(log.perfEvents(), (std::map<int, int>{{4186, 1}, {4194, 2}, {4196, 2}}));
    const std::vector<ModeChange> game = log.modes("com.game");
    ASSERT_EQ(game.size(), 2u) << "a report without a mode is -1; a mode reported twice is one change";
    EXPECT_TRUE(game[0].mode == -1 && game[1].mode == 60 && game[1].atS == 1.0);
    EXPECT_TRUE(log.tracked("com.game") && !log.tracked("null"));
    EXPECT_EQ(log.serviceBoosts("com.game").at(5), 1);
    EXPECT_EQ(log.lowLatencyPids(), (std::vector<int>{4100}));
}

class SimFakeDevices : public ::testing::Test {
protected:
    void SetUp() override { FakeDevices::instance().install(); }
    void TearDown() override { FakeDevices::instance().uninstall(); }
    const android::platform::IoctlTable& table() { return android::platform::ioctlTable(); }
};

TEST_F(SimFakeDevices, FencesFollowTheGpuAndADeadlineRaisesItsClock) {
    FakeDevices& devices = FakeDevices::instance();
    const int64_t now = android::platform::now();
    const int done = devices.submitGpuWork(4, 0, 0), late = devices.submitGpuWork(3, 1'000'000'000, 0);
    const int behind = devices.submitGpuWork(4, 0, 0);
    unsigned char info[56] = {};
    int32_t status;
    auto statusOf = [&](int fd) {
        EXPECT_EQ(table().ioctl(fd, FakeDevices::kSyncFileInfo, info), 0);
        memcpy(&status, info + 32, sizeof(status));
        return status;
    };
    EXPECT_EQ(std::vector<int>({statusOf(late), statusOf(done), statusOf(behind)}), std::vector<int>({0, 1, 0}))
            << "no work is signalled at once; the GPU runs its work in order";
    EXPECT_NEAR(devices.signalTime(late), now + 1'000'000'000, 100'000'000);

    // A deadline request runs the rest at the maximum clock, four times the base one.
    unsigned char deadline[16] = {};
    EXPECT_EQ(table().ioctl(late, FakeDevices::kSyncSetDeadline, deadline) + table().ioctl(done, FakeDevices::kSyncSetDeadline, deadline), 0);
    EXPECT_NEAR(devices.signalTime(late), now + 250'000'000, 100'000'000);
    EXPECT_EQ(std::vector<int>({devices.deadlineRequests(3), devices.deadlineRequests(4), devices.deadlineRequests(5)}),
              std::vector<int>({1, 1, 0}));
}

TraceResult check(const std::string& events) {
    const std::string path = ::testing::TempDir() + "sim-trace-" + std::to_string(getpid()) + ".json";
    std::ofstream(path) << "{\"traceEvents\":[" << events << "]}";
    const TraceResult result = checkTrace(path);
    unlink(path.c_str());
    return result;
}

TEST(SimLogSink, CatchesTheProcessLog) {
    const std::string name = "/tmp/sim-log-" + std::to_string(getpid());
    LogSink& sink = LogSink::instance();
    ASSERT_TRUE(sink.install(true, name.c_str()));
    __android_log_print(ANDROID_LOG_ERROR, "Pelyx.Test", "broken %d", 7);
    __android_log_print(ANDROID_LOG_WARN, "Pelyx.Test", "careful");
    __android_log_print(ANDROID_LOG_DEBUG, "Pelyx.Test", "detail");
    sink.uninstall();
    EXPECT_EQ(sink.errorLines(), std::vector<std::string>{"Pelyx.Test: broken 7"});
    std::stringstream text;
    text << std::ifstream(name).rdbuf();
    unlink(name.c_str());
    EXPECT_NE(text.str().find("E Pelyx.Test: broken 7"), std::string::npos) << text.str();
    EXPECT_NE(text.str().find("D Pelyx.Test: detail"), std::string::npos) << text.str();
}

TEST(SimTrace, PairsSlicesAndFindsTheUnpaired) {
    const TraceResult r = check(
            R"({"ph":"B","name":"vsync","pid":1,"tid":1,"ts":1}, {"ph":"B","name":"onVsync","pid":1,"tid":1,"ts":2},
               {"ph":"B","name":"work game","pid":1,"tid":2,"ts":2}, {"ph":"E","name":"","pid":1,"tid":1,"ts":3},
               {"ph":"E","name":"","pid":1,"tid":2,"ts":3}, {"ph":"E","name":"","pid":1,"tid":1,"ts":4},
               {"ph":"b","name":"track","cat":"pelyx","id":5,"pid":1,"tid":3,"ts":4},
               {"ph":"e","name":"track","cat":"pelyx","id":5,"pid":1,"tid":4,"ts":5},
               {"ph":"C","name":"queued game","pid":1,"tid":1,"ts":5,"args":{"value":1}})");
    EXPECT_TRUE(r.balanced && r.problems.empty());
    EXPECT_EQ(std::vector<size_t>({r.simulatorSlices, r.librarySlices}), std::vector<size_t>({2, 2}));

    const TraceResult bad = check(
            R"({"ph":"E","name":"","pid":1,"tid":1,"ts":1}, {"ph":"B","name":"latch game","pid":1,"tid":2,"ts":2},
               {"ph":"e","name":"track","cat":"pelyx","id":5,"pid":1,"tid":3,"ts":3},
               {"ph":"b","name":"other","cat":"pelyx","id":5,"pid":1,"tid":3,"ts":4})");
    EXPECT_FALSE(bad.balanced);
    EXPECT_EQ(std::vector<size_t>({bad.unmatchedEnds, bad.openSlices, bad.unmatchedAsyncEnds, bad.openAsync,
                                   bad.problems.size()}), std::vector<size_t>({1, 1, 1, 1, 4}));
    EXPECT_FALSE(check(R"({"ph":"B")").balanced);
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
    EXPECT_EQ(q.latch(&latched, 0, 100), 1);
    EXPECT_EQ(latched.number, 1u);
    EXPECT_EQ(q.freeBuffers(), 0) << "the first frame on screen frees nothing";
    std::atomic<bool> got{false};
    std::atomic<int64_t> gotAt{0};
    std::thread app([&] {
        got = q.dequeue(&release);
        gotAt = android::platform::waitClockNow();
    });
    // The release callback reaches the app a while after the latch.
    const int64_t back = android::platform::waitClockNow() + 20 * kMs;
    EXPECT_EQ(q.latch(&latched, back, 200), 0);
    app.join();
    EXPECT_TRUE(got) << "the frame it replaced is free again";
    EXPECT_GE(gotAt.load(), back) << "not before the release callback";
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

RunResult sampleResult() {
    RunResult r;
    r.scenario = "sample", r.libraryEnabled = true, r.durationS = 10, r.refreshHz = 60;
    LayerResult game, chat;
    game.label = "game", game.package = "com.game", game.name = "SurfaceView[com.game/com.game.A](BLAST)#1";
    game.fpsModes = {{0.6, -1}, {1.6, 60}, {8.7, 45}};
    game.framesQueued = 520, game.framesPresented = 519, game.holdsMs = {12, 13, 14}, game.quickTouchHolds = 3;
    game.boosts.level1 = 6, game.boosts.level2 = 5, game.boosts.level3 = 4, game.boosts.withdrawn = 6;
    game.boostsAttributed = true;
    game.inputToPresentMs = {50, 52, 54};
    game.targetFps = 45, game.targetFpsActive = true;
    chat.label = "chat", chat.package = "com.chat";
    r.layers = {game, chat};
    r.lowLatencyPids = {4100};
    return r;
}

TEST(SimSummary, CarriesTheFiguresOfTheRunAndTheReportShowsThem) {
    const Json::Value s = toJson(sampleResult());
    EXPECT_TRUE(checkSummary(s).empty());
    const Json::Value& game = s["layers"][0];
    EXPECT_EQ(game["fps_mode"].asInt(), 45) << "the last mode";
    EXPECT_EQ(std::vector<double>({game["holds"]["p50_ms"].asDouble(), game["input_to_present_ms"]["p50"].asDouble(),
                                   game["target_fps"].asDouble()}), std::vector<double>({13, 52, 45}));
    EXPECT_TRUE(game["quick_touch"].asBool());
    LayerResult slowCall;
    slowCall.quickTouchHolds = 2;
    EXPECT_FALSE(slowCall.quickTouch()) << "a slow call or two is no headroom hold";
    const Json::Value& chat = s["layers"][1];
    EXPECT_TRUE(chat["holds"]["p50_ms"].isNull() && chat["target_fps"].isNull()) << "nothing measured is null, not 0";

    std::ostringstream report;
    printReport(s, report);
    for (const char* part : {"library enabled", "6/5/4/6", "-1 @0.6s -> 60 @1.6s -> 45 @8.7s", "low latency pids: 4100"})
        EXPECT_NE(report.str().find(part), std::string::npos) << part;
    RunResult offResult = sampleResult();
    offResult.libraryEnabled = false;
    offResult.layers[0].inputToPresentMs = {60, 64, 68};
    std::ostringstream comparison;
    printComparison(toJson(offResult), s, comparison);
    EXPECT_NE(comparison.str().find("-12.0 ms (-19%)"), std::string::npos) << comparison.str();
}

TEST(SimSummary, SchemaCheckNamesEveryMissingOrMistypedField) {
    const Json::Value good = toJson(sampleResult());
    for (const char* key : {"name", "fps_mode", "frame_timeline", "phases", "holds", "boosts", "quick_touch"}) {
        Json::Value s = good;
        s["layers"][0].removeMember(key);
        EXPECT_EQ(checkSummary(s).at(0).rfind(std::string("layers[0].") + key, 0), 0u) << key;
    }
    Json::Value s = good;
    s["layers"][0]["holds"]["p99_ms"] = "slow";
    s["layers"][1]["boosts"]["level2"] = "six";
    s.removeMember("duration_s");
    EXPECT_EQ(checkSummary(s).size(), 3u);
}

} // namespace
} // namespace pelyx_sim
