// Held queue threads on the real clock. A one-second vsync period keeps the intended release
// points far apart from the time-outs, so only lower bounds and generous upper bounds are
// asserted. Every queue call runs under a watchdog that fails the test if it is still blocked
// after 2 s.

#include <gtest/gtest.h>
#include <utils/Timers.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
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

// Runs one queue call on its own thread and measures how long it blocked.
class QueueCall {
public:
    explicit QueueCall(std::function<void()> call) {
        mThread = std::thread([this, call] {
            const int64_t start = realNow();
            call();
            std::lock_guard<std::mutex> lock(mLock);
            mElapsed = realNow() - start;
            mDone = true;
            mCondition.notify_all();
        });
    }
    ~QueueCall() {
        if (!waitDone(2000)) ADD_FAILURE() << "queue thread still blocked after 2 s";
        mThread.join();
    }
    bool waitDone(int ms) {
        std::unique_lock<std::mutex> lock(mLock);
        return mCondition.wait_for(lock, std::chrono::milliseconds(ms), [this] { return mDone; });
    }
    int64_t elapsedMs() {
        EXPECT_TRUE(waitDone(2000));
        std::lock_guard<std::mutex> lock(mLock);
        return mElapsed / kMs;
    }

private:
    std::mutex mLock;
    std::condition_variable mCondition;
    bool mDone = false;
    int64_t mElapsed = 0;
    std::thread mThread;
};

class PhrRealtimeTest : public testing::Test {
protected:
    void SetUp() override {
        m = PHRMonitor::getInstance();
        ASSERT_TRUE(m->init());
        m->setVsyncInfo(kP, 1);
        m->registerLayer(1, "game", 0.8f, 0.8f);
        state = m->getLayerState(1);
        m->setQuickTouchStatus(1, true);
        // The last latch one period ahead: a buffer queued now has two periods of headroom, so
        // it is held for up to a period.
        m->onBufferDecrement(1, 0, platform::now() + kP);
    }

    std::unique_ptr<QueueCall> queue(bool instant = false) {
        return std::make_unique<QueueCall>(
                [this, instant] { m->onBufferIncrement(1, kP, platform::now(), instant); });
    }
    // Polls (bounded) until a queue thread blocks on the layer.
    bool held() {
        for (int i = 0; i < 200; i++) {
            if (state->isWaiting()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
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
    ASSERT_TRUE(call->waitDone(2000));
    EXPECT_GE((realNow() - vsync) / kMs, 190);
    EXPECT_FALSE(state->mTimedOut.load()); // the worker released it, not the 1 s time-out
    EXPECT_EQ(state->mBufferCount.load(), 1);

    // After the release point of a vsync with nothing queued, a buffer is not held at all.
    m->onVsync(realNow());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_TRUE(state->mReleasedByTimer.load());
    EXPECT_LT(queue()->elapsedMs(), 500);
    EXPECT_FALSE(state->mReleasedByTimer.load());
}

TEST_F(PhrRealtimeTest, UnregisterReleasesAHeldThread) {
    auto call = queue();
    ASSERT_TRUE(held());
    m->unregisterLayer(1);
    EXPECT_LT(call->elapsedMs(), 800);
    EXPECT_FALSE(state->mTimedOut.load());
}

TEST_F(PhrRealtimeTest, QuickTouchOffReleasesAHeldThread) {
    auto call = queue();
    ASSERT_TRUE(held());
    m->setQuickTouchStatus(1, false);
    EXPECT_LT(call->elapsedMs(), 800);
    EXPECT_FALSE(state->mTimedOut.load());
}

TEST_F(PhrRealtimeTest, ForceStopReleasesAHeldThreadOnce) {
    auto call = queue();
    ASSERT_TRUE(held());
    m->forceStop();
    EXPECT_LT(call->elapsedMs(), 800);
    EXPECT_FALSE(m->isRunning());
    EXPECT_EQ(m->layerCount(), 0u);
    m->forceStop(); // a second stop does nothing
    EXPECT_LT(queue()->elapsedMs(), 500);
}

TEST_F(PhrRealtimeTest, UnblockReleasesAndAnInstantBufferIsNeverHeld) {
    // An instant buffer and the one after it pass; the third is held until unblocked.
    EXPECT_LT(queue(true)->elapsedMs(), 500);
    EXPECT_LT(queue()->elapsedMs(), 500);
    m->onBufferDecrement(1, 0, platform::now() + kP);
    auto call = queue();
    ASSERT_TRUE(held());
    m->unblockBuffer(1);
    EXPECT_LT(call->elapsedMs(), 800);
    EXPECT_FALSE(state->mUnblockRequested.load());
    EXPECT_EQ(state->mBufferDropWait.load(), 1); // nothing was pending at the last latch
}

TEST_F(PhrRealtimeTest, HoldWithoutReleaseEndsAtItsTimeOut) {
    EXPECT_GE(queue()->elapsedMs(), 900);
    EXPECT_TRUE(state->mTimedOut.load());
}

TEST_F(PhrRealtimeTest, TargetFpsPacingSleepsAndRemovalCutsItShort) {
    m->setQuickTouchStatus(1, false);
    m->setTargetFpsStatus(1, true, 60.0f, 10.0f); // 100 ms frames
    EXPECT_LT(queue()->elapsedMs(), 500);         // starts the clock
    EXPECT_GE(queue()->elapsedMs(), 80);

    m->setTargetFpsStatus(1, true, 60.0f, 1.0f); // one-second frames
    queue()->elapsedMs();
    auto call = queue();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    m->unregisterLayer(1);
    EXPECT_LT(call->elapsedMs(), 800);
}
