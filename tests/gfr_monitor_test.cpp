// Game frame rescue: check scheduling, withdrawal, boost frequencies, lifecycle. Most cases run
// checks by hand on a manual clock against the kept queue of a stopped monitor (init, then
// forceStop: checks are posted but nothing polls them); the last ones let "BLT" run them.

#include <PerfdControl.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "config/FeatureManager.h"
#include "gfr/GFRMonitor.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "support/FakeBoostDevice.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

namespace android {

class GFRMonitorTestPeer {
public:
    explicit GFRMonitorTestPeer(GFRMonitor& monitor) : m(monitor) {}
    // Read and written without the lock only while no "BLT" runs.
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
using android::LayerGFRState;

namespace {

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kPeriod = 16'666'666;
constexpr int32_t kId = 7;
constexpr const char* kName = "com.game/com.game.Main#7";
constexpr const char* kTag = "Pelyx.GFRMonitor";

using Hint = pelyx_test::FakeBoostDevice::Hint;
std::vector<Hint> hints() {
    return pelyx_test::FakeBoostDevice::hints();
}

std::vector<std::string> traceNames(const std::string& path) {
    std::ifstream in(path);
    Json::Value root;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << errors;
    std::vector<std::string> names;
    for (const auto& event : root["traceEvents"]) names.push_back(event["name"].asString());
    return names;
}

bool waitFor(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool hasBltThread() {
    bool found = false;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = dir ? readdir(dir) : nullptr) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        found |= entry->d_name[0] != '.' && std::getline(comm, name) && name == "BLT";
    }
    if (dir) closedir(dir);
    return found;
}

const GfrTunables kDynamic = [] {
    GfrTunables t;
    t.dynamic = true;
    return t;
}();

class GfrTest : public testing::Test {
protected:
    void SetUp() override {
        perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
        android::FeatureManager::getInstance(); // takes the debug switch from the property
        ASSERT_TRUE(android::platform::host::traceOpen(tracePath));
    }
    void TearDown() override {
        monitor.forceStop();
        android::platform::host::traceClose();
        unlink(tracePath.c_str());
    }
    std::vector<std::string> traces() {
        android::platform::host::traceClose();
        return traceNames(tracePath);
    }
    pelyx_test::FakeBoostDevice device;
    size_t traced(const std::string& name) {
        const auto names = traces();
        return std::count(names.begin(), names.end(), name);
    }
    void stopped() {
        ASSERT_TRUE(monitor.init());
        monitor.forceStop();
    }
    android::sp<LayerGFRState> addLayer(const GfrTunables* tunables = nullptr) {
        monitor.setVsyncInfo(kPeriod, 2);
        monitor.registerLayer(kId, kName, "com.game");
        if (tunables) monitor.updateLayerTunables(kId, *tunables);
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

    const std::string tracePath = testing::TempDir() + "gfr_" + std::to_string(getpid()) + ".json";
    pelyx_test::ManualClock clock;
    pelyx_test::LogCapture logs;
    android::GFRMonitor& monitor = android::GFRMonitor::getInstance();
    android::GFRMonitorTestPeer peer{monitor};
};

} // namespace

TEST_F(GfrTest, ChecksEscalateAtEachThresholdAndTheNextFrameWithdraws) {
    stopped();
    auto s = addLayer();
    EXPECT_EQ((std::vector<int64_t>{20'000'000, 26'666'666, 33'333'332}), s->mCheckTimes);
    EXPECT_EQ(3'333'333, s->mResendVariation);

    const int64_t token = frame(kPeriod, 5 * kMs);
    EXPECT_EQ(token + 20'000'000, s->mPendingCheckTime);
    EXPECT_EQ(token + kPeriod + 5 * kMs, s->mDeadline);
    // Later gaps run from when the previous check ran, late or not.
    clock.advance(23 * kMs);
    peer.fire(kId, 0, token);
    EXPECT_EQ(clock.now() + 6'666'666, s->mPendingCheckTime);
    clock.advance(7 * kMs);
    peer.fire(kId, 1, token);
    EXPECT_EQ(clock.now() + 6'666'666, s->mPendingCheckTime);
    peer.fire(kId, 2, token);
    EXPECT_EQ(0u, s->mPendingCheckId) << "nothing after the last threshold";
    frame(12 * kMs);
    EXPECT_FALSE(s->mBoosted);
    EXPECT_EQ((std::vector<Hint>{{1, 5'000'000, 300}, {2, 5'000'000, 500}, {3, 5'000'000, 2000},
                                 {0, 12'000'000, 0}}),
              hints());
}

TEST_F(GfrTest, FrameReplacedInTimeSendsNothingAndStaleChecksDoNothing) {
    stopped();
    auto s = addLayer();
    const int64_t first = frame();
    monitor.onQueueBegin(kId, clock.now() + 1, kPeriod, 5 * kMs);
    EXPECT_EQ(0u, s->mPendingCheckId) << "the begin cancels the check";
    peer.fire(kId, 0, first); // as if it lost the race with the cancellation
    monitor.setGFRActive(kId, false);
    peer.fire(kId, 0, clock.now() + 1);
    monitor.onQueueBegin(kId, clock.now() + 2, kPeriod, 0);
    EXPECT_EQ(clock.now() + 1, s->mFrameToken) << "an inactive layer ignores frames";
    monitor.unregisterLayer(kId);
    monitor.unregisterLayer(99);
    peer.fire(kId, 0, clock.now() + 1);
    EXPECT_TRUE(hints().empty());
    EXPECT_EQ(nullptr, peer.state(kId));

    EXPECT_EQ(2u, traced("frame finish, [" + std::string(kName) + "]"));
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 7 enable GFR"));
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 7 disable GFR"));
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG, "GFR: Unregistered layer 99"));
}

TEST_F(GfrTest, FlagTwoAlsoWithdrawsWhenFrameTimeMovesBeyondTheVariation) {
    stopped();
    GfrTunables tunables;
    tunables.flag = 2;
    addLayer(&tunables);
    frame(kPeriod);           // previous frame time 0
    frame(kPeriod + 3 * kMs); // within 3,333,333
    frame(kPeriod + 7 * kMs);
    peer.fire(kId, 0, frame(kPeriod + 7 * kMs));
    frame(kPeriod + 7 * kMs); // unchanged but boosted
    EXPECT_EQ((std::vector<Hint>{{0, 16'666'666, 0}, {0, 23'666'666, 0}, {1, 5'000'000, 300},
                                 {0, 23'666'666, 0}}),
              hints());
    EXPECT_EQ(1u, traced("frameTime = 16666666, frameHeadroom = 0, jankHeadroom = 5000000, [" +
                         std::string(kName) + "]"));
}

TEST_F(GfrTest, TunablesComeFromThePackageAndMissingFrequenciesSendZero) {
    stopped();
    ASSERT_TRUE(android::FeatureManager::getInstance()->setGFRProp(
            "com.game:baseFreq=300;500_golden=0.8", {1}));
    auto s = addLayer();
    EXPECT_EQ(500, s->mMaxFreq);
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG,
                             "GFR Layer 7 (com.game/com.game.Main#7): dynamic=false "
                             "allowSkipOrLower=false golden=0.80vsync minDelay=1.00vsync K=1.00 "
                             "baseFreq=300;500;0"));
    const int64_t token = frame();
    for (int level = 0; level < 3; ++level) peer.fire(kId, level, token);
    EXPECT_EQ(0, hints().back()[2]) << "third level, two base frequencies";

    GfrTunables update;
    update.jankThresholds = {1.5f, 3.0f};
    update.baseFreq = {4000};
    update.dynamic = true;
    monitor.updateLayerTunables(kId, update); // same period: recomputed all the same
    EXPECT_EQ((std::vector<int64_t>{25'000'000, 50'000'000}), s->mCheckTimes);
    EXPECT_EQ(3000, s->mMaxFreq);
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG,
                             "updateLayerTunables layer 7: dynamic=1 lowerBoost=0 golden=0.60vsync "
                             "minDelay=1.00vsync K=1.00 baseFreq=4000;0;0"));
}

TEST_F(GfrTest, DynamicModeMovesTheFirstCheckToGoldenBeforeTheDeadline) {
    stopped();
    auto s = addLayer(&kDynamic);
    // Check time 0 = 20 ms, golden 10 ms; returns the first check's delay after the queue end.
    auto firstCheck = [&](int64_t minDelay, int64_t deadlineAfterEnd) {
        clock.advance(50 * kMs);
        monitor.onQueueBegin(kId, clock.now(), kPeriod, deadlineAfterEnd - kPeriod);
        s->mGoldenNs = 10 * kMs;
        s->mMinDelayNs = minDelay;
        monitor.onQueueEnd(kId, clock.now(), 0);
        return s->mPendingCheckTime - clock.now();
    };
    EXPECT_EQ(16 * kMs, firstCheck(16 * kMs, 20 * kMs)) << "never sooner than min delay";
    EXPECT_EQ(10 * kMs, firstCheck(8 * kMs, 20 * kMs));
    EXPECT_EQ(20 * kMs, firstCheck(8 * kMs, 30 * kMs)) << "enough time left";
    const auto names = traces();
    EXPECT_EQ(1, std::count(names.begin(), names.end(),
                            "[GFR2.0] L0 timer adjusted: delayTime=16000000ns"));
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
    monitor.onQueueEnd(kId, clock.now(), 60.005f);
    EXPECT_EQ(16'666'667, s->mFramePeriod) << "0.01 fps or less keeps the cache";
    monitor.onQueueEnd(kId, clock.now(), 60.02f);
    EXPECT_EQ(16'661'113, s->mFramePeriod);
    frame(kPeriod, 0, 30.0f);
    EXPECT_EQ(clock.now() + 40'000'004, s->mPendingCheckTime);
    monitor.setVsyncInfo(8'333'333, 3);
    frame();
    EXPECT_EQ((std::vector<int64_t>{10'000'000, 13'333'333, 16'666'666}), s->mCheckTimes);

    // Tunables pushed while the period is unknown never put checks at the queue end.
    monitor.setVsyncInfo(-1, 0);
    frame();
    monitor.updateLayerTunables(kId, GfrTunables());
    EXPECT_TRUE(s->mCheckTimes.empty());
    monitor.setVsyncInfo(kPeriod, 2);
    frame();
    EXPECT_EQ(20'000'000, s->mCheckTimes[0]);
}

TEST_F(GfrTest, BoostFrequencyScalesWithTimeToDeadlineThenFloorsAndCaps) {
    stopped();
    auto s = addLayer(&kDynamic);
    s->mGoldenNs = 10 * kMs;
    auto at = [&](int64_t ttd, int32_t base, int32_t level = 0) {
        s->mDeadline = clock.now() + ttd;
        return peer.onWakeup(*s, level, base);
    };
    EXPECT_EQ(1250, peer.byTtd(*s, 5 * kMs, 500));
    EXPECT_EQ(0x008u, s->mWakeupFlags);
    EXPECT_EQ(1500, peer.byTtd(*s, 0, 500));
    EXPECT_EQ(1000, peer.byTtd(*s, 10 * kMs, 500));
    EXPECT_EQ(0x008u, s->mWakeupFlags) << "at golden is still urgent";
    EXPECT_EQ(500, peer.byTtd(*s, 20 * kMs, 500));
    EXPECT_EQ(0x004u, s->mWakeupFlags);
    EXPECT_EQ(500, peer.byTtd(*s, 20 * kMs + 1, 500));
    EXPECT_EQ(0x002u, s->mWakeupFlags);
    s->mTunables.lowerBoost = true;
    EXPECT_EQ(0, peer.byTtd(*s, 20 * kMs + 1, 500));
    EXPECT_EQ(0x001u, s->mWakeupFlags);

    s->mMaxFreq = 1000;
    EXPECT_EQ(1000, at(5 * kMs, 500));
    EXPECT_EQ(0x108u, s->mWakeupFlags);
    EXPECT_EQ(100, at(5 * kMs, 40)) << "100 MHz stays";
    EXPECT_EQ(0, at(5 * kMs, 39));
    EXPECT_EQ(0x088u, s->mWakeupFlags);
    s->mFirstCheckAdjust = 16 * kMs;
    at(5 * kMs, 500);
    EXPECT_EQ(0x118u, s->mWakeupFlags);
    // The last level and a passed deadline skip raise, floor and cap.
    s->mTunables.histJank = true;
    s->mFrameDropWindow = 0b111;
    EXPECT_EQ(2500, at(-5 * kMs, 2500, 2));
    EXPECT_EQ(0x200u, s->mWakeupFlags);
    s->mLastBoostFreq = 2800;
    EXPECT_EQ(2800, at(-1, 500, 1));
    EXPECT_EQ(0x400u, s->mWakeupFlags);
    s->mLastBoostFreq = 50;
    EXPECT_EQ(60, at(-1, 60, 1));
    EXPECT_EQ(700, at(0, 700, 3));

    s->mGoldenNs = 0;
    EXPECT_EQ(500, peer.byTtd(*s, 0, 500));
    EXPECT_EQ(0x800u, s->mWakeupFlags);
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG,
                             "[GFR2.0] Invalid golden threshold or targetFrameTime, using base freq"));
    const auto names = traces();
    for (const char* name : {"[GFR2.0] L0: ttd=5000000ns base=500 MHz final_freq=1000 MHz flags=0x108",
                             "[GFR2.0] L2: ttd=-5000000ns base=2500 MHz final_freq=2500 MHz flags=0x200",
                             "[GFR2.0] Invalid level: 3"}) {
        EXPECT_EQ(1, std::count(names.begin(), names.end(), name)) << name;
    }
}

TEST_F(GfrTest, FrameDropsRaiseTheFrequencyBeforeFloorAndCap) {
    stopped();
    GfrTunables tunables;
    tunables.dynamic = true;
    tunables.histJank = true;
    auto s = addLayer(&tunables);
    s->mGoldenNs = 10 * kMs;
    auto raised = [&](uint64_t window, int32_t base) { // ttd = 2 x golden: base before the raise
        s->mFrameDropWindow = window;
        s->mDeadline = clock.now() + 20 * kMs;
        return peer.onWakeup(*s, 0, base);
    };
    EXPECT_EQ(500, raised((1ull << 20) | (1ull << 40), 500));
    EXPECT_EQ(625, raised(0x1, 500));
    EXPECT_EQ(0x024u, s->mWakeupFlags);
    EXPECT_EQ(625, raised((1ull << 20) | (1ull << 21) | (1ull << 63), 500)) << "three old drops";
    EXPECT_EQ(750, raised((1ull << 15) | (1ull << 30) | (1ull << 50), 500));
    EXPECT_EQ(0, raised(0b111, 66)) << "99 MHz after the raise";
    EXPECT_EQ(0x0C4u, s->mWakeupFlags);
    EXPECT_EQ(2000, raised(0b111, 1800));
    EXPECT_EQ(0x144u, s->mWakeupFlags);

    s->mFrameDropWindow = 0;
    monitor.updateFrameDropWindow(kId, 3);
    EXPECT_EQ(0b111u, s->mFrameDropWindow);
    monitor.updateFrameDropWindow(kId, 0);
    EXPECT_EQ(0b1110u, s->mFrameDropWindow);
    monitor.updateFrameDropWindow(kId, 10);
    EXPECT_EQ(0u, s->mFrameDropWindow);
    monitor.setGFRActive(kId, false);
    s->mFrameDropWindow = 1ull << 63;
    monitor.updateFrameDropWindow(kId, 1);
    EXPECT_EQ(1u, s->mFrameDropWindow) << "oldest out, inactive or not";
    const auto names = traces();
    EXPECT_EQ(1, std::count(names.begin(), names.end(),
                            "[FrameDrop] drops64=3/64, drops32=3/32, drops16=3/16, current=3 frames"));
    EXPECT_EQ(1, std::count(names.begin(), names.end(),
                            "[FrameDrop] Extreme drop detected (10 frames), reset window"));
}

TEST_F(GfrTest, StopKeepsTheQueueAndAStoppedMonitorRunsNothing) {
    ASSERT_TRUE(monitor.init());
    EXPECT_TRUE(waitFor(hasBltThread));
    addLayer();
    const android::sp<android::TimerQueue> queue = peer.queue();
    monitor.forceStop();
    monitor.forceStop();
    EXPECT_TRUE(waitFor([] { return !hasBltThread(); }));
    EXPECT_EQ(nullptr, peer.state(kId));
    EXPECT_EQ(queue, peer.queue());
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG, "GFRMonitor stopped"));
    EXPECT_EQ(1u, logs.count(kTag, ANDROID_LOG_DEBUG, "GFRMonitor thread exited"));

    auto s = addLayer();
    frame();
    EXPECT_NE(0u, s->mPendingCheckId) << "posted to the kept queue";
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_TRUE(hints().empty());
    ASSERT_TRUE(monitor.init());
    EXPECT_NE(queue, peer.queue());
    EXPECT_TRUE(monitor.init()) << "a running monitor stays as it is";
    EXPECT_EQ(2u, logs.count(kTag, ANDROID_LOG_DEBUG, "GFRMonitor thread started"));
}

TEST_F(GfrTest, BltRunsDynamicChecksInRealTime) {
    android::platform::host::setClock(nullptr);
    ASSERT_TRUE(monitor.init());
    addLayer(&kDynamic);
    const auto begin = std::chrono::steady_clock::now();
    monitor.onQueueBegin(kId, android::platform::now(), kPeriod, -kPeriod); // deadline: now
    monitor.onQueueEnd(kId, android::platform::now(), 0);
    ASSERT_TRUE(waitFor([] { return hints().size() >= 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
    // Past the deadline: max(base, last), then the last level's base.
    EXPECT_EQ((std::vector<Hint>{{1, -kPeriod, 300}, {2, -kPeriod, 500}, {3, -kPeriod, 2000}}),
              hints());
}

TEST_F(GfrTest, RacingFramesNeverSendAStaleLevel) {
    android::platform::host::setClock(nullptr);
    ASSERT_TRUE(monitor.init());
    monitor.setVsyncInfo(kMs, 1); // checks at 1.2, 1.6 and 2.0 ms: plenty of races
    monitor.registerLayer(kId, kName, "com.game");
    monitor.setGFRActive(kId, true);
    std::thread dropper([this] {
        for (int i = 0; i < 300; ++i) {
            monitor.updateFrameDropWindow(kId, i % 4);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    for (int i = 0; i < 300; ++i) {
        monitor.onQueueBegin(kId, android::platform::now(), kMs, 0);
        monitor.onQueueEnd(kId, android::platform::now(), 0);
        std::this_thread::sleep_for(std::chrono::microseconds(100 + (i % 7) * 400));
    }
    dropper.join();
    monitor.forceStop();
    // Level n follows level n-1 of the same frame; level 1 follows a withdrawal or nothing.
    const auto sent = hints();
    ASSERT_FALSE(sent.empty());
    for (size_t i = 0; i < sent.size(); ++i) {
        const int prev = i == 0 ? 0 : sent[i - 1][0];
        if (sent[i][0] >= 1) EXPECT_EQ(sent[i][0] - 1, prev) << "hint " << i;
    }
}
