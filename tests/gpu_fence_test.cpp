#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <future>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "PerfdControl.h"
#include "layers/GpuFence.h"
#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "platform/HostControl.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::ManualClock;

namespace {

constexpr const char* kTag = "Pelyx.LayerManager";
constexpr const char* kLayerName = "com.game/com.game.Main#1";
constexpr int32_t kLayerId = 7;
constexpr int32_t kPid = 4321;
constexpr int32_t kUid = 10123;
constexpr int64_t kVsync = 16'666'666;
constexpr int64_t kFrame = 16'670'000;
constexpr int64_t kMs = 1'000'000;

// Plays the kernel's side of sync-file descriptors: each known fd answers the info request with
// its scripted name (or a scripted failure); deadline requests are recorded and may be made to
// fail. A descriptor nobody scripted behaves like a closed one.
struct FenceScript {
    std::string name;
    int ret = 0;
    int err = 0;
};

struct FakeSyncFiles {
    std::mutex mutex;
    std::map<int, FenceScript> fences;
    int deadlineErr = 0;
    std::vector<int> infoQueries;
    std::vector<int> deadlines;
    bool nonZeroRecord = false;
    int unexpectedCalls = 0;
};

FakeSyncFiles& fake() {
    static FakeSyncFiles* sFake = new FakeSyncFiles();
    return *sFake;
}

bool allZero(const void* data, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    return std::all_of(bytes, bytes + size, [](unsigned char b) { return b == 0; });
}

int fakeIoctl(int fd, unsigned long request, void* arg) {
    FakeSyncFiles& f = fake();
    std::lock_guard<std::mutex> lock(f.mutex);
    if (request == SYNC_IOC_FILE_INFO) {
        auto* info = static_cast<struct sync_file_info*>(arg);
        if (!allZero(info, sizeof(*info))) f.nonZeroRecord = true;
        f.infoQueries.push_back(fd);
        auto it = f.fences.find(fd);
        if (it == f.fences.end()) {
            errno = EBADF;
            return -1;
        }
        if (it->second.ret != 0) {
            errno = it->second.err;
            return it->second.ret;
        }
        const std::string& name = it->second.name;
        memcpy(info->name, name.data(), std::min(name.size(), sizeof(info->name)));
        // The fence may have signalled meanwhile: the bytes after a full-length name are not 0.
        info->status = 1;
        return 0;
    }
    if (request == SYNC_IOC_SET_DEADLINE) {
        if (!allZero(arg, sizeof(struct sync_set_deadline))) f.nonZeroRecord = true;
        f.deadlines.push_back(fd);
        if (f.deadlineErr != 0) {
            errno = f.deadlineErr;
            return -1;
        }
        return 0;
    }
    f.unexpectedCalls++;
    errno = ENOTTY;
    return -1;
}

int fakeOpen(const char*, int) {
    std::lock_guard<std::mutex> lock(fake().mutex);
    fake().unexpectedCalls++;
    errno = ENOENT;
    return -1;
}

int fakeClose(int) {
    std::lock_guard<std::mutex> lock(fake().mutex);
    fake().unexpectedCalls++;
    return 0;
}

const platform::IoctlTable kFakeTable{fakeOpen, fakeIoctl, fakeClose};

void addFence(int fd, const std::string& name) {
    std::lock_guard<std::mutex> lock(fake().mutex);
    fake().fences[fd] = FenceScript{name, 0, 0};
}

void failFenceInfo(int fd, int ret, int err) {
    std::lock_guard<std::mutex> lock(fake().mutex);
    fake().fences[fd] = FenceScript{"", ret, err};
}

void failDeadlines(int err) {
    std::lock_guard<std::mutex> lock(fake().mutex);
    fake().deadlineErr = err;
}

std::vector<int> infoQueries() {
    std::lock_guard<std::mutex> lock(fake().mutex);
    return fake().infoQueries;
}

std::vector<int> deadlines() {
    std::lock_guard<std::mutex> lock(fake().mutex);
    return fake().deadlines;
}

size_t countOf(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size())) {
        n++;
    }
    return n;
}

std::string originLine(const std::string& origin, const std::string& fenceName) {
    return "[GPU JANK DETECTION] fence origin: " + origin + ", layerId=7 [" + kLayerName +
            "] fence_name=" + fenceName;
}

const std::string kSendTrace = std::string("[GPU JANK DETECTION] send IOCTL [") + kLayerName + "]";
const std::string kSkipTrace =
        std::string("[GPU JANK DETECTION] skip IOCTL: insufficient GPU exec time [") + kLayerName +
        "]";

class GpuFenceTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::host::setIoctlTable(&kFakeTable);
        // Traces need the debug switch (read when the configuration is created) and a trace file.
        perfd_stub::setProp("vendor.perf.pelyx.debug", "true");
        mTracePath = ::testing::TempDir() + "gpu_fence_" + std::to_string(getpid()) + ".json";
        ASSERT_TRUE(platform::host::traceOpen(mTracePath));
    }

    void TearDown() override {
        platform::host::traceClose();
        unlink(mTracePath.c_str());
        platform::host::setIoctlTable(nullptr);
    }

    // Starts the registry with the detection switch as given and promotes the game layer, then
    // latches everything so no buffer is queued.
    void start(bool detect, const char* mult = nullptr) {
        if (detect) perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "true");
        if (mult) perfd_stub::setProp("vendor.perf.gpu_jank_filter.min_exec_time_mult", mult);
        lm()->init(false, 1080, 2400);
        lm()->setVsyncPeriod(kVsync);
        for (int i = 0; i < 40; i++) queueAt(mClock.now() + kFrame);
        mLayer = lm()->getLayer(kLayerId);
        ASSERT_NE(mLayer, nullptr);
        latch();
        drainBoostThread();
        ASSERT_TRUE(mLayer->mQueueTimes.empty());
        ASSERT_EQ(mLayer->mFenceOrigin.load(), kFenceOriginUnknown);
    }

    LayerManager* lm() { return LayerManager::getInstance(); }

    void queueAt(int64_t t) {
        mClock.set(t);
        lm()->onBufferIncrement(kLayerName, kLayerId, kPid, kUid, t, false, 0);
    }

    // Latches every queued buffer (the compositor's count is trusted 2 ms after the last queue).
    void latch() {
        mClock.advance(3 * kMs);
        lm()->onBufferDecrement(kLayerName, kLayerId, 0, Rect{0, 0, 1080, 2400}, true, true);
    }

    // Waits until tasks posted so far (app classification) have run, so the test may then touch
    // layer fields on its own thread.
    void drainBoostThread() {
        auto done = std::make_shared<std::promise<void>>();
        std::future<void> ran = done->get_future();
        if (PerfProxy::getInstance()->postTask([done] { done->set_value(); }) == 0) return;
        ASSERT_EQ(ran.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }

    std::string traceText() {
        platform::host::traceClose();
        std::ifstream in(mTracePath);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    ManualClock mClock;
    LogCapture mLogs;
    sp<LayerInfo> mLayer;
    std::string mTracePath;
};

// ---- Threshold ----

TEST_F(GpuFenceTest, ThresholdIsOneVsyncPeriodWhileTheRateIsUnknown) {
    start(false);
    addFence(40, "mavu-timeline_12");
    const int64_t t = mClock.now() + kMs;
    queueAt(t);
    ASSERT_EQ(mLayer->mFps, 0.0f);

    mClock.set(t + kVsync - 1);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    EXPECT_TRUE(deadlines().empty());
    mClock.set(t + kVsync);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    EXPECT_EQ(deadlines(), std::vector<int>{40});

    const std::string trace = traceText();
    EXPECT_EQ(countOf(trace, kSkipTrace), 1u);
    EXPECT_EQ(countOf(trace, kSendTrace), 1u);
    EXPECT_LT(trace.find(kSkipTrace), trace.find(kSendTrace));
    EXPECT_FALSE(fake().nonZeroRecord);
}

TEST_F(GpuFenceTest, ThresholdFollowsTheLayerRate) {
    start(false);
    addFence(40, "mavu-timeline_12");
    const int64_t t = mClock.now() + kMs;
    queueAt(t);
    mLayer->mFps = 90.0f; // 1e9 / 90 in single precision truncates to 11,111,111

    mClock.set(t + 11'111'110);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    EXPECT_TRUE(deadlines().empty());
    mClock.set(t + 11'111'111);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    EXPECT_EQ(deadlines(), std::vector<int>{40});
}

TEST_F(GpuFenceTest, ThresholdScalesWithTheConfiguredMultiplier) {
    start(true, "0.5");
    addFence(40, "mavu-timeline_12");
    const int64_t t = mClock.now() + kMs;
    queueAt(t);

    mClock.set(t + 8'333'332);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_TRUE(deadlines().empty());

    mClock.set(t + 8'333'333);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(deadlines(), (std::vector<int>{40, 40}));
}

TEST_F(GpuFenceTest, HugeMultiplierNeverSends) {
    start(true, "1e30");
    addFence(40, "mavu-timeline_12");
    const int64_t t = mClock.now() + kMs;
    queueAt(t);
    mClock.set(t + 3'600'000 * kMs);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_TRUE(deadlines().empty());
    EXPECT_EQ(countOf(traceText(), kSkipTrace), 2u);
}

TEST_F(GpuFenceTest, NothingIsSentWithoutAVsyncPeriodOrAQueuedBuffer) {
    start(true);
    addFence(40, "mavu-timeline_12");

    // No buffer queued: the oldest queue time counts as 0.
    mClock.advance(1000 * kMs);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_TRUE(deadlines().empty());
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);

    lm()->setVsyncPeriod(0);
    queueAt(mClock.now() + kMs);
    mClock.advance(1000 * kMs);
    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_TRUE(deadlines().empty());
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    EXPECT_EQ(countOf(traceText(), kSkipTrace), 0u);
}

// ---- Fence origin ----

TEST_F(GpuFenceTest, DriverTimelineFenceIsSentAndCached) {
    start(false);
    addFence(40, "mavu-timeline_12");
    addFence(41, "some-other-timeline");
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);

    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    EXPECT_EQ(infoQueries(), std::vector<int>{40});
    EXPECT_EQ(mLayer->mFenceOrigin.load(), kFenceOriginGpu);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_INFO, originLine("mavu (cached)", "mavu-timeline_12")),
              1u);

    // The cache answers for the next fence of the layer, whatever its name.
    lm()->notifyGpuFenceUnsignaled(41, kLayerId);
    EXPECT_EQ(infoQueries(), std::vector<int>{40});
    EXPECT_EQ(deadlines(), (std::vector<int>{40, 41}));
    EXPECT_EQ(mLogs.countContaining(kTag, "fence origin"), 1u);
    EXPECT_FALSE(fake().nonZeroRecord);
}

TEST_F(GpuFenceTest, OnlyANamePrefixCountsAsTheDriverTimeline) {
    start(true);
    addFence(40, "gpu:mavu-timeline_12");
    addFence(41, "mavu-timeline_13");
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);

    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    EXPECT_EQ(mLayer->mFenceOrigin.load(), kFenceOriginOther);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_INFO,
                          originLine("non-mavu (cached)", "gpu:mavu-timeline_12")),
              1u);

    // Cached as other: never queried or sent again, on either path.
    lm()->notifyGpuFenceUnsignaled(41, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(41, kLayerId);
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(infoQueries(), std::vector<int>{40});
    EXPECT_TRUE(deadlines().empty());
    EXPECT_EQ(countOf(traceText(), "[GPU JANK DETECTION]"), 0u);
}

TEST_F(GpuFenceTest, DetachedFenceIsTreatedAsGpuAndAskedAboutEveryTime) {
    start(false);
    addFence(50, "detached");
    addFence(51, "detached-fence");
    addFence(52, "mavu-timeline_1");
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);

    lm()->notifyGpuFenceUnsignaled(50, kLayerId);
    lm()->notifyGpuFenceUnsignaled(51, kLayerId);
    EXPECT_EQ(mLayer->mFenceOrigin.load(), kFenceOriginUnknown);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_INFO, originLine("detached (not cached)", "detached")),
              1u);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_INFO,
                          originLine("detached (not cached)", "detached-fence")),
              1u);

    // A later fence still gets its origin learned.
    lm()->notifyGpuFenceUnsignaled(52, kLayerId);
    EXPECT_EQ(mLayer->mFenceOrigin.load(), kFenceOriginGpu);
    EXPECT_EQ(infoQueries(), (std::vector<int>{50, 51, 52}));
    EXPECT_EQ(deadlines(), (std::vector<int>{50, 51, 52}));
}

TEST_F(GpuFenceTest, FailedInfoQueryCountsAsGpuWithoutCaching) {
    start(false);
    failFenceInfo(60, -1, EBADF);
    failFenceInfo(61, 1, 0); // any non-zero answer is a failure
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);

    lm()->notifyGpuFenceUnsignaled(60, kLayerId);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_ERROR,
                          "[GPU JANK DETECTION] SYNC_IOC_FILE_INFO failed, ret=-1, fd=60, errno=9"),
              1u);
    EXPECT_EQ(mLayer->mFenceOrigin.load(), kFenceOriginUnknown);

    lm()->notifyGpuFenceUnsignaled(61, kLayerId);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_ERROR,
                          "[GPU JANK DETECTION] SYNC_IOC_FILE_INFO failed, ret=1, fd=61, errno=0"),
              1u);
    EXPECT_EQ(mLayer->mFenceOrigin.load(), kFenceOriginUnknown);
    EXPECT_EQ(infoQueries(), (std::vector<int>{60, 61}));
    EXPECT_EQ(deadlines(), (std::vector<int>{60, 61}));
    EXPECT_EQ(mLogs.countContaining(kTag, "fence origin"), 0u);
}

TEST_F(GpuFenceTest, FullLengthFenceNameIsBoundedToItsField) {
    start(false);
    const std::string name = "mavu-timeline_0123456789abcdefgh"; // exactly 32 bytes, no NUL
    ASSERT_EQ(name.size(), sizeof(sync_file_info{}.name));
    addFence(40, name);
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);

    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_INFO, originLine("mavu (cached)", name)), 1u);
    EXPECT_EQ(deadlines(), std::vector<int>{40});
}

// ---- Recording and flushing ----

TEST_F(GpuFenceTest, RecordedFenceIsSentByTheNextFlushOnly) {
    start(true);
    addFence(80, "mavu-timeline_1");
    addFence(81, "mavu-timeline_1");
    addFence(82, "mavu-timeline_1");
    const int64_t t = mClock.now() + kMs;
    queueAt(t);
    queueAt(t + 5 * kMs); // the oldest queued buffer sets the time

    mClock.set(t + 10 * kMs);
    lm()->trackLatchUnsignaledGpuFence(81, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(82, kLayerId); // overwrites the first record
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, 82);
    EXPECT_EQ(mLayer->mPendingLatchFenceTime, t);
    EXPECT_TRUE(deadlines().empty());

    mClock.set(t + kVsync);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(deadlines(), std::vector<int>{82});
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    EXPECT_EQ(mLayer->mPendingLatchFenceTime, 0);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(deadlines(), std::vector<int>{82});

    // Too early: the record is dropped with a skip trace, and a later flush has nothing left.
    latch();
    const int64_t t2 = mClock.now() + kMs;
    queueAt(t2);
    lm()->trackLatchUnsignaledGpuFence(80, kLayerId);
    EXPECT_EQ(mLayer->mPendingLatchFenceTime, t2);
    mClock.set(t2 + kVsync - 1);
    lm()->flushLatchUnsignaledGpuFences();
    mClock.advance(1000 * kMs);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(deadlines(), std::vector<int>{82});
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);

    const std::string trace = traceText();
    EXPECT_EQ(countOf(trace, kSendTrace), 1u);
    EXPECT_EQ(countOf(trace, kSkipTrace), 1u);
    EXPECT_FALSE(fake().nonZeroRecord);
}

TEST_F(GpuFenceTest, LatchOrImmediateNotificationDropsTheRecord) {
    start(true);
    addFence(70, "mavu-timeline_1");
    addFence(71, "mavu-timeline_1");
    queueAt(mClock.now() + kMs);
    queueAt(mClock.now() + kMs);

    lm()->trackLatchUnsignaledGpuFence(70, kLayerId);
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, 70);
    lm()->onBufferDecrement(kLayerName, kLayerId, 1, Rect{0, 0, 1080, 2400}, true, true);
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    EXPECT_EQ(mLayer->mPendingLatchFenceTime, 0);

    lm()->trackLatchUnsignaledGpuFence(70, kLayerId);
    mClock.advance(100 * kMs);
    lm()->notifyGpuFenceUnsignaled(71, kLayerId);
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(deadlines(), std::vector<int>{71});
}

TEST_F(GpuFenceTest, SwitchedOffNothingIsRecordedAndAFlushOnlyClears) {
    start(false);
    addFence(80, "mavu-timeline_1");
    const int64_t t = mClock.now() + kMs;
    queueAt(t);
    mClock.advance(100 * kMs);

    lm()->trackLatchUnsignaledGpuFence(80, kLayerId);
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    EXPECT_TRUE(infoQueries().empty());

    // A record left from before the switch went off.
    mLayer->mPendingLatchFenceFd = 80;
    mLayer->mPendingLatchFenceTime = t;
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    EXPECT_EQ(mLayer->mPendingLatchFenceTime, 0);
    EXPECT_TRUE(deadlines().empty());
    EXPECT_EQ(countOf(traceText(), "[GPU JANK DETECTION]"), 0u);
}

TEST_F(GpuFenceTest, FailedDeadlineRequestIsLoggedOnBothPaths) {
    start(true);
    addFence(40, "mavu-timeline_1");
    addFence(41, "mavu-timeline_1");
    failDeadlines(ENOTTY);
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);

    lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    lm()->trackLatchUnsignaledGpuFence(41, kLayerId);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(deadlines(), (std::vector<int>{40, 41}));
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_ERROR,
                          "[GPU JANK DETECTION] IOCTL failed, ret=-1, fd=40, errno=25"),
              1u);
    EXPECT_EQ(mLogs.count(kTag, ANDROID_LOG_ERROR,
                          "[GPU JANK DETECTION] IOCTL failed, ret=-1, fd=41, errno=25"),
              1u);
}

TEST_F(GpuFenceTest, UnknownLayerIsIgnored) {
    start(true);
    addFence(40, "mavu-timeline_1");
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);

    lm()->notifyGpuFenceUnsignaled(40, 99);
    lm()->trackLatchUnsignaledGpuFence(40, 99);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_TRUE(infoQueries().empty());
    EXPECT_TRUE(deadlines().empty());
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    EXPECT_EQ(fake().unexpectedCalls, 0);
}

// Fence events race buffer events from other compositor threads; the sanitizer builds check
// that fields are only touched under the registry mutex (or atomically, for the origin cache).
TEST_F(GpuFenceTest, FenceEventsRaceBufferEvents) {
    start(true);
    addFence(40, "detached");
    addFence(41, "mavu-timeline_1");
    std::atomic<bool> stop{false};
    std::thread buffers([&] {
        for (int i = 0; i < 2000; i++) {
            mClock.advance(kMs);
            lm()->onBufferIncrement(kLayerName, kLayerId, kPid, kUid, mClock.now(), false, 0);
            lm()->onBufferDecrement(kLayerName, kLayerId, 0, Rect{0, 0, 1080, 2400}, true, true);
        }
        stop.store(true);
    });
    std::thread tracker([&] {
        while (!stop.load()) {
            lm()->trackLatchUnsignaledGpuFence(41, kLayerId);
            lm()->flushLatchUnsignaledGpuFences();
        }
    });
    while (!stop.load()) lm()->notifyGpuFenceUnsignaled(40, kLayerId);
    buffers.join();
    tracker.join();
    // The detached fence never settles the origin; only the driver's fence may have.
    EXPECT_NE(mLayer->mFenceOrigin.load(), kFenceOriginOther);
    for (int fd : infoQueries()) EXPECT_TRUE(fd == 40 || fd == 41) << fd;
    for (int fd : deadlines()) EXPECT_TRUE(fd == 40 || fd == 41) << fd;
    EXPECT_EQ(fake().unexpectedCalls, 0);
}

} // namespace
