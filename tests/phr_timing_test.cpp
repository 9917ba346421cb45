// Held queue threads and the release worker on the virtual clock, where a hold lasts exactly as
// long as it should. A one-second period keeps the intended release points far from the time-outs.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "phr/PHRMonitor.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Thread.h"
#include "support/Threads.h"

using namespace android;

namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kP = 1'000 * kMs; // 1 fps: base 800 ms, release 200 ms after a vsync

class PhrTimingTest : public testing::Test {
protected:
    void SetUp() override {
        platform::host::startVirtualTime({});
        m = PHRMonitor::getInstance();
        ASSERT_TRUE(m->init());
        m->setVsyncInfo(kP, 1);
        m->registerLayer(1, "game", 0.8f, 0.8f);
        state = m->getLayerState(1);
        m->setQuickTouchStatus(1, true);
        // The last latch one period ahead: a buffer queued now is held for up to a period.
        m->onBufferDecrement(1, 0, platform::now() + kP);
    }
    PHRMonitor* m = nullptr;
    sp<LayerPHRState> state;
};

} // namespace

TEST_F(PhrTimingTest, TheWorkerReleasesAtItsPointUnlessABufferWasQueuedInTheVsync) {
    m->onVsync(platform::now());
    platform::sleepFor(200 * kMs - 1);
    EXPECT_FALSE(state->mReleasedByTimer.load()) << "not a nanosecond early";
    platform::sleepFor(1);
    platform::sleepFor(1);
    EXPECT_TRUE(state->mReleasedByTimer.load());

    state->mReleasedByTimer.store(false);
    m->onVsync(platform::now());
    m->onBufferIncrement(1, kP, platform::now(), true); // instant: queued, never held
    platform::sleepFor(400 * kMs);
    EXPECT_FALSE(state->mReleasedByTimer.load());

    // A vsync before the release point cuts the wait short and releases at once.
    m->onVsync(platform::now());
    platform::sleepFor(100 * kMs);
    m->onVsync(platform::now());
    platform::sleepFor(1);
    EXPECT_TRUE(state->mReleasedByTimer.load());
}

TEST_F(PhrTimingTest, ABufferStillEarlyAfterItsReleaseWaitsTheRest) {
    // Times well ahead, so that no jank lies within a second of the queue: a latch 1.4 s ahead
    // with a buffer still queued, then a buffer stamped 2.5 s ahead. Its headroom is 0.9 s, so
    // the hold waits 0.1 s; it is then still 2.4 s early and waits a period more.
    const int64_t now = platform::now();
    m->onBufferDecrement(1, 1, now + 1'400 * kMs);
    m->onBufferIncrement(1, kP, now + 2'500 * kMs, false);
    EXPECT_EQ(platform::now() - now, 1'100 * kMs);

    // Less than a period still early after the release: the second wait is just that.
    const int64_t second = platform::now();
    m->onBufferDecrement(1, 1, second + 500 * kMs);
    m->onBufferIncrement(1, kP, second + 950 * kMs, false);
    EXPECT_EQ(platform::now() - second, 1'700 * kMs);

    // At 60 Hz, while waiting for a buffer to be dropped, the first wait is all there is.
    m->onVsync(platform::now()); // a release point takes up the time-outs so far
    platform::sleepFor(kP);
    m->setVsyncInfo(kP + 1, 60);
    const int64_t again = platform::now();
    m->onBufferDecrement(1, 1, again + 1'400 * kMs);
    state->mBufferDropWait.store(1);
    m->onBufferIncrement(1, kP, again + 2'500 * kMs, false);
    EXPECT_LT(platform::now() - again, kP) << "no second wait";
    // That hold timed out: the next release point is not counted as the timer's release.
    m->onVsync(platform::now());
    platform::sleepFor(kP);
    EXPECT_FALSE(state->mReleasedByTimer.load());
}

// Switching quick touch off releases nobody: a held buffer waits out its own time-out (a
// period). Dropping its layer releases it at once.
TEST_F(PhrTimingTest, QuickTouchOffLeavesAHeldBufferToItsTimeOutDroppingTheLayerDoesNot) {
    for (bool drop : {false, true}) {
        const int64_t queued = platform::now();
        int64_t returned = 0;
        platform::Thread queue;
        ASSERT_TRUE(queue.start("queue", [&] {
            m->onBufferIncrement(1, kP, queued, false);
            returned = platform::now();
        }));
        platform::sleepFor(100 * kMs);
        EXPECT_TRUE(state->isWaiting());
        drop ? m->unregisterLayer(1) : m->setQuickTouchStatus(1, false);
        queue.join();
        EXPECT_EQ(returned - queued, drop ? 100 * kMs : kP) << drop;
        m->setQuickTouchStatus(1, true);
        m->onBufferDecrement(1, 0, platform::now() + kP);
    }
}

// Pacing sleeps to the frame's deadline, however far off: not capped like a hold.
TEST_F(PhrTimingTest, PacingSleepsToTheFramesDeadline) {
    m->setTargetFpsStatus(1, true, 60.0f, 0.5f);         // 2 s frames
    m->onBufferIncrement(1, kP, platform::now(), false); // starts the clock
    const int64_t base = state->targetFpsBaseTime();
    platform::sleepFor(300 * kMs);
    m->onBufferIncrement(1, kP, platform::now(), false);
    EXPECT_EQ(platform::now(), base + 2'000 * kMs);
}

TEST(PhrWorkerStart, AVsyncRightAfterInitIsNotLost) {
    platform::host::startVirtualTime({});
    PHRMonitor* m = PHRMonitor::getInstance();
    m->setVsyncInfo(kP, 1);
    m->registerLayer(1, "game", 0.8f, 0.8f);
    m->setQuickTouchStatus(1, true);
    sp<LayerPHRState> state = m->getLayerState(1);
    ASSERT_TRUE(m->init());
    m->onVsync(platform::now()); // before the worker has had a chance to run
    // Its release point comes 200 ms later; nothing is queued, so the worker marks it passed.
    platform::sleepFor(200 * kMs + 1);
    EXPECT_TRUE(state->mReleasedByTimer.load());
    m->forceStop(); // the worker has not had its turn yet: only a join gives it one
    EXPECT_TRUE(pelyx_test::threadsNamed("PHR").empty());
}

// On the kernel's clock: a signal ends the pacing sleep for good. The sleeper is signalled until
// it returns, so the signal that first lands inside the sleep ends it; a resumed sleep would run
// its 4 s.
TEST(TargetFpsSleep, AnInterruptedSleepIsNotResumed) {
    struct sigaction quiet {};
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR2, &quiet, nullptr), 0);
    std::atomic<bool> done{false};
    std::thread sleeper([&] {
        sp<LayerPHRState>(new LayerPHRState(1, "game"))->sleepFor(4'000 * kMs);
        done = true;
    });
    const auto start = std::chrono::steady_clock::now();
    while (!done && std::chrono::steady_clock::now() - start < std::chrono::seconds(2)) {
        pthread_kill(sleeper.native_handle(), SIGUSR2);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_TRUE(done) << "the sleep went on after the signal";
    sleeper.join();
}
