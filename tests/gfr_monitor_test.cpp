// Game frame rescue. Most cases run checks by hand on a manual clock against the kept queue of a
// stopped monitor (init, then forceStop); the last ones let "BLT" run them.

#include <PerfdControl.h>
#include <fcntl.h>
#include <sched.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "config/FeatureManager.h"
#include "gfr/GFRMonitor.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "support/FakeBoostDevice.h"
#include "support/Threads.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/TimerQueuePeer.h"

namespace android {

class GFRMonitorTestPeer {
public:
    explicit GFRMonitorTestPeer(GFRMonitor& monitor) : m(monitor) {}
    sp<LayerGFRState> state(int32_t id) {
        Mutex::Autolock lock(m.mMutex);
        auto it = m.mLayers.find(id);
        return it == m.mLayers.end() ? nullptr : it->second;
    }
    sp<TimerQueue> queue() {
        Mutex::Autolock lock(m.mMutex);
        return m.mQueue;
    }
    // Runs a check on the calling thread, as the queue would.
    void fire(int32_t id, int32_t level, int64_t token) {
        sp<GFRMonitor::GFRHandler> handler = new GFRMonitor::GFRHandler(&m, id, level, token);
        handler->handleMessage(Message(0));
    }
    int32_t byTtd(LayerGFRState& s, int64_t ttd, int32_t base) {
        Mutex::Autolock lock(m.mMutex);
        s.mWakeupFlags = 0;
        return m.calculateFrequencyByTTDLocked(s, ttd, base);
    }
    int32_t onWakeup(LayerGFRState& s, int32_t level, int32_t base) {
        Mutex::Autolock lock(m.mMutex);
        s.mWakeupFlags = 0;
        return m.calculateBoostFrequencyOnWakeupLocked(s, level, base);
    }

private:
    GFRMonitor& m;
};

} // namespace android

using android::GfrTunables;

namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kPeriod = 16'666'666;
constexpr int32_t kId = 7;
constexpr const char* kName = "com.game/com.game.Main#7";
constexpr const char* kTag = "Pelyx.GFRMonitor";

using Hint = pelyx_test::FakeBoostDevice::Hint;
std::vector<Hint> hints() { return pelyx_test::FakeBoostDevice::hints(); }

// Whether this host lets a thread raise itself as the library's loops do.
bool canRaiseThreads() {
    bool raised = false;
    std::thread([&raised] {
        sched_param param{};
        param.sched_priority = 1;
        raised = sched_setscheduler(0, SCHED_FIFO, &param) == 0;
    }).join();
    return raised;
}

class GfrTest : public testing::Test {
protected:
    void SetUp() override {
        perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
        android::FeatureManager::getInstance(); // takes the debug switch from the property
    }
    void TearDown() override { monitor.forceStop(); }
    void stopped() {
        ASSERT_TRUE(monitor.init());
        monitor.forceStop();
    }
    // Without `dynamic` or `flag` the layer keeps its package's tunables.
    android::sp<android::LayerGFRState> addLayer(bool dynamic = false, int32_t flag = 0) {
        monitor.setVsyncInfo(kPeriod, 2);
        monitor.registerLayer(kId, kName, "com.game");
        GfrTunables tunables;
        tunables.dynamic = dynamic;
        tunables.flag = flag;
        if (dynamic || flag) monitor.updateLayerTunables(kId, tunables);
        monitor.setGFRActive(kId, true);
        return peer.state(kId);
    }
    // A frame begun and queued 1 ms after the previous one; returns its token.
    int64_t frame(int64_t frameTime = kPeriod, int64_t jankHeadroom = 5 * kMs, float fps = 0) {
        clock.advance(kMs);
        monitor.onQueueBegin(kId, clock.now(), frameTime, jankHeadroom);
        monitor.onQueueEnd(kId, clock.now(), fps);
        return clock.now();
    }

    pelyx_test::FakeBoostDevice device;
    pelyx_test::ManualClock clock;
    pelyx_test::LogCapture logs;
    android::GFRMonitor& monitor = android::GFRMonitor::getInstance();
    android::GFRMonitorTestPeer peer{monitor};
};

} // namespace

TEST_F(GfrTest, FrameReplacedInTimeSendsNothingAndStaleChecksDoNothing) {
    stopped();
    auto s = addLayer();
    const int64_t first = frame();
    monitor.onQueueBegin(kId, clock.now() + 1, kPeriod, 5 * kMs);
    EXPECT_EQ(0u, s->mPendingCheckId) << "the begin cancels the check";
    peer.fire(kId, 0, first); // as if it lost the race with the cancellation
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 7 enable GFR"));
    monitor.setGFRActive(kId, false);
    peer.fire(kId, 0, clock.now() + 1);
    monitor.unregisterLayer(kId);
    EXPECT_EQ(peer.state(kId), nullptr);
    peer.fire(kId, 0, clock.now() + 1);
    EXPECT_TRUE(hints().empty());
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 7 disable GFR"));
}

TEST_F(GfrTest, PeriodFollowsFpsAtQueueEndAndVsyncAtFrameBegin) {
    stopped();
    monitor.registerLayer(kId, kName, "com.game"); // no vsync period yet
    monitor.setGFRActive(kId, true);
    auto s = peer.state(kId);
    frame();
    EXPECT_EQ(0u, s->mPendingCheckId) << "no period, no check";
    monitor.setVsyncInfo(kPeriod, 2);
    EXPECT_TRUE(s->mCheckTimes.empty()) << "taken at the next frame begin";
    frame(kPeriod, 0, 60.0f);
    EXPECT_EQ(16'666'667, s->mFramePeriod);
    monitor.onQueueEnd(kId, clock.now(), 60.01f);
    EXPECT_EQ(16'666'667, s->mFramePeriod) << "0.01 fps or less keeps the cache";
    monitor.onQueueEnd(kId, clock.now(), 60.02f);
    EXPECT_EQ(16'661'113, s->mFramePeriod);
    frame(kPeriod, 0, 30.0f);
    EXPECT_EQ(clock.now() + 40'000'004, s->mPendingCheckTime);
    monitor.setVsyncInfo(8'333'333, 3);
    frame();
    EXPECT_EQ((std::vector<int64_t>{10'000'000, 13'333'333, 16'666'666}), s->mCheckTimes);

    // Tunables pushed while the period is unknown: check times of zero or less, boosts at once.
    monitor.setVsyncInfo(-1, 0);
    frame();
    monitor.updateLayerTunables(kId, GfrTunables());
    EXPECT_EQ((std::vector<int64_t>{-1, -1, -2}), s->mCheckTimes);
    frame();
    EXPECT_EQ(clock.now() - 1, s->mPendingCheckTime);
}

TEST_F(GfrTest, OnlyAFrameBeginCancelsAPendingCheck) {
    stopped();
    auto s = addLayer();
    frame();
    const uint64_t first = s->mPendingCheckId;
    monitor.onQueueEnd(kId, clock.now(), 0); // a second end for the same frame
    EXPECT_NE(first, s->mPendingCheckId);
    // Poll the kept queue on this thread: both first checks run and each sends level 1.
    const android::sp<android::TimerQueue> queue = peer.queue();
    for (int i = 0; i < 60 && hints().size() < 6; ++i) queue->pollOnce(50);
    const auto all = hints();
    EXPECT_EQ(2, std::count_if(all.begin(), all.end(), [](const Hint& h) { return h[0] == 1; }));
}

// Re-registration leaves the old state's check queued; when it runs it finds the new state's
// token and only marks the frame finished.
TEST_F(GfrTest, ReRegistrationLeavesThePendingCheckToFindTheNewToken) {
    stopped();
    auto old = addLayer();
    frame();
    ASSERT_NE(0u, old->mPendingCheckId);
    const std::string path = testing::TempDir() + "/gfr-reregister.trace.json";
    ASSERT_TRUE(android::platform::host::traceOpen(path));
    monitor.registerLayer(kId, kName, "com.game");
    monitor.setGFRActive(kId, true);
    const android::sp<android::TimerQueue> queue = peer.queue();
    for (int i = 0; i < 10; ++i) queue->pollOnce(50); // the check is due 20 ms after the frame
    android::platform::host::traceClose();
    std::stringstream trace;
    trace << std::ifstream(path).rdbuf();
    EXPECT_NE(trace.str().find("frame finish, [com.game/com.game.Main#7]"), std::string::npos);
    EXPECT_TRUE(hints().empty());
}

TEST_F(GfrTest, BoostFrequencyFollowsDeadlineAndDropsThenFloorsAndCaps) {
    stopped();
    auto s = addLayer(true);
    s->mGoldenNs = 10 * kMs;
    const struct { int64_t ttd; bool lower; int32_t freq; uint32_t flags; } byTtd[] = {
            {5 * kMs, false, 1250, 0x008}, {0, false, 1500, 0x008},
            {10 * kMs, false, 1000, 0x008}, // at golden is still urgent
            {20 * kMs, false, 500, 0x004},  {20 * kMs + 1, false, 500, 0x002},
            {20 * kMs + 1, true, 0, 0x001}};
    for (const auto& c : byTtd) {
        s->mTunables.lowerBoost = c.lower;
        EXPECT_EQ(c.freq, peer.byTtd(*s, c.ttd, 500)) << c.ttd;
        EXPECT_EQ(c.flags, s->mWakeupFlags) << c.ttd;
    }

    // Sequential: each row may change the state the next one sees. The cap is the last base
    // frequency of the layer's tunables.
    GfrTunables capped = s->mTunables;
    capped.baseFreq = {300, 500, 1000};
    const int64_t golden = s->mGoldenNs;
    monitor.updateLayerTunables(kId, capped);
    ASSERT_EQ(s->mMaxFreq, 1000);
    s->mGoldenNs = golden;
    auto at = [&](int64_t ttd, int32_t base, int32_t level, int32_t freq, uint32_t flags) {
        s->mDeadline = clock.now() + ttd;
        EXPECT_EQ(freq, peer.onWakeup(*s, level, base)) << ttd << " " << base;
        EXPECT_EQ(flags, s->mWakeupFlags) << ttd << " " << base;
    };
    at(5 * kMs, 500, 0, 1000, 0x108);
    at(5 * kMs, 40, 0, 100, 0x008); // 100 MHz stays
    at(5 * kMs, 39, 0, 0, 0x088);
    s->mFirstCheckAdjust = 1;
    at(5 * kMs, 500, 0, 1000, 0x118);
    // The last level and a passed deadline skip raise, floor and cap.
    s->mTunables.histJank = true;
    s->mFrameDropWindow = 0b111;
    at(-5 * kMs, 2500, 2, 2500, 0x200);
    s->mLastBoostFreq = 2800;
    at(-1, 500, 1, 2800, 0x400);
    s->mLastBoostFreq = 50;
    at(-1, 60, 1, 60, 0x400);
    at(0, 500, 1, 1000, 0x148); // the deadline itself has not passed
    at(0, 700, 3, 700, 0);
    s->mTunables.kFactor = 0.5f; // (1 + 2k) x base at the deadline
    EXPECT_EQ(1000, peer.byTtd(*s, 0, 500));
    s->mTunables.kFactor = 1.0f;
    EXPECT_EQ(INT32_MAX, peer.byTtd(*s, 10 * kMs, 1 << 30)) << "2^31 MHz saturates";
    s->mTunables.kFactor = NAN;
    EXPECT_EQ(0, peer.byTtd(*s, 0, 500)) << "and NaN is 0";
    s->mTunables.kFactor = 1.0f;
    const int64_t period = s->mFramePeriod;
    s->mFramePeriod = 1; // any known period will do
    EXPECT_EQ(1500, peer.byTtd(*s, 0, 500));
    s->mFramePeriod = period;
    s->mGoldenNs = 0;
    EXPECT_EQ(500, peer.byTtd(*s, 0, 500));
    EXPECT_EQ(0x800u, s->mWakeupFlags);
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG,
                             "[GFR2.0] Invalid golden threshold or targetFrameTime, using base freq"));

    // Frame drops raise the frequency before floor and cap; ttd = 2 x golden: base before it.
    s->mGoldenNs = 10 * kMs;
    s->mMaxFreq = 2000;
    s->mFirstCheckAdjust = 0;
    s->mTunables.lowerBoost = false;
    const struct { uint64_t window; int32_t base, freq; uint32_t flags; } cases[] = {
            {(1ull << 20) | (1ull << 40), 500, 500, 0x004},
            {0x1, 500, 625, 0x024},
            {0b11, 500, 625, 0x024}, // two recent drops: still a quarter
            {(1ull << 20) | (1ull << 21) | (1ull << 63), 500, 625, 0x024}, // three old drops
            {(1ull << 15) | (1ull << 30) | (1ull << 50), 500, 750, 0x044},
            {0b111, 66, 0, 0x0C4}, // 99 MHz after the raise
            {0b111, 1800, 2000, 0x144}};
    for (const auto& c : cases) {
        s->mFrameDropWindow = c.window;
        s->mDeadline = clock.now() + 20 * kMs;
        EXPECT_EQ(c.freq, peer.onWakeup(*s, 0, c.base)) << c.window;
        EXPECT_EQ(c.flags, s->mWakeupFlags) << c.window;
    }

    s->mFrameDropWindow = 0;
    for (auto [drops, window] : {std::pair<int, uint64_t>{3, 0b111}, {0, 0b1110}, {10, 0}}) {
        monitor.updateFrameDropWindow(kId, drops);
        EXPECT_EQ(window, s->mFrameDropWindow) << drops;
    }
    monitor.setGFRActive(kId, false);
    s->mFrameDropWindow = 1ull << 63;
    monitor.updateFrameDropWindow(kId, 1);
    EXPECT_EQ(1u, s->mFrameDropWindow) << "oldest out, inactive or not";
}

TEST_F(GfrTest, BltRunsDynamicChecksInRealTime) {
    android::platform::host::setClock(nullptr);
    ASSERT_TRUE(monitor.init());
    addLayer(true);
    const auto begin = std::chrono::steady_clock::now();
    monitor.onQueueBegin(kId, android::platform::now(), kPeriod, -kPeriod); // deadline: now
    monitor.onQueueEnd(kId, android::platform::now(), 0);
    for (int i = 0; i < 5000 && hints().size() < 3; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(3u, hints().size());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
    // Past the deadline: max(base, last), then the last level's base.
    EXPECT_EQ((std::vector<Hint>{{1, -kPeriod, 300}, {2, -kPeriod, 500}, {3, -kPeriod, 2000}}),
              hints());
    const std::vector<int> blt = pelyx_test::threadsNamed("BLT");
    ASSERT_EQ(blt.size(), 1u);
    if (canRaiseThreads()) {
        EXPECT_EQ(sched_getscheduler(blt[0]), SCHED_FIFO) << "BLT runs raised";
    }

    const android::sp<android::LayerGFRState> state = peer.state(kId);
    monitor.forceStop();
    EXPECT_FALSE(state->mActive);
    EXPECT_EQ(peer.state(kId), nullptr) << "a stop forgets every layer";
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "GFRMonitor thread exited"), 1u) << "and joins BLT";
}

TEST_F(GfrTest, ALoopErrorIsLoggedAndTheLoopGoesOn) {
    ASSERT_TRUE(monitor.init());
    const android::sp<android::TimerQueue> queue = peer.queue();
    // The epoll descriptor now names a plain file, so every wait fails; the wait in progress is
    // on the old instance and is woken.
    const int plain = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(dup2(plain, android::TimerQueueTestPeer::epollFd(*queue)), 0);
    close(plain);
    queue->wake();
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (logs.count(kTag, ANDROID_LOG_ERROR, "TimerQueue error") < 2 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_GE(logs.count(kTag, ANDROID_LOG_ERROR, "TimerQueue error"), 2u) << "the loop goes on after an error";
}
