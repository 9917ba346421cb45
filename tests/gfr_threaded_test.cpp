// Frame rescue on real threads and the real clock: a producer at 60 or 120 Hz with some frames
// late. Late frames are boosted level by level, in order; on-time frames never are; the next
// frame withdraws every boost. Boosts reach the boost device, or the service without one.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "PerfdControl.h"
#include "config/FeatureManager.h"
#include "gfr/GFRMonitor.h"
#include "perf/PerfProxy.h"
#include "platform/Clock.h"
#include "support/FakeBoostDevice.h"

using namespace android;
using pelyx_test::FakeBoostDevice;

namespace {
constexpr int32_t kId = 9;
constexpr int kFrames = 40;
constexpr int kLateFrames = 4;

// Runs frames at `period`; every tenth frame is late (its successor begins 6 periods after it),
// the others are followed after half a period. The thresholds (3, 3.5 and 4 periods) leave at
// least 20 ms between an on-time frame's successor and its first check, and between that check
// and a late frame's successor, so a thread woken late on a loaded machine changes no verdict.
void runFrames(GFRMonitor& monitor, int64_t period) {
    ASSERT_TRUE(FeatureManager::getInstance()->setGFRProp("com.game:jank=3.0;3.5;4.0", {1}));
    monitor.setVsyncInfo(period, static_cast<int32_t>(1'000'000'000 / period));
    monitor.registerLayer(kId, "com.game/com.game.Main#9", "com.game");
    monitor.setGFRActive(kId, true);
    auto next = std::chrono::steady_clock::now();
    for (int i = 0; i < kFrames; i++) {
        const int64_t now = platform::now();
        monitor.onQueueBegin(kId, now, period, period);
        monitor.onQueueEnd(kId, platform::now(), 0.0f);
        next += std::chrono::nanoseconds(i % 10 == 5 ? 6 * period : period / 2);
        std::this_thread::sleep_until(next);
    }
    // The last frame leaves before its first check: stale, nothing sent.
    monitor.unregisterLayer(kId);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

// Splits the levels sent into one group per boosted frame: levels rising from 1, then the 0 of the
// next frame. A loaded machine may run a check late enough to skip a level, never to reorder.
void expectBoostedLateFramesOnly(const std::vector<int32_t>& levels) {
    int groups = 0;
    size_t i = 0;
    while (i < levels.size()) {
        ASSERT_EQ(levels[i], 1) << "a boost starts at level 1, at " << i;
        int32_t last = 0;
        while (i < levels.size() && levels[i] != 0) {
            ASSERT_GT(levels[i], last) << "levels rise in order, at " << i;
            last = levels[i++];
        }
        ASSERT_LT(i, levels.size()) << "every boost is withdrawn by the next frame";
        i++; // the withdrawal
        groups++;
    }
    EXPECT_EQ(groups, kLateFrames) << "late frames boosted, on-time frames never";
}

class GfrThreaded : public testing::TestWithParam<int64_t> {};

} // namespace

TEST_P(GfrThreaded, LateFramesAreBoostedInOrderAndWithdrawn) {
    FakeBoostDevice device;
    GFRMonitor& monitor = GFRMonitor::getInstance();
    ASSERT_TRUE(monitor.init());
    runFrames(monitor, GetParam());
    std::vector<int32_t> levels;
    for (const auto& hint : FakeBoostDevice::hints()) levels.push_back(hint[0]);
    expectBoostedLateFramesOnly(levels);
    monitor.forceStop();
}

INSTANTIATE_TEST_SUITE_P(Rates, GfrThreaded, testing::Values(16'666'666, 8'333'333),
                         [](const auto& info) { return info.param == 16'666'666 ? "60Hz" : "120Hz"; });

TEST(GfrThreadedService, WithoutTheDeviceBoostsGoToTheService) {
    GFRMonitor& monitor = GFRMonitor::getInstance();
    ASSERT_TRUE(monitor.init());
    // The first hint tries the device (absent here) once: take that slow path before timing.
    PerfProxy::getInstance()->frameHint(0, 0, kId, "com.game", 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    perfd_stub::clearCalls();
    runFrames(monitor, 16'666'666);
    std::vector<int32_t> levels;
    for (int i = 0; i < 200; i++) {
        levels.clear();
        for (const auto& call : perfd_stub::calls()) {
            if (call.fn == "perf_event" && call.ints.at(0) == 4186) levels.push_back(call.args.at(0));
        }
        if (!levels.empty() && levels.back() == 0 &&
            std::count(levels.begin(), levels.end(), 0) == kLateFrames) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    expectBoostedLateFramesOnly(levels); // sent from the boost thread as event 4186
    monitor.forceStop();
}
