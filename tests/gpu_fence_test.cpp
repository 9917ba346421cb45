#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <future>

#include "PerfdControl.h"
#include "layers/GpuFence.h"
#include "layers/LayerManager.h"
#include "pelyx/pelyx.h"
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
constexpr int64_t kVsync = 16'666'666;
constexpr int64_t kMs = 1'000'000;

// The kernel's side of sync files: every fence answers with the scripted name or failure;
// requests are recorded, and both records must go out zeroed.
struct FakeSyncFiles {
    std::mutex mutex;
    std::string name;
    int ret = 0, err = 0;
    std::vector<int> queries, deadlines;
    bool nonZeroRecord = false;
} gFake;

int fakeIoctl(int fd, unsigned long request, void* arg) {
    std::lock_guard<std::mutex> lock(gFake.mutex);
    const bool info = request == SYNC_IOC_FILE_INFO;
    const auto* bytes = static_cast<const unsigned char*>(arg);
    const size_t size = info ? sizeof(sync_file_info) : sizeof(sync_set_deadline);
    gFake.nonZeroRecord |= std::any_of(bytes, bytes + size, [](unsigned char b) { return b; });
    (info ? gFake.queries : gFake.deadlines).push_back(fd);
    if (!info) return 0;
    errno = gFake.err;
    if (gFake.ret != 0) return gFake.ret;
    auto* record = static_cast<sync_file_info*>(arg);
    memcpy(record->name, gFake.name.data(), std::min(gFake.name.size(), sizeof(record->name)));
    record->status = 1; // the bytes after a full-length name are not 0
    return 0;
}
const platform::IoctlTable kFakeTable{[](const char*, int) { return -1; }, fakeIoctl,
                                      [](int) { return 0; }};

void script(const std::string& name, int ret = 0, int err = 0) {
    std::lock_guard<std::mutex> lock(gFake.mutex);
    gFake.name = name;
    gFake.ret = ret;
    gFake.err = err;
}
// The calls recorded since the last take.
std::vector<int> take(std::vector<int>& calls) {
    std::lock_guard<std::mutex> lock(gFake.mutex);
    return std::exchange(calls, {});
}

class GpuFenceTest : public ::testing::Test {
protected:
    void SetUp() override { platform::host::setIoctlTable(&kFakeTable); }
    void TearDown() override { platform::host::setIoctlTable(nullptr); }

    // Starts the registry, promotes the game layer and latches every buffer.
    void start(bool detect, const char* mult = nullptr) {
        if (detect) perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "true");
        if (mult) perfd_stub::setProp("vendor.perf.gpu_jank_filter.min_exec_time_mult", mult);
        ASSERT_TRUE(pelyxInit(1080, 2400));
        lm()->setVsyncPeriod(kVsync);
        for (int i = 0; i < 40; i++) queueAt(mClock.now() + 16'670'000);
        mLayer = lm()->getLayer(kLayerId);
        ASSERT_NE(mLayer, nullptr);
        latch();
        // The app classification posted so far runs before the test touches the layer.
        std::promise<void> done;
        if (PerfProxy::getInstance()->postTask([&done] { done.set_value(); })) {
            done.get_future().wait();
        }
        ASSERT_TRUE(mLayer->mQueueTimes.empty());
    }
    LayerManager* lm() { return LayerManager::getInstance(); }
    void queueAt(int64_t t) {
        mClock.set(t);
        lm()->onBufferIncrement(kLayerName, kLayerId, 4321, 10123, t, false, 0);
    }
    void latch() {
        mClock.advance(3 * kMs); // the compositor's count is trusted 2 ms after the last queue
        lm()->onBufferDecrement(kLayerName, kLayerId, 0, Rect{0, 0, 1080, 2400}, true, true);
    }
    void notify(int fd) { lm()->notifyGpuFenceUnsignaled(fd, kLayerId); }

    ManualClock mClock;
    LogCapture mLogs;
    sp<LayerInfo> mLayer;
};

// A fence gets a deadline once its buffer has waited one frame: the layer's own period, else
// the vsync period. No vsync period, or the detection switched off, sends nothing.
TEST_F(GpuFenceTest, ThresholdIsTheLayerPeriodOrTheVsyncPeriod) {
    start(false);
    script("mavu-timeline_12");
    notify(40); // no queued buffer: nothing to measure
    lm()->notifyGpuFenceUnsignaled(40, 99);
    EXPECT_TRUE(take(gFake.queries).empty());

    // 1e9 / 90 in single precision truncates to 11,111,111.
    for (const auto& [fps, threshold] : {std::pair<float, int64_t>{0.0f, kVsync}, {90.0f, 11'111'111}}) {
        const int64_t t = mClock.now() + kMs;
        queueAt(t);
        mLayer->mFps = fps;
        mClock.set(t + threshold - 1);
        notify(40);
        EXPECT_TRUE(take(gFake.deadlines).empty()) << fps;
        mClock.set(t + threshold);
        notify(40);
        EXPECT_EQ(take(gFake.deadlines), std::vector<int>{40}) << fps;
        latch();
    }
    lm()->setVsyncPeriod(0);
    queueAt(mClock.now() + kMs);
    mClock.advance(1000 * kMs);
    notify(40);
    lm()->setVsyncPeriod(kVsync);
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId); // switched off: not recorded
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    mLayer->mPendingLatchFenceFd = 40; // a record left from before is only cleared
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(mLayer->mPendingLatchFenceFd, -1);
    EXPECT_TRUE(take(gFake.deadlines).empty());
    EXPECT_FALSE(gFake.nonZeroRecord);
}

// The multiplier scales the threshold on the notify path and on the latch path alike.
TEST_F(GpuFenceTest, AMultiplierScalesTheThresholdOnBothPaths) {
    start(true, "0.5");
    script("mavu-timeline_12");
    const int64_t t = mClock.now() + kMs;
    queueAt(t);
    for (int64_t waited : {int64_t{8'333'332}, int64_t{8'333'333}}) {
        mClock.set(t + waited);
        for (int fd : {0, -1}) { // 0 is a descriptor like any other; below 0 is none
            pelyxNotifyGpuFenceUnsignaled(fd, kLayerId);
            pelyxTrackLatchUnsignaledGpuFence(fd, kLayerId);
        }
        lm()->flushLatchUnsignaledGpuFences();
    }
    // A recorded fence is sent once: a notify of its layer or its buffer's latch settles it.
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    notify(41);
    lm()->flushLatchUnsignaledGpuFences();
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    latch();
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_EQ(take(gFake.deadlines), (std::vector<int>{0, 0, 41}));
    // Without a period there is no threshold, on the latch path too.
    lm()->setVsyncPeriod(0);
    queueAt(mClock.now() + kMs);
    mClock.advance(1000 * kMs);
    lm()->trackLatchUnsignaledGpuFence(40, kLayerId);
    lm()->flushLatchUnsignaledGpuFences();
    EXPECT_TRUE(take(gFake.deadlines).empty());
}

// The driver's timeline name marks a GPU fence; any other name but a detached one marks a
// fence to leave alone. Known origins are cached; a failed query counts as GPU, uncached.
TEST_F(GpuFenceTest, FenceOriginDecidesAndIsCachedOnlyWhenKnown) {
    start(false);
    queueAt(mClock.now() + kMs);
    mClock.advance(20 * kMs);
    const struct {
        std::string name;
        int ret, err;
        uint8_t cached;
        std::string line; // logged for each query
    } rows[] = {
            {"mavu-timeline_12", 0, 0, kFenceOriginGpu, "mavu (cached)"},
            {"mavu-timeline_0123456789abcdefgh", 0, 0, kFenceOriginGpu, "mavu (cached)"}, // no NUL
            {"gpu:mavu-timeline_12", 0, 0, kFenceOriginOther, "non-mavu (cached)"},
            {"detached-fence", 0, 0, kFenceOriginUnknown, "detached (not cached)"},
            {"", -1, EBADF, kFenceOriginUnknown, "ret=-1, fd=40, errno=9"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name + row.line);
        mLayer->mFenceOrigin.store(kFenceOriginUnknown);
        mLogs.clear();
        script(row.name, row.ret, row.err);
        notify(40);
        notify(40);
        const size_t queried = take(gFake.queries).size();
        EXPECT_EQ(queried, row.cached == kFenceOriginUnknown ? 2u : 1u);
        EXPECT_EQ(take(gFake.deadlines).size(), row.cached == kFenceOriginOther ? 0u : 2u);
        EXPECT_EQ(mLayer->mFenceOrigin.load(), row.cached);
        const std::string line = row.ret != 0
                ? "[GPU JANK DETECTION] SYNC_IOC_FILE_INFO failed, " + row.line
                : "[GPU JANK DETECTION] fence origin: " + row.line + ", layerId=7 [" + kLayerName +
                        "] fence_name=" + row.name;
        EXPECT_EQ(mLogs.count(kTag, row.ret != 0 ? ANDROID_LOG_ERROR : ANDROID_LOG_INFO, line),
                  queried);
    }
}

} // namespace
