// The simulator's device model, element by element, on explicit times: the GPU, the frame
// verdicts, held input and the CPU's boosts.

#include <gtest/gtest.h>

#include <vector>

#include "Cpu.h"
#include "FrameTimeline.h"
#include "Gpu.h"
#include "LayerRuntime.h"

namespace pelyx_sim {
namespace {

constexpr int64_t kMs = 1'000'000;

TEST(SimGpu, RunsOneJobAtATimeInSubmissionOrderAcrossLayers) {
    Gpu gpu(250, 1000, 0, 0);
    // A 25 ms frame per vsync, queued faster than the GPU can draw: 40 frames a second.
    std::vector<uint64_t> jobs;
    for (int i = 0; i < 40; ++i) jobs.push_back(gpu.submit(i * 16 * kMs, 25 * kMs, 0));
    EXPECT_EQ(gpu.endOf(jobs[0], 0), 25 * kMs);
    EXPECT_EQ(gpu.endOf(jobs[1], 0), 50 * kMs);
    EXPECT_EQ(gpu.endOf(jobs.back(), 0), 1000 * kMs);
    // Work that draws into a buffer the display still shows waits for its release.
    const uint64_t gated = gpu.submit(1000 * kMs, 5 * kMs, 1200 * kMs);
    EXPECT_EQ(gpu.startOf(gated, 1000 * kMs), 1200 * kMs);
    EXPECT_EQ(gpu.endOf(gated, 1300 * kMs), 1205 * kMs) << "still known once finished";
    gpu.forget(gated);
    EXPECT_EQ(gpu.endOf(gated, 1300 * kMs), -1);
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

TEST(SimFrameTimeline, FramesAreJudgedAgainstTheirExpectedPresentByCause) {
    const VsyncGrid grid{0, 16 * kMs, 8 * kMs, 1};
    struct Case {
        const char* what;
        int64_t intervalMs, queueMs, readyMs, dequeueWaitMs, presentMs;
        std::set<int64_t> lateTicks;
        LateCause cause;
        int lateVsyncs;
    };
    // Started at 1 ms with a 16 ms frame time: latched at the 16 ms tick, shown at 24 ms.
    const std::vector<Case> cases = {
            {"on time", 16, 10, 14, 0, 24, {}, LateCause::OnTime, 0},
            {"queued after the latch", 16, 17, 17, 0, 40, {}, LateCause::AppDeadline, 1},
            {"queued late after a wait for a buffer", 16, 17, 17, 5, 40, {}, LateCause::BufferStuffing, 1},
            {"GPU still drawing at the latch", 16, 10, 20, 0, 40, {}, LateCause::GpuLate, 1},
            {"the compositor overslept the latch", 16, 10, 14, 0, 40, {16 * kMs}, LateCause::Composition, 1},
            {"older frames before it", 16, 10, 14, 0, 56, {}, LateCause::BufferStuffing, 2},
            {"a slower app is given two vsyncs", 24, 20, 30, 0, 40, {}, LateCause::OnTime, 0},
    };
    for (const Case& c : cases) {
        Frame f;
        f.startNs = 1 * kMs, f.intervalNs = c.intervalMs * kMs, f.queueNs = c.queueMs * kMs;
        f.dequeueWaitNs = c.dequeueWaitMs * kMs;
        const FrameVerdict v = judgeFrame(f, c.readyMs * kMs, c.presentMs * kMs, grid, c.lateTicks);
        EXPECT_EQ(causeName(v.cause), std::string(causeName(c.cause))) << c.what;
        EXPECT_EQ(v.lateVsyncs, c.lateVsyncs) << c.what;
    }
    Frame f;
    f.startNs = 1 * kMs, f.intervalNs = 16 * kMs;
    const VsyncGrid later{0, 16 * kMs, 8 * kMs, 2};
    EXPECT_EQ(judgeFrame(f, 0, 40 * kMs, later, {}).expectedPresentNs, 40 * kMs) << "a present delay of 2";

    FrameTimelineCounts counts;
    counts.add(judgeFrame(f, 0, 24 * kMs, grid, {}));
    counts.add(judgeFrame(f, 20 * kMs, 56 * kMs, grid, {}));
    EXPECT_EQ(std::vector<int>({counts.onTime, counts.late, counts.lateVsyncs, counts.of(LateCause::GpuLate)}),
              std::vector<int>({1, 1, 2, 1}));
}

TEST(SimFrameTimeline, ABoostThatLandsBeforeTheDeadlineTurnsALateFrameIntoAnOnTimeOne) {
    const VsyncGrid grid{0, 16 * kMs, 8 * kMs, 1};
    Frame f;
    f.startNs = 0, f.intervalNs = 32 * kMs, f.queueNs = 10 * kMs;  // 30 fps: latched at 32 ms
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

TEST(SimInput, AHeldMoveReachesTheAppOnlyWithTheNextDeliveryOrFrameStart) {
    TouchInput input;
    input.deliver(5);
    EXPECT_EQ(input.sampleAtFrameStart(), 5) << "consumed now: the next frame has it";
    input.hold(8);
    EXPECT_EQ(input.sampleAtFrameStart(), 0) << "held past this frame's start";
    EXPECT_EQ(input.sampleAtFrameStart(), 8) << "delivered as that frame started";
    input.hold(9);
    input.deliver(10);
    EXPECT_EQ(input.sampleAtFrameStart(), 10) << "a batch goes out with the next event consumed";
    EXPECT_EQ(input.sampleAtFrameStart(), 0);
}

TEST(SimCpu, ServiceBoostsAndTheLowLatencyLockSpeedTheAppAfterTheRamp) {
    DeviceModel device;
    device.cpuBoostFactor = 1.5, device.cpuBoostMs = 100, device.cpuLowLatencyFactor = 1.2, device.cpuRampMs = 5;
    CpuModel cpu(device);
    auto call = [](const char* fn, const char* pkg, std::vector<int> ints, std::vector<int> args) {
        perfd_stub::Call c;
        c.fn = fn, c.hasPkg = pkg != nullptr, c.pkg = pkg ? pkg : "", c.ints = ints, c.args = args;
        return c;
    };
    cpu.onCall(call("perf_event", "game", {4186, 2}, {5, 8}), 0);
    EXPECT_EQ(cpu.factor("game", 1, 4 * kMs), 1.0) << "still ramping";
    EXPECT_EQ(cpu.factor("game", 1, 50 * kMs), 1.5);
    EXPECT_EQ(cpu.factor("chat", 2, 50 * kMs), 1.0) << "another app";
    EXPECT_EQ(cpu.factor("game", 1, 106 * kMs), 1.0) << "the boost has run out";
    cpu.onCall(call("perf_event", "game", {4186, 2}, {5, 8}), 200 * kMs);
    cpu.onCall(call("perf_event", "game", {4186, 2}, {0, 8}), 250 * kMs);
    EXPECT_EQ(cpu.factor("game", 1, 260 * kMs), 1.0) << "a level-0 event ends it";

    cpu.onCall(call("perf_lock_acq", nullptr, {0, 0, 2}, {0x40CD0000, 1}), 300 * kMs);
    EXPECT_EQ(cpu.factor("game", 1, 310 * kMs), 1.2);
    EXPECT_EQ(cpu.factor("chat", 2, 310 * kMs), 1.0);
    cpu.onCall(call("perf_lock_rel", nullptr, {1}, {}), 400 * kMs);
    EXPECT_EQ(cpu.factor("game", 1, 410 * kMs), 1.0);
}

} // namespace
} // namespace pelyx_sim
