// Quick touch ownership, the latch path's switches and target-fps pacing on explicit latch and
// queue times.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>

#include "PerfdControl.h"
#include "phr/PHRMonitor.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/Threads.h"

using namespace android;

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
    // Latches of layer 1 `gap` apart, each leaving `pending` buffers queued.
    void latches(int n, int32_t pending, int64_t gap = kP) {
        for (int i = 0; i < n; i++) m->onBufferDecrement(1, pending, t += gap);
    }
    // One paced frame queued at q, as the queue path records it.
    int64_t pace(LayerPHRState& s, int64_t q, bool compensate, int32_t switchTime = 0) {
        s.mLastQueueTime.store(q);
        const int64_t wait = s.nextTargetFpsWait(q, compensate, switchTime);
        s.mLastTargetFpsQueueTime.store(q + wait);
        return wait;
    }

    pelyx_test::LogCapture logs;
    PHRMonitor* m = nullptr;
    int64_t t = 100 * kSec;
};

} // namespace

TEST_F(PhrSwitchingTest, QuickTouchBelongsToOneLayerAtATime) {
    start();
    // The worker names itself once running.
    for (int i = 0; i < 500 && pelyx_test::threadsNamed("PHR").empty(); i++) usleep(10'000);
    EXPECT_EQ(pelyx_test::threadsNamed("PHR").size(), 1u);
    m->setQuickTouchStatus(1, true);
    m->setQuickTouchStatus(2, true);  // ignored while 1 has it
    m->setQuickTouchStatus(2, false); // also ignored: not the owner
    EXPECT_EQ(m->quickTouchLayerId(), 1);
    EXPECT_FALSE(m->getLayerState(2)->mQuickTouchActive.load());
    m->setQuickTouchStatus(1, false);
    m->setQuickTouchStatus(2, true);
    EXPECT_EQ(m->quickTouchLayerId(), 2);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1: enable PHR"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1: disable PHR"), 1u);

    // Removal of the owner frees quick touch; its re-registration and a stop keep it.
    m->unregisterLayer(2);
    EXPECT_EQ(m->quickTouchLayerId(), -1);
    m->setQuickTouchStatus(1, true);
    m->registerLayer(1, "a2", 0.5f, 0.5f);
    EXPECT_EQ(m->quickTouchLayerId(), 1);
    m->registerLayer(2, "b", 0.5f, 0.5f);
    m->setQuickTouchStatus(2, true);
    EXPECT_EQ(m->quickTouchLayerId(), 1) << "still owned by the re-registered layer";
    m->unregisterLayer(2); // leaves nothing behind for the stop to release
    m->forceStop();
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "PHRMonitor thread exited"), 1u) << "joined";
    EXPECT_TRUE(pelyx_test::threadsNamed("PHR").empty());
    EXPECT_EQ(m->quickTouchLayerId(), 1);
}

// A one-second smooth switch lowers the rate 0.5 fps a frame, pacing each frame to its own rate;
// afterwards, without compensation, a late frame restarts the grid.
TEST_F(PhrSwitchingTest, SmoothSwitchStepsHalfAnFpsAndEnds) {
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    perfd_stub::setProp("vendor.ruvo.target_fps.switch_time", "1");
    start();
    sp<LayerPHRState> s = m->getLayerState(1);
    s->mLastQueueTime.store(t);
    m->setTargetFpsStatus(1, true, 60.0f, 30.0f);
    int64_t previous = t;
    float fps = 60.0f;
    int frames = 0;
    for (; m->isTargetFpsSwitching(1) && frames < 1000; frames++, previous = s->nextDeadline()) {
        pace(*s, previous, true, 1);
        fps = std::max(fps - 0.5f, 30.0f);
        EXPECT_EQ(s->nextDeadline() - previous, static_cast<int64_t>(1e9f / fps)) << frames;
    }
    EXPECT_EQ(frames, 60);
    EXPECT_EQ(pace(*s, previous + s->frameInterval() - 1, true, 1), 1) << "the grid goes on";
    // Without compensation a pause of more than a frame restarts the grid there.
    const int64_t late = previous + 3 * s->frameInterval();
    EXPECT_EQ(pace(*s, late, false, 1), 0);
    EXPECT_EQ(s->targetFpsBaseTime(), late);
}

TEST_F(PhrSwitchingTest, TargetFpsFirstBufferOnlyStartsTheClock) {
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    perfd_stub::setProp("vendor.ruvo.target_fps.compensate", "0");
    pelyx_test::ManualClock clock(50 * kSec);
    start();
    EXPECT_FALSE(m->isTargetFpsCompensate());
    sp<LayerPHRState> s = m->getLayerState(1);
    m->setTargetFpsStatus(1, true, 60.0f, 30.0f);
    // No switch time configured: the flag keeps its initial value until a smooth switch ends.
    EXPECT_TRUE(m->isTargetFpsSwitching(1));
    m->onBufferIncrement(1, kP, clock.now(), false);
    EXPECT_EQ(s->mLastTargetFpsQueueTime.load(), clock.now());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1: enable target fps: 30.000000"), 1u);

    m->setTargetFpsStatus(1, true, 60.0f, 30.0f); // unchanged: the clock runs on
    EXPECT_EQ(s->targetFpsBaseTime(), clock.now());
    m->setTargetFpsStatus(1, true, 60.0f, 40.0f); // a new target restarts it
    EXPECT_EQ(s->targetFpsBaseTime(), -1);
    EXPECT_EQ(s->frameInterval(), 25'000'000);
}

// A period of 0 has no fps mode: a smooth switch's step is unbounded, so it never ends and paces
// nothing; and every latch counts as a jank.
TEST_F(PhrSwitchingTest, WithAPeriodOfZeroASmoothSwitchNeverEndsAndEveryLatchIsAJank) {
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    perfd_stub::setProp("vendor.ruvo.target_fps.switch_time", "2");
    start();
    m->setVsyncInfo(0, 0);
    sp<LayerPHRState> s = m->getLayerState(1);
    s->mLastQueueTime.store(t);
    m->setTargetFpsStatus(1, true, 60.0f, 30.0f);
    EXPECT_TRUE(std::isinf(s->fpsStep()));
    int64_t waited = 0;
    for (int i = 0; i < 600; i++) waited += pace(*s, t += kP, true, 2);
    EXPECT_EQ(waited, 0);
    EXPECT_TRUE(m->isTargetFpsSwitching(1));

    m->setTargetFpsStatus(1, false, 60.0f, 30.0f); // the latch path ignores a paced layer
    m->setQuickTouchStatus(1, true);
    latches(5, 0, 1'000'000);
    EXPECT_EQ(s->jankCount(), 5u);
    latches(1, 0, 1'000'000);
    EXPECT_FALSE(s->mQuickTouchActive.load()) << "the sixth jank within 15 s";
}

// Janks nearly 15 s apart never add up; after them, the fourth of a burst is the sixth within
// the window (15 s less a nanosecond), here exactly at its end.
TEST(PhrJanks, OnlyJanksWithinFifteenSecondsAddUp) {
    sp<LayerPHRState> s = new LayerPHRState(1, "a");
    int64_t t = 100 * kSec;
    for (int i = 0; i < 6; i++) {
        EXPECT_EQ(s->noteLatch(t += 15 * kSec - 1 - 8 * kP, kP), LayerPHRState::LatchResult::kJank) << i;
    }
    int burst = 1;
    while (s->noteLatch(t += 2 * kP, kP) == LayerPHRState::LatchResult::kJank && burst < 10) burst++;
    EXPECT_EQ(burst, 4);
}

TEST_F(PhrSwitchingTest, BacklogNeedsARateAndTheDropWaitEndsAfterThirtyLatches) {
    start();
    m->registerLayer(3, "c", 0.0f, 0.5f); // no rate below 61 fps
    for (int i = 0; i < 40; i++) m->onBufferDecrement(3, 1, t += kP);
    EXPECT_FALSE(m->getLayerState(3)->mQuickTouchActive.load());
    EXPECT_EQ(m->quickTouchLayerId(), -1);

    m->setQuickTouchStatus(1, true);
    sp<LayerPHRState> s = m->getLayerState(1);
    s->mBufferDropWait.store(1);
    latches(29, 1);
    EXPECT_EQ(s->mBufferDropWait.load(), 30);
    latches(1, 1);
    EXPECT_EQ(s->mBufferDropWait.load(), -1);
}
