// The exported entry functions: start-up, the switches that gate them, the smart-touch property
// watchers and what they hand on to the layer registry. CTest runs every case in its own
// process, so each one starts from unset properties and fresh singletons.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PerfdControl.h"
#include "config/FeatureManager.h"
#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "layers/GpuFence.h"
#include "pelyx/pelyx.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/Threads.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::LogLine;
using pelyx_test::ManualClock;
using pelyx_test::entriesIn;

namespace {

constexpr const char* kTag = "Pelyx";
constexpr const char* kTrace = "debug.vendor.perf.smart_touch.trace";
constexpr int64_t kFrame60 = 16'666'666;
constexpr const char* kGameLayer = "com.game/com.game.MainActivity#0";
constexpr int32_t kGameId = 7;

std::vector<std::string> linesOf(const LogCapture& logs, const std::string& tag) {
    std::vector<std::string> out;
    for (const LogLine& line : logs.lines()) {
        if (line.tag == tag) out.push_back(line.message);
    }
    return out;
}

// Plays one 60 fps producer on the manual clock through the entry functions: every frame is
// queued and latched, with a vsync in between.
void playFrames(ManualClock& clock, const char* name, int32_t id, int frames,
                const PelyxRect& bounds) {
    for (int i = 0; i < frames; i++) {
        clock.advance(kFrame60);
        pelyxTrackBufferIncrement(name, id, false, 0, clock.now());
        pelyxTrackVsyncSignal();
        pelyxTrackBufferDecrement(name, id, 0, &bounds, true, true);
    }
}

} // namespace

TEST(ApiStartup, DisabledReturnsFalseLogsOnlyTheSwitchAndAsksAgain) {
    perfd_stub::setProp("vendor.perf.pelyx.enable", "0");
    LogCapture logs;
    PerfProxy::getInstance(); // its boost thread is not the entry module's
    const size_t threadsBefore = entriesIn("/proc/self/task");

    EXPECT_FALSE(pelyxInit(1080, 2400));
    EXPECT_EQ(linesOf(logs, kTag), std::vector<std::string>{"[Pelyx Enable: 0]"});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[Pelyx Enable: 0]"), 1u);

    // Not initialised: the second call asks the feature switch again.
    EXPECT_FALSE(pelyxInit(1080, 2400));
    EXPECT_EQ(linesOf(logs, kTag),
              (std::vector<std::string>{"[Pelyx Enable: 0]", "[Pelyx Enable: 0]"}));

    EXPECT_EQ(perfd_stub::countCalls("perf_callback_register"), 0u);
    EXPECT_EQ(entriesIn("/proc/self/task"), threadsBefore) << "no watcher thread when disabled";
    LayerManager* lm = LayerManager::getInstance();
    EXPECT_FALSE(lm->isInitialized());

    // Every forwarding call is a no-op.
    ManualClock clock;
    const PelyxRect bounds{0, 0, 1080, 2400};
    pelyxSetVsyncPeriod(kFrame60);
    playFrames(clock, kGameLayer, kGameId, 3, bounds);
    EXPECT_EQ(lm->vsyncPeriod(), -1);
    EXPECT_EQ(lm->candidateCount(), 0u);
    EXPECT_FALSE(pelyxIsTargetFpsActive());
}

// Headroom for target rates keeps the hold path on whatever the smart-touch switch says.
TEST(ApiStartup, TargetFpsActiveOnlyWhileConfigured) {
    platform::host::startVirtualTime({});
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    LogCapture logs;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[PHR:1]"), 1u) << "target fps wants headroom";
    for (const char* smartTouch : {"1", "0"}) {
        platform::setProperty("debug.vendor.perf.smart_touch", smartTouch);
        platform::sleepFor(1'000'000);
    }
    EXPECT_TRUE(LayerManager::getInstance()->isSmartTouchEnabled());
    EXPECT_FALSE(pelyxIsTargetFpsActive());
    ASSERT_EQ(perfd_stub::pushHint(4171, "com.game", 6000, 0, {}), 0);
    EXPECT_TRUE(pelyxIsTargetFpsActive());
    ASSERT_EQ(perfd_stub::pushHint(4171, "com.game", 0, 0, {}), 0); // removes the entry
    EXPECT_FALSE(pelyxIsTargetFpsActive());
    EXPECT_TRUE(pelyxInit(1080, 2400));
    EXPECT_EQ(perfd_stub::countCalls("perf_callback_register"), 1u) << "started once only";
}

// Only the exact texts "1" and "0" switch smart touch (the watcher has its turn on the virtual
// clock after each set), and a touch's unblock is forwarded only while it is on, from start-up.
TEST(ApiSmartTouchWatcher, OnlyOneAndZeroSwitchSmartTouchWhichGatesUnblock) {
    platform::host::startVirtualTime({});
    platform::setProperty(kTrace, "1");
    platform::setProperty("debug.vendor.perf.smart_touch", "1");
    LogCapture logs;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    const std::string unblocked = "SurfaceFlinger: Smart touch debug: pelyxUnblockPendingBuffer";
    const struct { const char* text; bool on; } steps[] = {
            {"false", true}, {"0", false}, {"true", false}, {"1", true}};
    size_t forwarded = 0;
    for (const auto& step : steps) {
        platform::setProperty("debug.vendor.perf.smart_touch", step.text);
        platform::sleepFor(1'000'000);
        EXPECT_EQ(LayerManager::getInstance()->isSmartTouchEnabled(), step.on) << step.text;
        pelyxUnblockPendingBuffer();
        forwarded += step.on;
        EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, unblocked), forwarded) << step.text;
    }
}

TEST(ApiForwarding, BufferEventsCarryCallerIdentityBoundsAndState) {
    ManualClock clock;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    LayerManager* lm = LayerManager::getInstance();
    pelyxSetVsyncPeriod(kFrame60);
    EXPECT_EQ(lm->vsyncPeriod(), kFrame60);

    platform::host::setCallingIdentity(4321, 10123);
    const PelyxRect bounds{10, 20, 1070, 2390};
    playFrames(clock, kGameLayer, kGameId, 60, bounds);
    platform::host::clearCallingIdentity();

    sp<LayerInfo> layer = lm->getLayer(kGameId);
    ASSERT_NE(layer, nullptr) << "a steady 60 fps layer is promoted within a second";
    EXPECT_EQ(layer->mPid, 4321);
    EXPECT_EQ(layer->mUid, 10123);
    EXPECT_EQ(layer->mBounds, (Rect{10, 20, 1070, 2390}));
    EXPECT_TRUE(lm->getLayerStatus(kGameId)->lastQueueFlag) << "the queue flag is handed on inverted";

    // Null bounds read as unknown; the two bools land as given.
    clock.advance(kFrame60);
    pelyxTrackBufferIncrement(kGameLayer, kGameId, true, 0, clock.now());
    pelyxTrackBufferDecrement(kGameLayer, kGameId, 0, nullptr, false, false);
    auto status = lm->getLayerStatus(kGameId);
    ASSERT_TRUE(status.has_value());
    EXPECT_FALSE(status->lastQueueFlag);
    EXPECT_FALSE(layer->mFocused);
    EXPECT_FALSE(layer->mVisible);
    EXPECT_EQ(layer->mBounds, Rect::INVALID_RECT);

    // A nameless buffer has no package: never tracked, never a crash.
    pelyxTrackBufferIncrement(nullptr, 9, false, 0, clock.now());
    pelyxTrackBufferDecrement(nullptr, 9, 0, nullptr, true, true);
    EXPECT_EQ(lm->getLayer(9), nullptr);
    EXPECT_EQ(lm->candidateCount(), 0u);
}
