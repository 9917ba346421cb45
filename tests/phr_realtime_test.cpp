// Held queue threads on the real clock. A one-second period keeps the intended release points far
// from the time-outs; every queue call runs under a 2 s watchdog.

#include <gtest/gtest.h>
#include <utils/Timers.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "phr/PHRMonitor.h"
#include "platform/Clock.h"

using namespace android;

namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kP = 1'000 * kMs; // 1 fps: base 800 ms, release 200 ms after a vsync

int64_t realNow() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

// Blocked time of a queue call on its own thread; fails the test if still blocked after 2 s.
int64_t elapsedMs(std::future<int64_t> call) {
    if (call.wait_for(std::chrono::seconds(2)) != std::future_status::ready) {
        ADD_FAILURE() << "queue thread still blocked after 2 s";
    }
    return call.get() / kMs;
}

class PhrRealtimeTest : public testing::Test {
protected:
    void SetUp() override {
        m = PHRMonitor::getInstance();
        ASSERT_TRUE(m->init());
        m->setVsyncInfo(kP, 1);
        m->registerLayer(1, "game", 0.8f, 0.8f);
        state = m->getLayerState(1);
        m->setQuickTouchStatus(1, true);
        // The last latch one period ahead: a buffer queued now is held for up to a period.
        m->onBufferDecrement(1, 0, platform::now() + kP);
    }
    std::future<int64_t> queue(bool instant = false) {
        return std::async(std::launch::async, [this, instant] {
            const int64_t start = realNow();
            m->onBufferIncrement(1, kP, platform::now(), instant);
            return realNow() - start;
        });
    }
    bool held() {
        for (int i = 0; i < 200 && !state->isWaiting(); i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return state->isWaiting();
    }
    void expectReleasedBy(const std::function<void()>& release) {
        auto call = queue();
        ASSERT_TRUE(held());
        release();
        EXPECT_LT(elapsedMs(std::move(call)), 800);
        EXPECT_FALSE(state->mTimedOut.load());
    }

    PHRMonitor* m = nullptr;
    sp<LayerPHRState> state;
};

} // namespace

TEST_F(PhrRealtimeTest, WorkerReleasesAtTheVsyncAlignedPoint) {
    ASSERT_EQ(kP - state->mHeadroom.load() % kP, 200 * kMs);
    auto call = queue();
    ASSERT_TRUE(held());
    const int64_t vsync = realNow();
    m->onVsync(vsync);
    ASSERT_EQ(call.wait_for(std::chrono::seconds(2)), std::future_status::ready);
    EXPECT_GE((realNow() - vsync) / kMs, 190);
    EXPECT_FALSE(state->mTimedOut.load()); // the worker released it, not the 1 s time-out

    // After the release point of a vsync with nothing queued, a buffer is not held at all.
    m->onVsync(realNow());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_TRUE(state->mReleasedByTimer.load());
    EXPECT_LT(elapsedMs(queue()), 500);
}

TEST_F(PhrRealtimeTest, ABufferQueuedInTheVsyncKeepsTheWorkerFromReleasing) {
    m->onVsync(realNow());
    m->onBufferIncrement(1, kP, platform::now(), true); // instant: queued, never held
    std::this_thread::sleep_for(std::chrono::milliseconds(400)); // past the release point
    EXPECT_FALSE(state->mReleasedByTimer.load());
}

TEST_F(PhrRealtimeTest, ABufferStillEarlyAfterItsReleaseWaitsTheRest) {
    // Times well ahead, so that no jank lies within a second of the queue: a latch 1.4 s ahead
    // with a buffer still queued, then a buffer stamped 2.5 s ahead. Its headroom is 0.9 s, so
    // the hold waits 0.1 s; it is then still about 2.5 s early and waits up to a period more.
    const int64_t now = platform::now();
    m->onBufferDecrement(1, 1, now + 1'400 * kMs);
    const int64_t start = realNow();
    m->onBufferIncrement(1, kP, now + 2'500 * kMs, false);
    EXPECT_GE((realNow() - start) / kMs, 1'000);
}

TEST_F(PhrRealtimeTest, UnregisterReleasesAHeldThread) {
    expectReleasedBy([this] { m->unregisterLayer(1); });
}

TEST_F(PhrRealtimeTest, QuickTouchOffLeavesAHeldThreadToItsOwnTime) {
    auto call = queue();
    ASSERT_TRUE(held());
    m->setQuickTouchStatus(1, false);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_TRUE(state->isWaiting()) << "switching quick touch off wakes nobody";
    EXPECT_GE(elapsedMs(std::move(call)), 900);
}

TEST_F(PhrRealtimeTest, ForceStopReleasesAHeldThreadOnce) {
    expectReleasedBy([this] { m->forceStop(); });
    EXPECT_EQ(m->layerCount(), 0u);
    m->forceStop(); // a second stop does nothing
    EXPECT_LT(elapsedMs(queue()), 500);
}

TEST_F(PhrRealtimeTest, UnblockReleasesAndAnInstantBufferIsNeverHeld) {
    EXPECT_LT(elapsedMs(queue(true)), 500);
    EXPECT_LT(elapsedMs(queue()), 500);
    m->onBufferDecrement(1, 0, platform::now() + kP);
    expectReleasedBy([this] { m->unblockBuffer(1); });
    EXPECT_EQ(state->mBufferDropWait.load(), 1); // nothing was pending at the last latch
}

TEST_F(PhrRealtimeTest, HoldWithoutReleaseEndsAtItsTimeOut) {
    EXPECT_GE(elapsedMs(queue()), 900);
    EXPECT_TRUE(state->mTimedOut.load());
}

TEST_F(PhrRealtimeTest, TargetFpsPacingSleepsToTheDeadlineWhateverHappens) {
    m->setQuickTouchStatus(1, false);
    m->setTargetFpsStatus(1, true, 60.0f, 0.8f); // 1.25 s frames
    EXPECT_LT(elapsedMs(queue()), 500);         // starts the clock
    auto call = queue();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    m->unregisterLayer(1); // neither removal nor a one-second cap ends the sleep
    ASSERT_EQ(call.wait_for(std::chrono::seconds(4)), std::future_status::ready);
    EXPECT_GE(call.get() / kMs, 1'150);
}

TEST(PhrWorkerStart, AVsyncRightAfterInitIsNotLost) {
    PHRMonitor* m = PHRMonitor::getInstance();
    m->setVsyncInfo(kP, 1);
    m->registerLayer(1, "game", 0.8f, 0.8f);
    m->setQuickTouchStatus(1, true);
    sp<LayerPHRState> state = m->getLayerState(1);
    ASSERT_TRUE(m->init());
    m->onVsync(realNow()); // before the worker has had a chance to run
    // Its release point comes 200 ms later; nothing is queued, so the worker marks it passed.
    for (int i = 0; i < 200 && !state->mReleasedByTimer.load(); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(state->mReleasedByTimer.load());
}
