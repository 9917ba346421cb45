// The exported entry functions: start-up, the switches that gate them, the smart-touch property
// watchers and what they hand on to the layer registry. CTest runs every case in its own
// process, so each one starts from unset properties and fresh singletons.

#include <gtest/gtest.h>

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "PerfdControl.h"
#include "api/Pelyx.h"
#include "config/FeatureManager.h"
#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "layers/GpuFence.h"
#include "pelyx/pelyx.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::LogLine;
using pelyx_test::ManualClock;

namespace {

constexpr const char* kTag = "Pelyx";
constexpr const char* kST = "debug.vendor.perf.smart_touch";
constexpr const char* kSTM = "debug.vendor.perf.smart_touch.move";
constexpr const char* kTrace = "debug.vendor.perf.smart_touch.trace";
constexpr int64_t kFrame60 = 16'666'666;
constexpr const char* kGameLayer = "com.game/com.game.MainActivity#0";
constexpr int32_t kGameId = 7;

bool waitFor(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

size_t threadCount() {
    size_t count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') count++;
        }
        closedir(dir);
    }
    return count;
}

// Every captured line, for failure messages.
std::string dump(const LogCapture& logs) {
    std::string out;
    for (const LogLine& line : logs.lines()) out += "\n  " + line.tag + ": " + line.message;
    return out;
}

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

// ---- Start-up ----

TEST(ApiStartup, DisabledReturnsFalseLogsOnlyTheSwitchAndAsksAgain) {
    perfd_stub::setProp("vendor.perf.pelyx.enable", "0");
    LogCapture logs;
    PerfProxy::getInstance(); // its boost thread is not the entry module's
    const size_t threadsBefore = threadCount();

    EXPECT_FALSE(pelyxInit(1080, 2400));
    EXPECT_EQ(linesOf(logs, kTag), std::vector<std::string>{"[Pelyx Enable: 0]"});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[Pelyx Enable: 0]"), 1u);

    // Not initialised: the second call asks the feature switch again.
    EXPECT_FALSE(pelyxInit(1080, 2400));
    EXPECT_EQ(linesOf(logs, kTag),
              (std::vector<std::string>{"[Pelyx Enable: 0]", "[Pelyx Enable: 0]"}));

    EXPECT_EQ(perfd_stub::countCalls("perf_callback_register"), 0u);
    EXPECT_EQ(threadCount(), threadsBefore) << "no watcher thread when disabled";
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

TEST(ApiStartup, SmartTouchAnswersWhileDisabled) {
    perfd_stub::setProp("vendor.perf.pelyx.enable", "0");
    platform::setProperty(kST, "1");
    ASSERT_FALSE(pelyxInit(1080, 2400));
    EXPECT_FALSE(pelyxSmartTouchEnabled()) << "only the start-ups read the switch";
    aPelyxAppInit(); // an app process: no compositor start-up, no enabled check
    EXPECT_TRUE(pelyxSmartTouchEnabled());
}

TEST(ApiStartup, ConcurrentCallersStartOnce) {
    perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
    LogCapture logs;
    std::atomic<int> enabled{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; i++) {
        callers.emplace_back([&] { enabled += pelyxInit(1080, 2400) ? 1 : 0; });
    }
    for (auto& t : callers) t.join();
    EXPECT_EQ(enabled.load(), 4);

    EXPECT_EQ(perfd_stub::countCalls("perf_callback_register"), 1u);
    EXPECT_EQ(perfd_stub::registeredClientId(), 4);
    EXPECT_NE(perfd_stub::registeredCallback(), nullptr);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[Pelyx Enable: 1]"), 1u);
    EXPECT_EQ(logs.countContaining("Pelyx.LayerManager", "LayerManager initialized"), 1u);
    EXPECT_TRUE(LayerManager::getInstance()->isInitialized());
    EXPECT_FALSE(LayerManager::getInstance()->isSmartTouchEnabled()) << "nothing wants headroom";

    // The start-up lines, in order.
    std::vector<std::string> startup;
    for (const std::string& line : linesOf(logs, kTag)) {
        if (line.rfind("[", 0) == 0) startup.push_back(line);
    }
    EXPECT_EQ(startup, (std::vector<std::string>{"[Pelyx Enable: 1]", "[sf: ST:0]", "[PHR:0]"}));

    // Once initialised a call returns at once: no question, registration, init or thread.
    const size_t threads = threadCount();
    EXPECT_TRUE(pelyxInit(720, 1280));
    EXPECT_EQ(logs.countContaining(kTag, "[Pelyx Enable"), 1u);
    EXPECT_EQ(perfd_stub::countCalls("perf_callback_register"), 1u);
    EXPECT_EQ(logs.countContaining("Pelyx.LayerManager", "LayerManager initialized"), 1u);
    EXPECT_EQ(threadCount(), threads);
}

TEST(ApiStartup, RegisteredCallbackCarriesServiceHintsButTargetFpsStaysOff) {
    ASSERT_TRUE(pelyxInit(1080, 2400));
    EXPECT_FALSE(FeatureManager::getInstance()->isTfpsConfigured());
    ASSERT_EQ(perfd_stub::pushHint(4171, "com.game", 4500, 0, {}), 0);
    EXPECT_TRUE(FeatureManager::getInstance()->isTfpsConfigured());
    EXPECT_FALSE(pelyxIsTargetFpsActive()) << "the target-fps feature is off";
}

TEST(ApiStartup, TargetFpsActiveOnlyWhileConfigured) {
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    LogCapture logs;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[PHR:1]"), 1u) << "target fps wants headroom";
    EXPECT_TRUE(LayerManager::getInstance()->isSmartTouchEnabled());
    EXPECT_FALSE(pelyxIsTargetFpsActive());
    ASSERT_EQ(perfd_stub::pushHint(4171, "com.game", 6000, 0, {}), 0);
    EXPECT_TRUE(pelyxIsTargetFpsActive());
    ASSERT_EQ(perfd_stub::pushHint(4171, "com.game", 0, 0, {}), 0); // removes the entry
    EXPECT_FALSE(pelyxIsTargetFpsActive());
}

TEST(ApiStartup, SmartTouchPropertyStartsTheRegistryWithHeadroom) {
    platform::setProperty(kST, "1");
    LogCapture logs;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[sf: ST:1]"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[PHR:0]"), 1u);
    EXPECT_TRUE(pelyxSmartTouchEnabled());
    EXPECT_TRUE(LayerManager::getInstance()->isSmartTouchEnabled());
}

TEST(ApiStartup, QuickTouchKeepsHeadroomWhenSmartTouchGoesOff) {
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    LogCapture logs;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[PHR:1]"), 1u);
    EXPECT_FALSE(pelyxSmartTouchEnabled());
    LayerManager* lm = LayerManager::getInstance();
    EXPECT_TRUE(lm->isSmartTouchEnabled());
    onSTPropChanged(true);
    onSTPropChanged(false);
    EXPECT_FALSE(pelyxSmartTouchEnabled());
    EXPECT_TRUE(lm->isSmartTouchEnabled()) << "headroom stays wanted by quick touch";
}

// ---- The smart-touch property watcher ----

TEST(ApiSmartTouchWatcher, OneThenZeroSwitchesAndOtherTextsAreIgnored) {
    platform::setProperty(kTrace, "1");
    LogCapture logs;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    LayerManager* lm = LayerManager::getInstance();

    platform::setProperty(kST, "true"); // not "1": the watcher keeps waiting
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // room for a wrong wake-up
    EXPECT_FALSE(pelyxSmartTouchEnabled());
    platform::setProperty(kST, "1");
    ASSERT_TRUE(waitFor([&] { return pelyxSmartTouchEnabled() && lm->isSmartTouchEnabled(); }))
            << dump(logs);
    platform::setProperty(kST, "false"); // not "0"
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(pelyxSmartTouchEnabled());
    platform::setProperty(kST, "0");
    // The watcher sets the switch, logs, then tells the registry: wait for the last step.
    ASSERT_TRUE(waitFor([&] { return !pelyxSmartTouchEnabled() && !lm->isSmartTouchEnabled(); }));

    std::vector<std::string> changes;
    for (const std::string& line : linesOf(logs, kTag)) {
        if (line.rfind("[Prop Changed", 0) == 0) changes.push_back(line);
    }
    EXPECT_EQ(changes,
              (std::vector<std::string>{"[Prop Changed: ST: 1]", "[Prop Changed: ST: 0]"}));
}

TEST(ApiSmartTouchWatcher, UnblockForwardsOnlyWhileSmartTouchIsOn) {
    platform::setProperty(kTrace, "1");
    LogCapture logs;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    const std::string unblocked = "SurfaceFlinger: Smart touch debug: pelyxUnblockPendingBuffer";
    pelyxUnblockPendingBuffer();
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, unblocked), 0u);
    onSTPropChanged(true);
    pelyxUnblockPendingBuffer();
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, unblocked), 1u);
}

// ---- App-side start-up ----

TEST(ApiAppInit, ReadsTheSwitchesAndWatchesThem) {
    platform::setProperty(kST, "1");
    platform::setProperty(kSTM, "1");
    platform::setProperty(kTrace, "1");
    LogCapture logs;
    aPelyxAppInit();
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[App: ST:1, STM:1, STD:1]"), 1u);
    EXPECT_TRUE(pelyxSmartTouchEnabled());
    InGameTracker* const tracker = getInGameTracker();
    ASSERT_NE(tracker, nullptr);

    // A false move switch never destroys the tracker.
    platform::setProperty(kSTM, "0");
    ASSERT_TRUE(waitFor([&] { return logs.count(kTag, ANDROID_LOG_DEBUG, "[Prop Changed: STM: 0]") == 1; }));
    EXPECT_EQ(getInGameTracker(), tracker);

    platform::setProperty(kST, "0");
    // The switch goes off before the line is written: wait for the line.
    ASSERT_TRUE(waitFor([&] { return logs.count(kTag, ANDROID_LOG_DEBUG, "[Prop Changed: ST: 0]") == 1; }));
    EXPECT_FALSE(pelyxSmartTouchEnabled());
}

TEST(ApiAppInit, MoveSwitchedOnLaterCreatesOneTracker) {
    platform::setProperty(kTrace, "1");
    LogCapture logs;
    aPelyxAppInit();
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "[App: ST:0, STM:0, STD:1]"), 1u);
    EXPECT_EQ(getInGameTracker(), nullptr);

    auto changes = [&](const char* text) { return logs.count(kTag, ANDROID_LOG_DEBUG, text); };
    platform::setProperty(kSTM, "1");
    ASSERT_TRUE(waitFor([&] { return changes("[Prop Changed: STM: 1]") == 1; }));
    InGameTracker* const tracker = getInGameTracker();
    ASSERT_NE(tracker, nullptr);

    platform::setProperty(kSTM, "0");
    ASSERT_TRUE(waitFor([&] { return changes("[Prop Changed: STM: 0]") == 1; }));
    platform::setProperty(kSTM, "1");
    ASSERT_TRUE(waitFor([&] { return changes("[Prop Changed: STM: 1]") == 2; }));
    EXPECT_EQ(getInGameTracker(), tracker) << "an existing tracker is kept, not replaced";
}

TEST(ApiAppInit, SilentWithoutTraceAndARepeatStartsTheTrackerAfresh) {
    platform::setProperty(kSTM, "1");
    LogCapture logs;
    aPelyxAppInit();
    EXPECT_TRUE(linesOf(logs, kTag).empty());
    InGameTracker* const tracker = getInGameTracker();
    ASSERT_NE(tracker, nullptr);
    tracker->trackMoveEvent(1'000'000'000);
    tracker->queueBuffer(1'000'000'000);
    tracker->queueBuffer(2'100'000'000); // one frame in a second: a mode, an interval
    ASSERT_NE(tracker->getFrameInterval(), -1);
    // App threads may hold the pointer: a repeat keeps the object and resets what it measured.
    aPelyxAppInit();
    EXPECT_EQ(getInGameTracker(), tracker);
    EXPECT_EQ(tracker->getFrameInterval(), -1);
    EXPECT_EQ(tracker->getFpsMode(), -1);
    EXPECT_EQ(tracker->getTouchInterval(), InGameTracker::kInitialTouchInterval);
}

// ---- Forwarding to the layer registry ----

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
    EXPECT_FALSE(status->focused);
    EXPECT_FALSE(status->visible);
    EXPECT_EQ(layer->mBounds, Rect::INVALID_RECT);

    // A nameless buffer has no package: never tracked, never a crash.
    pelyxTrackBufferIncrement(nullptr, 9, false, 0, clock.now());
    pelyxTrackBufferDecrement(nullptr, 9, 0, nullptr, true, true);
    EXPECT_EQ(lm->getLayer(9), nullptr);
    EXPECT_EQ(lm->candidateCount(), 0u);
}

TEST(ApiForwarding, VsyncSignalRunsTheRegistryClockForCleanups) {
    ManualClock clock;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    LayerManager* lm = LayerManager::getInstance();
    pelyxTrackBufferIncrement(kGameLayer, kGameId, false, 0, clock.now());
    ASSERT_EQ(lm->candidateCount(), 1u);
    pelyxTrackVsyncSignal(); // starts the periodic-check window at the manual "now"
    clock.advance(2'100'000'000);
    pelyxTrackVsyncSignal(); // 2.1 s later: the silent candidate is dropped
    EXPECT_EQ(lm->candidateCount(), 0u);
}

// ---- GPU fences ----

namespace {

struct IoctlCall {
    int fd;
    unsigned long request;
};
std::mutex gIoctlMutex;
std::vector<IoctlCall> gIoctlCalls;

int fakeOpen(const char*, int) { return -1; }
int fakeClose(int) { return 0; }
int fakeIoctl(int fd, unsigned long request, void* arg) {
    {
        std::lock_guard<std::mutex> lock(gIoctlMutex);
        gIoctlCalls.push_back({fd, request});
    }
    if (request == SYNC_IOC_FILE_INFO) {
        auto* info = static_cast<sync_file_info*>(arg);
        strncpy(info->name, "mavu-timeline-3", sizeof(info->name) - 1);
    }
    return 0;
}
const platform::IoctlTable kFakeTable{fakeOpen, fakeIoctl, fakeClose};

std::vector<std::pair<int, unsigned long>> takeIoctlCalls() {
    std::lock_guard<std::mutex> lock(gIoctlMutex);
    std::vector<std::pair<int, unsigned long>> out;
    for (const IoctlCall& c : gIoctlCalls) out.emplace_back(c.fd, c.request);
    gIoctlCalls.clear();
    return out;
}

// A tracked 60 fps layer with one buffer queued 20 ms ago, beyond its minimum GPU time.
class ApiGpuFence : public testing::Test {
protected:
    void start() {
        ASSERT_TRUE(pelyxInit(1080, 2400));
        pelyxSetVsyncPeriod(kFrame60);
        playFrames(clock, kGameLayer, kGameId, 90, PelyxRect{0, 0, 1080, 2400});
        ASSERT_NE(LayerManager::getInstance()->getLayer(kGameId), nullptr);
        clock.advance(kFrame60);
        pelyxTrackBufferIncrement(kGameLayer, kGameId, false, 0, clock.now());
        clock.advance(20'000'000);
        platform::host::setIoctlTable(&kFakeTable);
        takeIoctlCalls();
    }
    void TearDown() override { platform::host::setIoctlTable(nullptr); }

    ManualClock clock;
};

using Calls = std::vector<std::pair<int, unsigned long>>;

} // namespace

TEST_F(ApiGpuFence, BadArgumentsAreRejectedAndGoodOnesReachTheFence) {
    perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "true");
    start();

    pelyxNotifyGpuFenceUnsignaled(-1, 5);
    pelyxNotifyGpuFenceUnsignaled(3, 0);
    pelyxNotifyGpuFenceUnsignaled(-1, kGameId);
    EXPECT_EQ(takeIoctlCalls(), Calls{});
    pelyxNotifyGpuFenceUnsignaled(3, kGameId);
    EXPECT_EQ(takeIoctlCalls(),
              (Calls{{3, SYNC_IOC_FILE_INFO}, {3, SYNC_IOC_SET_DEADLINE}}));

    // The two-step form: the origin is cached now, so only the deadline request remains.
    pelyxTrackLatchUnsignaledGpuFence(-1, kGameId);
    pelyxTrackLatchUnsignaledGpuFence(4, 0);
    pelyxFlushLatchUnsignaledGpuFences();
    EXPECT_EQ(takeIoctlCalls(), Calls{});
    pelyxTrackLatchUnsignaledGpuFence(4, kGameId);
    pelyxFlushLatchUnsignaledGpuFences();
    EXPECT_EQ(takeIoctlCalls(), (Calls{{4, SYNC_IOC_SET_DEADLINE}}));
}

TEST_F(ApiGpuFence, NothingReachesTheFenceWhileDetectionIsOff) {
    start();
    pelyxNotifyGpuFenceUnsignaled(3, kGameId);
    pelyxTrackLatchUnsignaledGpuFence(4, kGameId);
    pelyxFlushLatchUnsignaledGpuFences();
    EXPECT_EQ(takeIoctlCalls(), Calls{});
}
