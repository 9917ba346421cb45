// App-side smart touch: boosts on down and up, instant buffers, MOVEs and the switches.
#include <gtest/gtest.h>

#include <vector>

#include "api/Pelyx.h"
#include "pelyx/pelyx.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::ManualClock;

namespace {
constexpr int64_t kMs = 1'000'000;
constexpr int kDown = 0, kUp = 1, kMove = 2, kPointerDown = 5, kPointerUp = 6, kHoverMove = 7;

// What aPelyxFilterBuffer makes of a buffer with an automatic timestamp and these flags.
struct Filtered {
    bool autoTs = true;
    int64_t present = 0;
    uint32_t flags = 0;
};
Filtered filter(uint32_t flags = 0) {
    Filtered f{true, 0, flags};
    aPelyxFilterBuffer(&f.autoTs, &f.present, &f.flags);
    return f;
}

class SmartTouch : public testing::Test {
protected:
    void SetUp() override {
        platform::setProperty("debug.vendor.perf.smart_touch", "1");
        platform::setProperty("debug.vendor.perf.smart_touch.move", "1");
        platform::setProperty("debug.vendor.perf.smart_touch.trace", "1");
        aPelyxAppInit();
        tracker = getInGameTracker();
        ASSERT_NE(tracker, nullptr);
    }

    // One frame of a render loop: pre-queue, then queue `work` later.
    void frame(int64_t work = 4 * kMs) {
        aPelyxQueueBuffer(true);
        clock.advance(work);
        aPelyxQueueBuffer(false);
    }
    // Seventy frames 16.5 ms apart, each with too little headroom for the queue path.
    void framesWithoutHeadroom() {
        for (int i = 0; i < 70; i++) {
            frame(kMs / 2);
            clock.advance(16 * kMs);
        }
    }

    ManualClock clock{10'000'000'000};
    InGameTracker* tracker = nullptr;
};
} // namespace

TEST_F(SmartTouch, UnknownFrameIntervalConsumesEveryMove) {
    for (int move : {kMove, kHoverMove}) {
        aPelyxSetTouchEvent(move);
        for (int i = 0; i < 2; i++) {
            bool consumed = false;
            aPelyxConsumeInputNow(&consumed); // the first MOVE after a pause
            EXPECT_TRUE(consumed) << move;
            clock.advance(kMs);
        }
    }
    aPelyxSetTouchEvent(kDown);
    bool consumed = false;
    aPelyxConsumeInputNow(&consumed);
    EXPECT_FALSE(consumed) << "only MOVE batches are decided";
}

TEST_F(SmartTouch, WithoutHeadroomOrAVsyncYetTheAppDecides) {
    framesWithoutHeadroom();
    ASSERT_GT(tracker->getFrameInterval(), 0);
    aPelyxSetTouchEvent(kMove);
    bool consumed = false;
    aPelyxConsumeInputNow(&consumed);
    EXPECT_TRUE(consumed) << "the first MOVE after a pause";
    clock.advance(kMs);
    consumed = false;
    aPelyxConsumeInputNow(&consumed);
    EXPECT_FALSE(consumed) << "left as the app had it";
    aPelyxConsumeInputNow(nullptr);
    Filtered none;
    aPelyxFilterBuffer(&none.autoTs, &none.present, nullptr); // any argument missing: nothing
    aPelyxFilterBuffer(nullptr, &none.present, &none.flags);
}

// Without headroom, once a vsync is known, a MOVE is consumed at most once a frame.
TEST_F(SmartTouch, TheVsyncPathPendsUntilAFrameAfterItsLastConsume) {
    framesWithoutHeadroom();
    const int64_t interval = tracker->getFrameInterval();
    ASSERT_GT(interval, 0);
    aPelyxSetTouchEvent(kMove);
    const struct { int64_t after; bool consumed; } steps[] = {
            {0, true}, {kMs, true}, {interval, false}, {1, true}};
    for (const auto& step : steps) {
        clock.advance(step.after);
        aPelyxSetVsyncTime(clock.now());
        bool consumed = !step.consumed;
        aPelyxConsumeInputNow(&consumed);
        EXPECT_EQ(consumed, step.consumed) << step.after;
    }
}

TEST_F(SmartTouch, EveryKindOfDownOrUpBoostsAfterAPauseFromTheLastOne) {
    std::vector<int32_t> ids;
    platform::host::setPowerBoostListener([&ids](int32_t id) { ids.push_back(id); });
    for (int action : {kDown, kPointerDown, kUp, kPointerUp}) {
        clock.advance(301 * kMs);
        aPelyxSetTouchEvent(action);
    }
    EXPECT_EQ(ids, std::vector<int32_t>(4, 110));
    // The pause runs from the last down or up, whether it boosted or not.
    filter(); // takes the pending touch
    for (int action : {kDown, kUp}) {
        clock.advance(200 * kMs);
        aPelyxSetTouchEvent(action);
    }
    EXPECT_EQ(ids.size(), 4u);
    platform::host::setPowerBoostListener(nullptr);
}

TEST_F(SmartTouch, InstantBufferAfterATouchWithHeadroom) {
    frame(4 * kMs); // more than 1 ms between pre-queue and queue
    aPelyxSetTouchEvent(kDown);
    // The trace switch alone asks for the log line; no trace file is open.
    LogCapture logs;
    Filtered f = filter(0x21);
    EXPECT_FALSE(f.autoTs);
    EXPECT_EQ(f.present, clock.now() - 5 * kMs);
    EXPECT_EQ(f.flags, 0x01u);
    EXPECT_EQ(logs.count("Pelyx", ANDROID_LOG_DEBUG,
                         "SurfaceFlinger: Smart touch debug: set desiredPresentTime for this frame."),
              1u);
    // Only the first buffer after the touch.
    f = filter(0x21);
    EXPECT_TRUE(f.autoTs);
    EXPECT_EQ(f.present, 0);
}

// Either switch lets the queue path time buffers; only smart touch makes one instant.
TEST(SmartTouchSwitches, QueueTimingNeedsEitherSwitchInstantBuffersNeedSmartTouch) {
    const struct { const char* st; const char* stm; bool instant; } cases[] = {
            {"1", "0", true}, {"0", "1", false}, {"1", "0", true}};
    ManualClock clock{10'000'000'000};
    EXPECT_EQ(filter(1u << 5).flags, 1u << 5) << "no app side yet: the buffer is left alone";
    for (const auto& c : cases) {
        platform::setProperty("debug.vendor.perf.smart_touch", c.st);
        platform::setProperty("debug.vendor.perf.smart_touch.move", c.stm);
        aPelyxAppInit();
        aPelyxQueueBuffer(true);
        clock.advance(4 * kMs);
        aPelyxQueueBuffer(false);
        clock.advance(400 * kMs);
        aPelyxSetTouchEvent(kDown);
        EXPECT_EQ(!filter().autoTs, c.instant) << c.st << c.stm;
        // MOVE batches are the move switch's alone, even with a tracker left from before.
        aPelyxSetTouchEvent(kMove);
        bool consumed = false;
        aPelyxConsumeInputNow(&consumed);
        EXPECT_EQ(consumed, c.stm[0] == '1') << c.st << c.stm;
    }
}

// The move switch turned on after start-up brings the tracker its MOVE batches need.
TEST(SmartTouchSwitches, TheMoveSwitchTurnedOnLaterBringsTheTracker) {
    platform::host::startVirtualTime({});
    aPelyxAppInit();
    EXPECT_EQ(getInGameTracker(), nullptr);
    platform::setProperty("debug.vendor.perf.smart_touch.move", "1");
    platform::sleepFor(kMs); // the watcher's turn
    EXPECT_NE(getInGameTracker(), nullptr);
}
