#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "phr/LayerPHRState.h"
#include "platform/Condition.h"
#include "platform/Thread.h"

namespace android {

// Pre-present headroom (PHR). For each registered layer the monitor keeps a headroom target: how
// far ahead of its expected presentation a buffer may be queued. While quick touch is on for a
// layer (one layer at a time), a queue thread whose buffer is earlier than that is held inside
// onBufferIncrement until the "PHR" worker releases it at a vsync-aligned point, a release call
// arrives, or a bounded time-out passes. Target-fps pacing puts the queue thread to sleep until
// the frame's deadline instead.
//
// Threads: compositor threads call the buffer, latch and vsync methods and the switches (the
// layer manager may hold its registry mutex while calling any method here); the worker "PHR"
// follows the quick-touch layer's vsyncs. Nothing here calls back into the layer manager.
//
// Blocking: only onBufferIncrement blocks, and never with a lock of this monitor held. Each wait
// of a hold is bounded (LayerPHRState::kMaxWaitNs); the pacing sleep is not: it lasts until the
// frame's deadline, and only a signal ends it early. unregisterLayer, registerLayer over an
// existing id, forceStop and process exit release a held thread at once; switching quick touch
// off releases nobody, so a held thread waits out its time-out.
//
// Locks: mQuickTouchLock (quick-touch ownership and layer membership) may be held while taking
// mLayersLock; mLayersLock is held only to find a state and take an sp<> to it; a state's own
// locks are taken with neither held. mThreadLock is taken alone.
//
// The singleton is created on first use and never destroyed; it stops itself at process exit.
class PHRMonitor {
public:
    static PHRMonitor* getInstance();

    // Starts the worker (a no-op returning true while it runs) after copying the configuration
    // from FeatureManager. False, with the monitor stopped, when the thread cannot be created.
    bool init() EXCLUDES(mStartLock, mThreadLock);
    // Stops and joins the worker and drops every layer, releasing held queue threads.
    // Does nothing unless running.
    void forceStop() EXCLUDES(mStartLock, mThreadLock, mQuickTouchLock, mLayersLock);

    // Adds (or replaces) a layer and derives its headroom from the rates.
    void registerLayer(int32_t layerId, const std::string& name, float phrMinRate,
                       float highFpsPhrMinRate) EXCLUDES(mQuickTouchLock, mLayersLock);
    // Removes a layer; a queue thread held on it returns at once, one pacing on it sleeps on.
    void unregisterLayer(int32_t layerId) EXCLUDES(mQuickTouchLock, mLayersLock);
    sp<LayerPHRState> getLayerState(int32_t layerId) const EXCLUDES(mLayersLock);

    // A new display period (ns) and its fps; the same period again is ignored, fps included.
    // Any other period is stored as it is, 0 and negative ones included.
    void setVsyncInfo(int64_t periodNs, int32_t fps) EXCLUDES(mLayersLock);
    // A vsync: wakes the worker when a layer has quick touch. Never blocks beyond short locks.
    void onVsync(int64_t timestamp) EXCLUDES(mLayersLock, mThreadLock);
    // The queue path. May block the calling thread: a hold (bounded) or target-fps pacing.
    void onBufferIncrement(int32_t layerId, int64_t frameTimeNs, int64_t queueTimeNs,
                           bool instant) EXCLUDES(mLayersLock);
    // The latch path: backlog and jank bookkeeping that switches quick touch on and off.
    void onBufferDecrement(int32_t layerId, int32_t bufferCount, int64_t latchTimeNs)
            EXCLUDES(mQuickTouchLock, mLayersLock);
    // Releases a held buffer of the layer at once. Never blocks.
    void unblockBuffer(int32_t layerId) EXCLUDES(mLayersLock);

    // ---- Headroom ----
    // Negative rates leave that rate unchanged; recomputes base, max and current headroom.
    void updateHeadRoom(int32_t layerId, float phrMinRate, float highFpsPhrMinRate)
            EXCLUDES(mLayersLock);
    // Per queued buffer while quick touch is on: the fixed or the dynamic algorithm.
    void checkAndUpdateHeadroom(LayerPHRState* state, int64_t frameTimeNs);
    void updateDynamicHeadroom(LayerPHRState* state, int64_t frameTimeNs);
    // The hold of one queued buffer (bounded), or its target-fps pacing.
    void trackQueueBuffer(LayerPHRState* state, bool instant, int64_t queueTimeNs);

    // ---- Quick touch and target fps ----
    // Only one layer has quick touch: a request for another layer is ignored until it is off.
    // Switching off wakes no held thread.
    void setQuickTouchStatus(int32_t layerId, bool enable) EXCLUDES(mQuickTouchLock, mLayersLock);
    bool isQuickTouchApplicable(LayerPHRState* state) const;
    void setTargetFpsStatus(int32_t layerId, bool enable, float fromFps, float targetFps)
            EXCLUDES(mLayersLock);
    // Sleeps the calling queue thread until the layer's next target-fps deadline, however far
    // off. A signal that interrupts the sleep ends it; it is not resumed (LayerPHRState::sleepFor).
    void adjustForTargetFps(LayerPHRState* state);
    bool isTargetFpsSwitching(int32_t layerId) const EXCLUDES(mLayersLock);

    // ---- Diagnostics ----
    bool isRunning() const { return mRunning.load(); }
    int64_t vsyncPeriod() const { return mVsyncPeriod.load(); }
    int32_t displayFps() const { return mDisplayFps.load(); }
    int32_t quickTouchLayerId() const { return mQuickTouchLayerId.load(); }
    bool isDynamicHeadroomEnabled() const { return mDynamicHeadroom.load(); }
    int32_t targetFpsSwitchTime() const { return mTargetFpsSwitchTime.load(); }
    bool isTargetFpsCompensate() const { return mTargetFpsCompensate.load(); }
    size_t layerCount() const EXCLUDES(mLayersLock);

private:
    PHRMonitor() = default;
    ~PHRMonitor(); // never runs: the singleton lives for the process
    PHRMonitor(const PHRMonitor&) = delete;
    PHRMonitor& operator=(const PHRMonitor&) = delete;

    // `seen`: the vsync counter as init read it.
    void threadMain(uint64_t seen) EXCLUDES(mThreadLock);
    // Waits for the next vsync of the quick-touch layer; false when the monitor stops.
    bool waitForVsync(uint64_t* seen) EXCLUDES(mThreadLock);
    // Waits until the release point `waitNs` ahead (at most kMaxWaitNs), a new vsync (which
    // ends it early) or stop; false when the monitor stops.
    bool waitForReleasePoint(int64_t waitNs, uint64_t* seen) EXCLUDES(mThreadLock);
    float maxRateForFps(int32_t fps) const;

    // Serialises init and forceStop around the thread handle.
    Mutex mStartLock;
    platform::Thread mThread GUARDED_BY(mStartLock);
    mutable Mutex mLayersLock;
    Mutex mThreadLock;
    platform::Condition mThreadCondition;
    // Bumped by each vsync of the quick-touch layer, so no wake-up is lost between waits.
    uint64_t mVsyncSequence GUARDED_BY(mThreadLock) = 0;
    std::map<int32_t, sp<LayerPHRState>> mLayers GUARDED_BY(mLayersLock);
    // Serialises changes of the quick-touch layer with registration and removal.
    Mutex mQuickTouchLock;

    std::atomic<bool> mRunning{true};
    std::atomic<int64_t> mVsyncPeriod{-1};
    std::atomic<int32_t> mDisplayFps{60};
    std::atomic<int32_t> mQuickTouchLayerId{-1};
    std::atomic<float> mDefaultMaxHeadroomRate{0.0f};        // fps below 61; set by init
    std::atomic<float> mHighFpsDefaultMaxHeadroomRate{0.0f}; // fps 61 and above; set by init
    std::atomic<bool> mDynamicHeadroom{false};
    std::atomic<int32_t> mTargetFpsSwitchTime{-1};
    std::atomic<bool> mTargetFpsCompensate{true};
};

} // namespace android
