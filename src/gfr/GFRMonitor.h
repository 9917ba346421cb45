#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Looper.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "config/GfrTunables.h"
#include "gfr/LayerGFRState.h"
#include "platform/Thread.h"
#include "timer/TimerQueue.h"

namespace android {

// Game frame rescue: watches the frame in flight of every registered game layer. When a queued
// frame is not replaced within the layer's jank thresholds (multiples of its frame period), each
// threshold sends an escalating boost through PerfProxy::frameHint; the next frame begin
// withdraws it. Checks run on a private TimerQueue driven by the "BLT" thread.
//
// Threading: compositor threads (through LayerManager, possibly holding the registry mutex) call
// every public method; checks run on "BLT". Each public method takes the monitor mutex and
// never calls back into LayerManager. Lock order: lifecycle lock (init/forceStop), monitor
// mutex, the queue's mutex, then whatever frameHint takes; a check sends its hint under the
// monitor mutex so that it is serialised with the layer's frame begin. No method blocks beyond
// these locks, except forceStop, which joins "BLT".
//
// Lifetime: a process-wide singleton, never destroyed. The queue survives forceStop (checks may
// still be posted to it, but nothing polls it) and is replaced by the next init.
class GFRMonitor {
public:
    // One scheduled check of a layer's frame. Holds the monitor by plain pointer: the monitor
    // lives for the process. Posted with message code 0, which it ignores.
    class GFRHandler : public MessageHandler {
    public:
        GFRHandler(GFRMonitor* monitor, int32_t layerId, int32_t level, int64_t frameToken)
              : mMonitor(monitor), mLayerId(layerId), mLevel(level), mFrameToken(frameToken) {}
        // Runs the check under the monitor mutex; a check whose layer is gone or whose frame
        // was replaced does nothing.
        void handleMessage(const Message& message) override;

    private:
        GFRMonitor* const mMonitor;
        const int32_t mLayerId;
        const int32_t mLevel; // 0 for the first threshold
        const int64_t mFrameToken;
    };

    static GFRMonitor& getInstance();

    // Creates a fresh queue (dropping any previous one) and starts "BLT". False, with no queue
    // left, when the queue or the thread cannot be created. Already running: true, unchanged.
    bool init() EXCLUDES(mLifecycleLock, mMutex);
    // Stops and joins "BLT" and forgets every layer; a no-op unless running. The queue is kept.
    void forceStop() EXCLUDES(mLifecycleLock, mMutex);
    bool isRunning() const { return mRunning.load(); }

    // Creates (or replaces) the layer's state, inactive, with the package's tunables or the
    // defaults. Reads FeatureManager before taking the monitor mutex.
    void registerLayer(int32_t layerId, const std::string& layerName,
                       const std::string& packageName) EXCLUDES(mMutex);
    void unregisterLayer(int32_t layerId) EXCLUDES(mMutex);
    // An inactive layer ignores frames; switching off cancels its pending check.
    void setGFRActive(int32_t layerId, bool active) EXCLUDES(mMutex);
    // Stores the period only; layers pick it up at their next frame begin. The mode is unused.
    void setVsyncInfo(int64_t vsyncPeriodNs, int32_t vsyncMode) EXCLUDES(mMutex);
    void updateLayerTunables(int32_t layerId, const GfrTunables& tunables) EXCLUDES(mMutex);

    // A new frame of the layer is being queued: cancels the previous frame's check and
    // withdraws its boost. Times in ns; frameStart becomes the frame token.
    void onQueueBegin(int32_t layerId, int64_t frameStart, int64_t frameTime,
                      int64_t jankHeadroom) EXCLUDES(mMutex);
    // The buffer is queued (queueEndTime: monotonic ns): schedules the first check. fps is the
    // layer's paced rate, 0 when none.
    void onQueueEnd(int32_t layerId, int64_t queueEndTime, float fps) EXCLUDES(mMutex);
    // Records the frames dropped since the layer's previous frame (10 or more reset the window).
    void updateFrameDropWindow(int32_t layerId, int32_t droppedFrames) EXCLUDES(mMutex);

private:
    friend class GFRMonitorTestPeer;

    GFRMonitor() = default;
    GFRMonitor(const GFRMonitor&) = delete;
    GFRMonitor& operator=(const GFRMonitor&) = delete;

    void monitorThreadMain() EXCLUDES(mMutex);
    // The body of a GFRHandler, on "BLT".
    void runCheck(int32_t layerId, int32_t level, int64_t frameToken) EXCLUDES(mMutex);

    // Recomputes the period-derived times; without force only when the period changed.
    void checkAndUpdateCacheLocked(LayerGFRState& state, int64_t vsyncPeriod, float fps,
                                   bool force) REQUIRES(mMutex);
    // Absolute time the check of `level` is due, `now` being the time it is scheduled.
    static int64_t computeCheckTime(const LayerGFRState& state, int32_t level, int64_t now);
    void scheduleNextCheckLocked(int32_t layerId, LayerGFRState& state, int64_t frameToken,
                                 int32_t level) REQUIRES(mMutex);
    void cancelPendingChecksLocked(LayerGFRState& state) REQUIRES(mMutex);
    // Withdraws the boost of the frame before (level 0), when the rules call for it.
    void sendFrameHintLocked(LayerGFRState& state) REQUIRES(mMutex);

    // Boost frequency of a dynamic-mode check; reads the clock for the time to deadline.
    int32_t calculateBoostFrequencyOnWakeupLocked(LayerGFRState& state, int32_t level,
                                                  int32_t baseFreq) REQUIRES(mMutex);
    int32_t calculateFrequencyByTTDLocked(LayerGFRState& state, int64_t ttd, int32_t baseFreq)
            REQUIRES(mMutex);
    int32_t enhancedFreqByFrameDropWindowLocked(LayerGFRState& state, int32_t freq)
            REQUIRES(mMutex);

    // Serialises init and forceStop; taken before mMutex, never by a check.
    Mutex mLifecycleLock ACQUIRED_BEFORE(mMutex);
    platform::Thread mThread GUARDED_BY(mLifecycleLock);

    Mutex mMutex;
    std::map<int32_t, sp<LayerGFRState>> mLayers GUARDED_BY(mMutex);
    sp<TimerQueue> mQueue GUARDED_BY(mMutex);
    std::atomic<bool> mRunning{false};
    int64_t mVsyncPeriod GUARDED_BY(mMutex) = 0;
};

} // namespace android
