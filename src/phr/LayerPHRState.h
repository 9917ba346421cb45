#pragma once

#include <android-base/thread_annotations.h>
#include <utils/LightRefBase.h>
#include <utils/Mutex.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <string>

#include "platform/Condition.h"

namespace android {

// One layer's pre-present headroom: the figures the hold compares against (base <= current <=
// max, nanoseconds), the adaptive weight window that moves the current figure, the latch and
// jank bookkeeping of quick touch, the target-fps pacing clock, and the mutex and condition on
// which a held queue thread sleeps.
//
// Shared through sp<> by the monitor's map, the PHR worker and queue threads; it may outlive its
// removal from the map. The arithmetic takes the vsync period, display fps and rates as
// arguments so it runs the same with explicit values in tests.
//
// Locks, both leaves, never held together and never with the monitor's locks:
// - mLock guards the figures, the window, the latch bookkeeping and the target-fps clock; it is
//   held only for arithmetic, never across a wait;
// - mHoldLock with mHoldCondition is what held queue threads wait on.
// Flags that cross threads without a lock are atomics.
class LayerPHRState : public LightRefBase<LayerPHRState> {
public:
    // Upper bound of each wait of a hold (and of the worker's wait for its release point),
    // whatever the period says. The pacing sleep is not bounded by it.
    static constexpr int64_t kMaxWaitNs = 1'000'000'000;

    enum class LatchResult { kNone, kJank, kTooManyJanks };
    enum class HoldResult { kNotWaited, kReleased, kTimedOut };

    LayerPHRState(int32_t layerId, const std::string& name);
    ~LayerPHRState();

    // ---- Headroom figures ----
    // Stores each rate that is not negative, then derives base, max and current headroom for the
    // rate of the display's fps class: base = rate x period kept 1.5 ms away from a vsync
    // multiple, max = max(maxRate x period, base). False, with nothing changed, when the class's
    // rate is 0; an unknown period gives the 1.5 ms base. maxRate is the default ceiling rate of that class.
    bool updateHeadRoom(float phrMinRate, float highFpsPhrMinRate, int64_t period,
                        int32_t displayFps, float maxRate) EXCLUDES(mLock);
    // One step of the current headroom towards base (decrease) or max, snapped to land a tenth
    // of a period off the nearest vsync multiple.
    void updatePresetHeadroom(bool decrease, int64_t stepNs, int64_t period) EXCLUDES(mLock);
    // Fixed algorithm: 1 ms up for a frame more than 2 ms over the period, down for one more
    // than 2 ms under it.
    void updateFixedHeadroom(int64_t frameTimeNs, int64_t period) EXCLUDES(mLock);
    // Dynamic algorithm over a window of the last 15 frame weights; see the .cpp for the rules.
    void updateDynamicHeadroom(int64_t frameTimeNs, int64_t period, int32_t displayFps,
                               float highFpsMaxRate) EXCLUDES(mLock);
    // Ceiling update of the dynamic algorithm (high-fps displays only).
    // Back to the start of the dynamic algorithm: empty window, current headroom = base.
    void resetAdaptivePhrState() EXCLUDES(mLock);

    float phrMinRate() const EXCLUDES(mLock);
    float highFpsPhrMinRate() const EXCLUDES(mLock);
    // The rate of the display's fps class (below 61 fps: the normal one).
    float rateForFps(int32_t displayFps) const EXCLUDES(mLock);
    int64_t baseHeadroom() const EXCLUDES(mLock);
    int64_t maxHeadroom() const EXCLUDES(mLock);
    int32_t maxHeadroomHold() const EXCLUDES(mLock);
    int32_t heavyHeadroomFrameCount() const EXCLUDES(mLock);
    int32_t frameWeightWindowSum() const EXCLUDES(mLock);
    size_t weightWindowSize() const EXCLUDES(mLock);

    // ---- Latch path ----
    // Counts consecutive latches that left a buffer queued; returns the new count.
    int32_t noteLatchBacklog(int32_t bufferCount) EXCLUDES(mLock);
    int32_t consecutiveBacklog() const EXCLUDES(mLock);
    // Records the latch time and judges it against the previous one: a jank is two or more
    // vsyncs missed, rounded in single precision (with a period of 0 every latch later than the
    // one before is a jank, with a negative one none is); the sixth jank within 15 s empties the
    // jank record and is reported as kTooManyJanks (not recorded).
    LatchResult noteLatch(int64_t latchTimeNs, int64_t period) EXCLUDES(mLock);
    size_t jankCount() const EXCLUDES(mLock);

    // ---- Target fps ----
    // Switches pacing on or off. False when nothing changed (same flag and same target).
    // Smooth switching when switchTimeSec >= 1: the rate walks from fromFps to targetFps over
    // switchTimeSec seconds of displayFps frames; with displayFps 0 the step is unbounded and
    // the switch never ends (its frames are not paced).
    bool setTargetFps(bool enable, float fromFps, float targetFps, int32_t switchTimeSec,
                      int32_t displayFps) EXCLUDES(mLock);
    // Advances the pacing clock for one queued buffer at `now`; returns how long the queue
    // thread must sleep (0 when not at all). Does not sleep.
    int64_t nextTargetFpsWait(int64_t now, bool compensate, int32_t switchTimeSec)
            EXCLUDES(mLock);
    bool isTargetFpsSwitching() const EXCLUDES(mLock);
    float targetFps() const EXCLUDES(mLock);
    float currentSwitchFps() const EXCLUDES(mLock);
    float fpsStep() const EXCLUDES(mLock);
    int64_t frameInterval() const EXCLUDES(mLock);
    int64_t targetFpsBaseTime() const EXCLUDES(mLock);
    int64_t nextDeadline() const EXCLUDES(mLock);
    int64_t frameIndex() const EXCLUDES(mLock);

    // ---- Holding a queue thread ----
    // Blocks the calling queue thread for at most min(timeoutNs, kMaxWaitNs) on the wait clock
    // until a release: the worker's (at its point, or as it leaves), unblockBuffer, or the
    // layer's removal. Switching quick touch off is not one. Returns kNotWaited without blocking
    // when the layer is removed or, for a first hold, the worker has already passed its release
    // point. A first hold that times out sets the timed-out flag.
    HoldResult waitForRelease(int64_t timeoutNs, bool firstHold) EXCLUDES(mHoldLock);
    // The worker's release at the vsync-aligned point.
    void releaseAtVsyncPoint() EXCLUDES(mHoldLock);
    // unblockBuffer: releases at once and skips the additional delay.
    void requestUnblock() EXCLUDES(mHoldLock);
    // Wakes a held thread, if any: the worker does so as it leaves.
    void releaseWaiter() EXCLUDES(mHoldLock);
    // The layer left the monitor: no thread blocks on it any more and a held thread returns at
    // once; a pacing sleep runs on (sleepFor).
    void detach() EXCLUDES(mHoldLock);
    bool isDetached() const { return mDetached.load(); }
    bool isWaiting() const EXCLUDES(mHoldLock);
    // The target-fps sleep: the platform's plain relative sleep (platform::sleepFor), which
    // nothing in the library cuts short, not even the layer's removal. A signal delivered to the
    // thread ends it early and it is not resumed: the frame leaves at once; later deadlines stay
    // as they were.
    void sleepFor(int64_t ns);

    const int32_t mLayerId;
    const std::string mName;
    const std::string mFrameTimeTrack; // async slice between queues
    const std::string mHeadroomTrack;  // async slice while a buffer is held
    std::atomic<bool> mFrameTimeSliceOpen{false};

    // Current headroom target; written under mLock, read lock-free by the worker and the hold.
    std::atomic<int64_t> mHeadroom{-1};
    std::atomic<bool> mQuickTouchActive{false};
    std::atomic<bool> mPrevInstant{false};
    std::atomic<bool> mReleasedByTimer{false};
    std::atomic<bool> mTimedOut{false};
    std::atomic<bool> mUnblockRequested{false};
    std::atomic<int32_t> mBufferCount{0};
    std::atomic<int32_t> mQueuedSinceVsync{0};
    std::atomic<bool> mHasPendingBuffers{false};
    std::atomic<int32_t> mBufferDropWait{0}; // -1: off
    std::atomic<int64_t> mLastQueueTime{0};
    std::atomic<int64_t> mLastJankTime{0};
    std::atomic<int64_t> mLastLatchTime{0};
    std::atomic<bool> mTargetFpsActive{false};
    std::atomic<int64_t> mLastTargetFpsQueueTime{-1};

private:
    static constexpr int kWeightCount = 4;

    void updatePresetHeadroomLocked(bool decrease, int64_t stepNs, int64_t period)
            REQUIRES(mLock);
    void updateMaxHeadroomLocked(int64_t period, float highFpsMaxRate) REQUIRES(mLock);
    void resetAdaptivePhrStateLocked() REQUIRES(mLock);
    void resetTargetFpsClockLocked() REQUIRES(mLock);

    mutable Mutex mLock;
    float mPhrMinRate GUARDED_BY(mLock) = 0.0f;
    float mHighFpsPhrMinRate GUARDED_BY(mLock) = 0.0f;
    int64_t mBaseHeadroom GUARDED_BY(mLock) = 0;
    int64_t mMaxHeadroom GUARDED_BY(mLock) = 0;
    int32_t mMaxHeadroomHold GUARDED_BY(mLock) = 0;
    int32_t mHeavyHeadroomFrameCount GUARDED_BY(mLock) = 0;
    int32_t mFrameWeightWindowSum GUARDED_BY(mLock) = 0;
    int32_t mWindowMaxWeight GUARDED_BY(mLock) = 0;
    std::deque<int32_t> mWeightWindow GUARDED_BY(mLock);
    std::array<int32_t, kWeightCount> mWeightCounts GUARDED_BY(mLock) = {0, 0, 0, 0};
    int32_t mConsecutiveBacklog GUARDED_BY(mLock) = 0;
    std::deque<int64_t> mJankTimes GUARDED_BY(mLock);

    // Target-fps pacing: -1 until first set.
    // Set until a smooth switch finishes: until then the registry does not switch pacing off
    // for a layer that falls below its target.
    bool mSmoothSwitch GUARDED_BY(mLock) = true;
    float mTargetFps GUARDED_BY(mLock) = -1.0f;
    float mCurrentFps GUARDED_BY(mLock) = -1.0f;
    float mFpsStep GUARDED_BY(mLock) = -1.0f;
    int64_t mFrameIndex GUARDED_BY(mLock) = -1;
    int64_t mFrameInterval GUARDED_BY(mLock) = -1;
    int64_t mBaseTime GUARDED_BY(mLock) = -1;
    int64_t mNextDeadline GUARDED_BY(mLock) = -1;

    mutable Mutex mHoldLock;
    platform::Condition mHoldCondition;
    bool mWaiting GUARDED_BY(mHoldLock) = false;
    std::atomic<bool> mDetached{false};
};

} // namespace android
