// App-side smart touch: instant buffers and MOVE batches held for the next frame.
#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <vector>

#include "api/Pelyx.h"
#include "pelyx/pelyx.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::ManualClock;

namespace {
constexpr int64_t kMs = 1'000'000;
constexpr int64_t k60Hz = 16'666'666;
constexpr int kDown = 0, kUp = 1, kMove = 2, kPointerDown = 5, kPointerUp = 6, kHoverMove = 7;

class SmartTouch : public testing::Test {
protected:
    void SetUp() override {
        platform::setProperty("debug.vendor.perf.smart_touch", "1");
        platform::setProperty("debug.vendor.perf.smart_touch.move", "1");
        platform::setProperty("debug.vendor.perf.smart_touch.trace", "1");
        aPelyxAppInit();
        tracker = getInGameTracker();
        ASSERT_NE(tracker, nullptr);
        tracePath = testing::TempDir() + "/touch." + std::to_string(getpid()) + ".json";
        ASSERT_TRUE(platform::host::traceOpen(tracePath));
    }

    // One frame of a render loop: pre-queue, then queue `work` later.
    void frame(int64_t work = 4 * kMs) {
        aPelyxQueueBuffer(true);
        clock.advance(work);
        aPelyxQueueBuffer(false);
    }

    // Frames every 16.67 ms for a little more than one measuring window.
    void renderOneWindow() {
        for (int i = 0; i < 62; i++) {
            frame();
            clock.advance(k60Hz - 4 * kMs);
        }
    }

    // What aPelyxConsumeInputNow decided, and the label of its decision in the trace.
    std::pair<bool, std::string> consume() {
        bool consumeNow = false;
        aPelyxConsumeInputNow(&consumeNow);
        return {consumeNow, lastLabel()};
    }

    std::vector<std::string> labels() {
        platform::host::traceClose();
        std::ifstream in(tracePath);
        Json::Value root;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr));
        std::vector<std::string> out;
        for (const auto& e : root["traceEvents"]) {
            if (e["ph"].asString() == "B") out.push_back(e["name"].asString());
        }
        platform::host::traceOpen(tracePath); // a fresh file for the next look
        return out;
    }

    std::string lastLabel() {
        auto all = labels();
        return all.empty() ? std::string() : all.back();
    }

    ManualClock clock{10'000'000'000};
    InGameTracker* tracker = nullptr;
    std::string tracePath;
};
} // namespace

TEST_F(SmartTouch, SteadySixtyFpsGivesTheFrameIntervalAfterOneWindow) {
    EXPECT_EQ(tracker->getFrameInterval(), -1);
    renderOneWindow();
    EXPECT_EQ(tracker->getFpsMode(), 60);
    EXPECT_EQ(tracker->getFrameInterval(), 16'666'666);
}

TEST_F(SmartTouch, UnknownFrameIntervalConsumesEveryMove) {
    for (int move : {kMove, kHoverMove}) {
        aPelyxSetTouchEvent(move);
        for (int i = 0; i < 2; i++) {
            auto [consumed, label] = consume();
            EXPECT_TRUE(consumed) << move;
            EXPECT_EQ(label, "consume first MOVE") << move;
            clock.advance(kMs);
        }
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
    bool autoTs = true;
    int64_t present = 0;
    uint32_t flags = 0;
    aPelyxFilterBuffer(&autoTs, &present, &flags); // takes the pending touch
    for (int action : {kDown, kUp}) {
        clock.advance(200 * kMs);
        aPelyxSetTouchEvent(action);
    }
    EXPECT_EQ(ids.size(), 4u);
    platform::host::setPowerBoostListener(nullptr);
}

TEST_F(SmartTouch, DownAndUpWithinAPauseBoostOnce) {
    const uint64_t boosts = platform::host::powerBoostCount();
    aPelyxSetTouchEvent(kDown);
    clock.advance(200 * kMs);
    aPelyxSetTouchEvent(kUp);
    EXPECT_EQ(platform::host::powerBoostCount(), boosts + 1);
    const auto all = labels();
    EXPECT_NE(std::find(all.begin(), all.end(), "EVENT_ACTION_DOWN"), all.end());
    // The down's pending flag is still set when the up comes, so the up reads as pending too;
    // what matters is that it neither boosts nor starts a new pause.
    clock.advance(301 * kMs);
    aPelyxSetTouchEvent(kDown);
    EXPECT_EQ(platform::host::powerBoostCount(), boosts + 2);
}

TEST_F(SmartTouch, InstantBufferAfterATouchWithHeadroom) {
    frame(4 * kMs); // more than 1 ms between pre-queue and queue
    aPelyxSetTouchEvent(kDown);
    bool autoTs = true;
    int64_t present = 0;
    uint32_t flags = 0x21;
    platform::host::traceClose(); // the trace switch alone asks for the log line
    LogCapture logs;
    aPelyxFilterBuffer(&autoTs, &present, &flags);
    EXPECT_FALSE(autoTs);
    EXPECT_EQ(present, clock.now() - 5 * kMs);
    EXPECT_EQ(flags, 0x01u);
    EXPECT_EQ(logs.count("Pelyx", ANDROID_LOG_DEBUG,
                         "SurfaceFlinger: Smart touch debug: set desiredPresentTime for this frame."),
              1u);
    // Only the first buffer after the touch.
    autoTs = true;
    present = 0;
    aPelyxFilterBuffer(&autoTs, &present, &flags);
    EXPECT_TRUE(autoTs);
    EXPECT_EQ(present, 0);
}

TEST_F(SmartTouch, NoInstantBufferWithoutQueueHeadroom) {
    frame(kMs); // exactly 1 ms: not enough
    aPelyxSetTouchEvent(kDown);
    bool autoTs = true;
    int64_t present = 0;
    uint32_t flags = 0;
    aPelyxFilterBuffer(&autoTs, &present, &flags);
    EXPECT_TRUE(autoTs);
    EXPECT_EQ(present, 0);
    const auto all = labels();
    EXPECT_NE(std::find(all.begin(), all.end(), "Found touch down/up, but no enough headroom."),
              all.end());
}

TEST_F(SmartTouch, AppChosenPresentTimeIsLeftAlone) {
    frame();
    aPelyxSetTouchEvent(kDown);
    bool autoTs = false;
    int64_t present = 123;
    uint32_t flags = 0x20;
    aPelyxFilterBuffer(&autoTs, &present, &flags);
    EXPECT_FALSE(autoTs);
    EXPECT_EQ(present, 123);
    EXPECT_EQ(flags, 0x20u);
}

TEST_F(SmartTouch, MovesAtEightMillisecondsPullTheTouchIntervalDown) {
    renderOneWindow(); // frame interval known: 16.67 ms
    tracker->trackMoveEvent(clock.now());
    tracker->trackMoveEvent(clock.now() + 8 * kMs);
    // The 10 ms seed is one sample: (10 * 1 + 8) / 2.
    EXPECT_EQ(tracker->getTouchInterval(), 9 * kMs);
    tracker->trackMoveEvent(clock.now() + 16 * kMs);
    EXPECT_EQ(tracker->getTouchInterval(), (9 * kMs * 2 + 8 * kMs) / 3);
    // A gap longer than a frame restarts the count but keeps the interval.
    const int64_t kept = tracker->getTouchInterval();
    tracker->trackMoveEvent(clock.now() + 40 * kMs);
    EXPECT_EQ(tracker->getTouchInterval(), kept);
    tracker->trackMoveEvent(clock.now() + 48 * kMs);
    EXPECT_EQ(tracker->getTouchInterval(), (kept * 1 + 8 * kMs) / 2);
}

TEST_F(SmartTouch, QueuePathHoldsInputUntilTheFrameIsDue) {
    renderOneWindow();
    aPelyxSetTouchEvent(kMove);
    EXPECT_EQ(consume().second, "consume first MOVE");
    // Right after a queue, the next frame is far: hold.
    frame();
    clock.advance(kMs);
    auto held = consume();
    EXPECT_FALSE(held.first);
    EXPECT_EQ(held.second, "Pre queue buffer: pend input");
    // Once the frame is within a MOVE interval and a half millisecond, release.
    // lead = 16.67 - (10 + 0.5) = 6.17 ms after the last queue.
    clock.advance(6 * kMs);
    auto released = consume();
    EXPECT_TRUE(released.first);
    EXPECT_EQ(released.second, "consume input now");
}

TEST_F(SmartTouch, APendThatLastedAFrameIsReleased) {
    renderOneWindow();
    aPelyxSetTouchEvent(kMove);
    consume(); // first MOVE
    frame();
    clock.advance(kMs);
    ASSERT_FALSE(consume().first);
    const int64_t pendStart = clock.now();
    // Queues keep coming just before each decision, so only the pend's age can release it.
    for (int i = 0; i < 10; i++) {
        frame();
        clock.advance(kMs);
        auto decision = consume();
        if (clock.now() - pendStart <= k60Hz) {
            EXPECT_FALSE(decision.first) << "pending for " << clock.now() - pendStart;
            continue;
        }
        EXPECT_TRUE(decision.first);
        EXPECT_EQ(decision.second, "consume input now");
        return;
    }
    FAIL() << "never released";
}

TEST_F(SmartTouch, VsyncPathNeedsAVsyncTime) {
    renderOneWindow();
    frame(kMs); // no queue headroom: the vsync path decides
    aPelyxSetTouchEvent(kMove);
    consume(); // first MOVE
    clock.advance(kMs);
    // No vsync time yet: *consumeNow is left as it was, whichever value that is.
    for (bool seed : {true, false}) {
        bool consumeNow = seed;
        aPelyxConsumeInputNow(&consumeNow);
        EXPECT_EQ(consumeNow, seed);
    }

    aPelyxSetVsyncTime(clock.now() - 2 * kMs);
    bool decision = true;
    aPelyxConsumeInputNow(&decision);
    EXPECT_TRUE(decision) << "nothing consumed on this path for a frame: consume now";
    clock.advance(kMs);
    decision = true;
    aPelyxConsumeInputNow(&decision);
    EXPECT_FALSE(decision) << "just consumed and the vsync is recent: pend";
}

TEST(SmartTouchOff, AppSideCallsDoNothingBeforeAppInit) {
    platform::setProperty("debug.vendor.perf.smart_touch", "1");
    EXPECT_FALSE(aPelyxSmartTouchActive());
    bool autoTs = true;
    int64_t present = 0;
    uint32_t flags = 0x20;
    aPelyxSetTouchEvent(kDown);
    aPelyxFilterBuffer(&autoTs, &present, &flags);
    EXPECT_EQ(flags, 0x20u);
    bool consumeNow = true;
    aPelyxConsumeInputNow(&consumeNow);
    EXPECT_TRUE(consumeNow);
}

// Either switch lets the queue path time buffers; only smart touch makes one instant.
TEST(SmartTouchSwitches, QueueTimingNeedsEitherSwitchInstantBuffersNeedSmartTouch) {
    const struct { const char* st; const char* stm; bool instant; } cases[] = {
            {"1", "0", true}, {"0", "1", false}};
    ManualClock clock{10'000'000'000};
    for (const auto& c : cases) {
        platform::setProperty("debug.vendor.perf.smart_touch", c.st);
        platform::setProperty("debug.vendor.perf.smart_touch.move", c.stm);
        aPelyxAppInit();
        aPelyxQueueBuffer(true);
        clock.advance(4 * kMs);
        aPelyxQueueBuffer(false);
        clock.advance(400 * kMs);
        aPelyxSetTouchEvent(kDown);
        bool autoTs = true;
        int64_t present = 0;
        uint32_t flags = 0;
        aPelyxFilterBuffer(&autoTs, &present, &flags);
        EXPECT_EQ(!autoTs, c.instant) << c.st << c.stm;
    }
}
