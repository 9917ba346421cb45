// Quick touch ownership, the latch path's switches and target-fps pacing, driven with explicit
// latch and queue times; nothing here sleeps.

#include <gtest/gtest.h>

#include "PerfdControl.h"
#include "phr/PHRMonitor.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::ManualClock;

namespace {

constexpr const char* kTag = "Pelyx.PHRMonitor";
constexpr int64_t kP = 16'666'666;
constexpr int64_t kSec = 1'000'000'000;

class PhrSwitchingTest : public testing::Test {
protected:
    void start() {
        perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
        m = PHRMonitor::getInstance();
        ASSERT_TRUE(m->init());
        m->setVsyncInfo(kP, 60);
        m->registerLayer(1, "a", 0.5f, 0.5f);
        m->registerLayer(2, "b", 0.5f, 0.5f);
    }
    // Latches of layer 1 one vsync apart, each leaving `pending` buffers queued.
    void latches(int n, int32_t pending, int64_t gap = kP) {
        for (int i = 0; i < n; i++) {
            t += gap;
            m->onBufferDecrement(1, pending, t);
        }
    }
    // One paced frame queued at q, as the queue path records it.
    int64_t pace(LayerPHRState& s, int64_t q, bool compensate, int32_t switchTime = 0) {
        s.mLastQueueTime.store(q);
        const int64_t wait = s.nextTargetFpsWait(q, compensate, switchTime);
        s.mLastTargetFpsQueueTime.store(q + wait);
        return wait;
    }

    LogCapture logs;
    PHRMonitor* m = nullptr;
    int64_t t = 100 * kSec;
};

} // namespace

TEST_F(PhrSwitchingTest, QuickTouchBelongsToOneLayerAtATime) {
    start();
    m->setQuickTouchStatus(1, true);
    m->setQuickTouchStatus(2, true); // ignored while 1 has it
    EXPECT_EQ(m->quickTouchLayerId(), 1);
    EXPECT_FALSE(m->getLayerState(2)->mQuickTouchActive.load());
    m->setQuickTouchStatus(2, false); // also ignored: not the owner
    m->setQuickTouchStatus(1, false);
    EXPECT_EQ(m->quickTouchLayerId(), -1);
    m->setQuickTouchStatus(2, true);
    EXPECT_EQ(m->quickTouchLayerId(), 2);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1: enable PHR"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1: disable PHR"), 1u);

    // Removal or replacement of the owner frees quick touch; unknown ids change nothing.
    m->setQuickTouchStatus(9, true);
    m->unregisterLayer(2);
    EXPECT_EQ(m->quickTouchLayerId(), -1);
    m->setQuickTouchStatus(1, true);
    m->registerLayer(1, "a2", 0.5f, 0.5f);
    EXPECT_EQ(m->quickTouchLayerId(), -1);
    EXPECT_EQ(m->getLayerState(1)->mName, "a2");
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 2 destroyed"), 1u);
}

TEST_F(PhrSwitchingTest, LatchBacklogSwitchesQuickTouchOn) {
    start();
    m->setQuickTouchStatus(2, true);
    latches(40, 1); // another layer owns quick touch: layer 1's latches are ignored
    EXPECT_EQ(m->getLayerState(1)->consecutiveBacklog(), 0);
    m->setQuickTouchStatus(2, false);

    latches(30, 1);
    latches(1, 0); // the run is broken
    latches(30, 1);
    EXPECT_EQ(m->quickTouchLayerId(), -1);
    latches(1, 2);
    EXPECT_EQ(m->quickTouchLayerId(), 1);
    EXPECT_EQ(m->getLayerState(1)->mBufferCount.load(), 2);
    EXPECT_TRUE(m->getLayerState(1)->mHasPendingBuffers.load());

    // Target fps replaces the latch path; without a rate for 60 Hz the backlog changes nothing.
    m->setQuickTouchStatus(1, false);
    m->setTargetFpsStatus(2, true, 60.0f, 30.0f);
    m->registerLayer(3, "c", 0.0f, 0.5f);
    for (int i = 1; i <= 40; i++) {
        m->onBufferDecrement(2, 1, t + i * kP);
        m->onBufferDecrement(3, 1, t + i * kP);
    }
    EXPECT_EQ(m->getLayerState(2)->consecutiveBacklog(), 0);
    EXPECT_EQ(m->getLayerState(3)->consecutiveBacklog(), 40);
    EXPECT_EQ(m->quickTouchLayerId(), -1);
}

TEST_F(PhrSwitchingTest, SixJanksWithinFifteenSecondsSwitchQuickTouchOff) {
    start();
    m->setQuickTouchStatus(1, true);
    latches(1, 0); // the first latch of a layer counts as a jank
    latches(1, 0, 2 * kP);
    latches(1, 0, 3 * kP);
    latches(1, 0, kP * 8 / 5); // rounds to 2 missed
    latches(1, 0, kP * 7 / 5); // rounds to 1: no jank
    latches(1, 0, 5 * kP);
    sp<LayerPHRState> s = m->getLayerState(1);
    EXPECT_EQ(s->jankCount(), 5u);
    EXPECT_EQ(s->mLastJankTime.load(), t);
    latches(1, 0, 2 * kP);
    EXPECT_EQ(m->quickTouchLayerId(), -1);
    EXPECT_EQ(s->jankCount(), 0u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Disable QuickTouch due to jank"), 1u);

    // Janks four seconds apart: the oldest of six has always left the 15 s window.
    m->setQuickTouchStatus(1, true);
    for (int i = 0; i < 12; i++) latches(1, 0, 4 * kSec);
    EXPECT_EQ(m->quickTouchLayerId(), 1);
    EXPECT_EQ(s->jankCount(), 5u);
}

TEST_F(PhrSwitchingTest, DynamicSwitchResetsOnEnableAndDrivesTheQueuePath) {
    perfd_stub::setProp("vendor.perf.phr.enable", "1"); // dynamic defaults to on with it
    start();
    EXPECT_TRUE(m->isDynamicHeadroomEnabled());
    sp<LayerPHRState> s = m->getLayerState(1);
    for (int i = 0; i < 15; i++) m->updateDynamicHeadroom(s.get(), 2 * kP);
    ASSERT_GT(s->mHeadroom.load(), s->baseHeadroom());
    m->setQuickTouchStatus(1, true);
    EXPECT_EQ(s->mHeadroom.load(), s->baseHeadroom());
    EXPECT_EQ(s->weightWindowSize(), 0u);
    EXPECT_EQ(logs.countContaining(kTag, "reset adaptive PHR state for layer 1"), 1u);
    // No latch yet: nothing is held, and the frame feeds the window.
    m->onBufferIncrement(1, 2 * kP, t, false);
    EXPECT_EQ(s->weightWindowSize(), 1u);
    EXPECT_EQ(s->mBufferCount.load(), 1);
}

TEST_F(PhrSwitchingTest, TargetFpsSwitchingAndTheFirstBuffer) {
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    ManualClock clock(50 * kSec);
    start();
    EXPECT_EQ(m->targetFpsSwitchTime(), 0);
    EXPECT_TRUE(m->isTargetFpsCompensate());
    sp<LayerPHRState> s = m->getLayerState(1);

    m->setTargetFpsStatus(1, true, 60.0f, 30.0f);
    EXPECT_EQ(s->frameInterval(), static_cast<int64_t>(1e9f / 30.0f));
    EXPECT_FALSE(m->isTargetFpsSwitching(1));
    // The first buffer only starts the clock.
    m->onBufferIncrement(1, kP, clock.now(), false);
    EXPECT_EQ(s->targetFpsBaseTime(), clock.now());
    EXPECT_EQ(s->mLastTargetFpsQueueTime.load(), clock.now());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1: enable target fps: 30.000000"), 1u);

    // Same flag, same target: nothing; a new target restarts the clock.
    logs.clear();
    m->setTargetFpsStatus(1, true, 60.0f, 30.0f);
    EXPECT_EQ(s->targetFpsBaseTime(), clock.now());
    m->setTargetFpsStatus(1, true, 60.0f, 40.0f);
    EXPECT_EQ(s->targetFpsBaseTime(), -1);
    EXPECT_EQ(s->frameInterval(), 25'000'000);
    m->setTargetFpsStatus(1, false, 60.0f, 40.0f);
    EXPECT_FALSE(s->mTargetFpsActive.load());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1: disable target fps"), 1u);
    EXPECT_FALSE(m->isTargetFpsSwitching(42));
}

TEST_F(PhrSwitchingTest, SmoothSwitchStepsAQuarterFpsAndEnds) {
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    perfd_stub::setProp("vendor.ruvo.target_fps.switch_time", "2");
    start();
    sp<LayerPHRState> s = m->getLayerState(1);
    s->mLastQueueTime.store(t);
    m->setTargetFpsStatus(1, true, 60.0f, 30.0f);
    EXPECT_FLOAT_EQ(s->fpsStep(), 0.25f);
    EXPECT_TRUE(m->isTargetFpsSwitching(1));
    EXPECT_EQ(s->nextDeadline(), t);

    // Each frame lowers the rate by 0.25 fps and paces to it from the previous deadline.
    int64_t previous = t;
    int frames = 0;
    while (m->isTargetFpsSwitching(1) && frames < 1000) {
        pace(*s, previous, true, 2);
        frames++;
        EXPECT_EQ(s->nextDeadline() - previous, s->frameInterval());
        previous = s->nextDeadline();
        if (frames == 1) EXPECT_EQ(s->frameInterval(), static_cast<int64_t>(1e9f / 59.75f));
    }
    EXPECT_EQ(frames, 120); // 60 -> 30 in 0.25 steps
    EXPECT_FLOAT_EQ(s->currentSwitchFps(), 30.0f);
    EXPECT_EQ(s->targetFpsBaseTime(), previous);
    const int64_t interval = static_cast<int64_t>(1e9f / 30.0f);
    EXPECT_EQ(s->frameInterval(), interval);
    // Pacing goes on from the end of the switch on the target's grid.
    EXPECT_EQ(pace(*s, previous, true, 2), interval);

    // A step below the rate's float resolution ends the switch instead of never arriving.
    m->setTargetFpsStatus(1, true, 30.0f, 30.0001f);
    ASSERT_TRUE(m->isTargetFpsSwitching(1));
    pace(*s, previous, true, 2);
    EXPECT_FALSE(m->isTargetFpsSwitching(1));
}

TEST_F(PhrSwitchingTest, CompensationKeepsTheGridAfterAPause) {
    for (bool compensate : {true, false}) {
        sp<LayerPHRState> s = new LayerPHRState(1, "a");
        s->setTargetFps(true, 60.0f, 50.0f, 0, 60); // 20 ms frames
        int64_t q = t;
        EXPECT_EQ(pace(*s, q, compensate), 0); // starts the grid
        for (int i = 1; i <= 3; i++) { // queued 5 ms after each release
            q += 5'000'000;
            EXPECT_EQ(pace(*s, q, compensate), 15'000'000);
            q += 15'000'000;
        }
        q += 25'000'000; // 25 ms after the last release: more than a frame and 1 ms
        if (compensate) {
            EXPECT_EQ(pace(*s, q, compensate), 0);          // its deadline has passed
            EXPECT_EQ(pace(*s, q, compensate), 15'000'000); // the grid holds
        } else {
            EXPECT_EQ(pace(*s, q, compensate), 0); // restarts at q
            EXPECT_EQ(s->targetFpsBaseTime(), q);
            EXPECT_EQ(pace(*s, q, compensate), 20'000'000);
        }
    }
}
