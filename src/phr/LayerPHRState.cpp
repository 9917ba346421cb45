#define LOG_TAG "Pelyx.PHRMonitor"

#include "phr/LayerPHRState.h"

#include <utils/Timers.h>

#include <algorithm>
#include <cmath>

#include "perf/PerfProxy.h"
#include "platform/Clock.h"

namespace android {
namespace {

constexpr const char* kTag = "Pelyx.PHRMonitor";
constexpr int64_t kVsyncGuardNs = 1'500'000;      // base headroom keeps this far off a vsync
constexpr int64_t kFixedStepNs = 1'000'000;
constexpr int64_t kFixedToleranceNs = 2'000'000;
constexpr int64_t kDynamicRiseNs = 2'000'000;     // a heavy window lifts fast...
constexpr int64_t kDynamicDecayNs = 100'000;      // ...and the target decays slowly
constexpr size_t kWeightWindow = 15;
constexpr int32_t kHeavyFrames = 50;
constexpr int32_t kMaxHeadroomHoldFrames = 50;
constexpr double kDefaultCeilingRatio = 1.3;
constexpr int32_t kHighFpsClass = 61;
constexpr int64_t kJankWindowNs = 14'999'999'999;
constexpr size_t kJankLimit = 4; // the fifth recorded jank plus this one make six
constexpr int64_t kTargetFpsGraceNs = 1'000'000;
constexpr float kMinFps = 0.01f;

// Products of rates and periods are taken in single precision and truncated; clamp so that a
// hostile rate can never make the conversion undefined or the later sums overflow.
int64_t truncateNs(double value) {
    constexpr double kLimit = 4.0e18;
    if (std::isnan(value)) return 0;
    if (value >= kLimit) return static_cast<int64_t>(kLimit);
    if (value <= -kLimit) return -static_cast<int64_t>(kLimit);
    return static_cast<int64_t>(value);
}

int64_t scaledPeriod(float rate, int64_t period) {
    return truncateNs(rate * static_cast<float>(period));
}

// 1e9 / fps in single precision, truncated; only for fps above 0.01.
bool fpsToInterval(float fps, int64_t* interval) {
    if (!(fps > kMinFps)) return false;
    *interval = truncateNs(1e9f / fps);
    return true;
}

int32_t weightOf(float ratio) {
    if (ratio < 0.8f) return 0;
    if (ratio < 1.2f) return 1;
    if (ratio < 1.5f) return 2;
    return 3;
}

} // namespace

LayerPHRState::LayerPHRState(int32_t layerId, const std::string& name)
      : mLayerId(layerId),
        mName(name),
        mFrameTimeTrack("CPU frame time - " + name),
        mHeadroomTrack("CPU headroom - " + name) {}

LayerPHRState::~LayerPHRState() = default;

// ---- Headroom figures ----

bool LayerPHRState::updateHeadRoom(float phrMinRate, float highFpsPhrMinRate, int64_t period,
                                   int32_t displayFps, float maxRate) {
    int64_t h;
    {
        Mutex::Autolock lock(mLock);
        // A negative rate (or no number at all) leaves that rate as it was.
        if (phrMinRate >= 0.0f) mPhrMinRate = phrMinRate;
        if (highFpsPhrMinRate >= 0.0f) mHighFpsPhrMinRate = highFpsPhrMinRate;
        const float rate = displayFps < kHighFpsClass ? mPhrMinRate : mHighFpsPhrMinRate;
        if (rate == 0.0f) return false;

        h = scaledPeriod(rate, period);
        // An unknown period (0 or -1) leaves no remainder: the base is then the 1.5 ms guard,
        // until setVsyncInfo recomputes it from a real period.
        const int64_t r = period > 0 ? h % period : 0;
        if (r < kVsyncGuardNs) {
            h = h - r + kVsyncGuardNs;
        } else if (period - r < kVsyncGuardNs) {
            h = h + (period - r) - kVsyncGuardNs;
        }
        mBaseHeadroom = h;
        mMaxHeadroom = std::max(scaledPeriod(maxRate, period), h);
        mHeadroom.store(h);
    }
    PerfProxy::XLOGD(kTag, "Layer %d set headroom: %lld", mLayerId, static_cast<long long>(h));
    return true;
}

void LayerPHRState::updatePresetHeadroom(bool decrease, int64_t stepNs, int64_t period) {
    Mutex::Autolock lock(mLock);
    updatePresetHeadroomLocked(decrease, stepNs, period);
}

void LayerPHRState::updatePresetHeadroomLocked(bool decrease, int64_t stepNs, int64_t period) {
    const int64_t current = mHeadroom.load();
    // The snap keeps the target a tenth of a period clear of the vsync it would straddle.
    const int64_t t = period > 0 ? period / 10 : 0;
    int64_t result;
    if (decrease) {
        if (current == mBaseHeadroom) return;
        int64_t h = current - stepNs;
        if (h <= mBaseHeadroom) {
            result = mBaseHeadroom;
        } else {
            if (period > 0) {
                const int64_t r = h % period;
                if (r < t) {
                    h = h - r - t;
                } else if (period - r < t) {
                    h = h + (period - r) - t;
                }
            }
            result = h >= mBaseHeadroom ? std::min(h, mMaxHeadroom) : mBaseHeadroom;
        }
    } else {
        if (current == mMaxHeadroom) return;
        int64_t h = current + stepNs;
        if (h >= mMaxHeadroom) {
            result = mMaxHeadroom;
        } else {
            if (period > 0) {
                const int64_t r = h % period;
                if (r < t) {
                    h = h - r + t;
                } else if (period - r < t) {
                    h = h + (period - r) + t;
                }
            }
            result = h >= mBaseHeadroom ? std::min(h, mMaxHeadroom) : mBaseHeadroom;
        }
    }
    mHeadroom.store(result);
    PerfProxy::XTRACE_FORMAT("updatePresetHeadroom = %lld", static_cast<long long>(result));
}

void LayerPHRState::updateFixedHeadroom(int64_t frameTimeNs, int64_t period) {
    Mutex::Autolock lock(mLock);
    if (frameTimeNs - period > kFixedToleranceNs) {
        updatePresetHeadroomLocked(false, kFixedStepNs, period);
    } else if (frameTimeNs + kFixedToleranceNs < period) {
        updatePresetHeadroomLocked(true, kFixedStepNs, period);
    }
}

// Each frame gets a weight from its time against the period (0 light, 1 on time, 2 and 3
// heavy). A window of the last 15 weights with a sum of 3 or more and a heavy frame in it
// lifts the target 2 ms a frame for 50 frames (each new heavy window starts the 50 again);
// afterwards a window of fifteen on-time frames restores base at once, anything else lets the
// target decay by 0.1 ms a frame.
void LayerPHRState::updateDynamicHeadroom(int64_t frameTimeNs, int64_t period,
                                          int32_t displayFps, float highFpsMaxRate) {
    if (period <= 0) return;
    Mutex::Autolock lock(mLock);
    const float weightRatio = static_cast<float>(frameTimeNs) / static_cast<float>(period);
    const int32_t weight = weightOf(weightRatio);
    mWindowMaxWeight = std::max(mWindowMaxWeight, weight);
    mWeightWindow.push_back(weight);
    mFrameWeightWindowSum += weight;
    mWeightCounts[weight]++;
    if (mWeightWindow.size() > kWeightWindow) {
        const int32_t oldest = mWeightWindow.front();
        mWeightWindow.pop_front();
        mFrameWeightWindowSum -= oldest;
        mWeightCounts[oldest]--;
        if (oldest == mWindowMaxWeight && mWeightCounts[oldest] == 0) {
            mWindowMaxWeight = 0;
            for (int32_t w = kWeightCount - 1; w > 0; w--) {
                if (mWeightCounts[w] > 0) {
                    mWindowMaxWeight = w;
                    break;
                }
            }
        }
    }
    if (mWeightWindow.size() < kWeightWindow) return;

    if (mFrameWeightWindowSum >= 3 && mWindowMaxWeight >= 2) {
        mHeavyHeadroomFrameCount = 1;
        if (displayFps >= kHighFpsClass) updateMaxHeadroomLocked(period, highFpsMaxRate);
    }
    if (mHeavyHeadroomFrameCount >= 1 && mHeavyHeadroomFrameCount <= kHeavyFrames) {
        updatePresetHeadroomLocked(false, kDynamicRiseNs, period);
        mHeavyHeadroomFrameCount++;
    } else {
        updatePresetHeadroomLocked(true, kDynamicDecayNs, period);
    }
    PerfProxy::XTRACE_FORMAT("checkAndUpdatePHR: weightRatio: %.3f, mFrameWeightWindowSum:%d, "
                             "heavyHeadroomFrameCount: %d, mHeadroom: %lld",
                             static_cast<double>(weightRatio), mFrameWeightWindowSum,
                             mHeavyHeadroomFrameCount,
                             static_cast<long long>(mHeadroom.load()));
    if (mHeavyHeadroomFrameCount > kHeavyFrames) {
        if (mFrameWeightWindowSum == static_cast<int32_t>(kWeightWindow) &&
            mWindowMaxWeight <= 1) {
            resetAdaptivePhrStateLocked();
        } else {
            mHeavyHeadroomFrameCount = 0;
        }
    }
}

void LayerPHRState::updateMaxHeadroomLocked(int64_t period, float highFpsMaxRate) {
    int64_t candidate;
    if (mFrameWeightWindowSum >= 30) {
        mMaxHeadroomHold = kMaxHeadroomHoldFrames;
        candidate = scaledPeriod(highFpsMaxRate, period);
    } else {
        const int32_t before = mMaxHeadroomHold;
        if (mMaxHeadroomHold > INT32_MIN) mMaxHeadroomHold--;
        if (before > 0) return; // a raised ceiling is kept for a while
        candidate = truncateNs(static_cast<double>(period) * kDefaultCeilingRatio);
    }
    mMaxHeadroom = std::max(mBaseHeadroom, candidate);
}

void LayerPHRState::resetAdaptivePhrState() {
    Mutex::Autolock lock(mLock);
    resetAdaptivePhrStateLocked();
}

void LayerPHRState::resetAdaptivePhrStateLocked() {
    mHeavyHeadroomFrameCount = 0;
    mFrameWeightWindowSum = 0;
    mWindowMaxWeight = 0;
    mWeightWindow.clear();
    mHeadroom.store(mBaseHeadroom);
    mWeightCounts.fill(0);
    const long long headroom = static_cast<long long>(mBaseHeadroom);
    PerfProxy::XLOGD(kTag, "reset adaptive PHR state for layer %d, headroom=%lld", mLayerId,
                     headroom);
    PerfProxy::XTRACE_FORMAT("reset adaptive PHR state for layer %d, headroom=%lld", mLayerId,
                             headroom);
}

float LayerPHRState::phrMinRate() const {
    Mutex::Autolock lock(mLock);
    return mPhrMinRate;
}

float LayerPHRState::highFpsPhrMinRate() const {
    Mutex::Autolock lock(mLock);
    return mHighFpsPhrMinRate;
}

float LayerPHRState::rateForFps(int32_t displayFps) const {
    Mutex::Autolock lock(mLock);
    return displayFps < kHighFpsClass ? mPhrMinRate : mHighFpsPhrMinRate;
}

int64_t LayerPHRState::baseHeadroom() const {
    Mutex::Autolock lock(mLock);
    return mBaseHeadroom;
}

int64_t LayerPHRState::maxHeadroom() const {
    Mutex::Autolock lock(mLock);
    return mMaxHeadroom;
}

int32_t LayerPHRState::maxHeadroomHold() const {
    Mutex::Autolock lock(mLock);
    return mMaxHeadroomHold;
}

int32_t LayerPHRState::heavyHeadroomFrameCount() const {
    Mutex::Autolock lock(mLock);
    return mHeavyHeadroomFrameCount;
}

int32_t LayerPHRState::frameWeightWindowSum() const {
    Mutex::Autolock lock(mLock);
    return mFrameWeightWindowSum;
}

size_t LayerPHRState::weightWindowSize() const {
    Mutex::Autolock lock(mLock);
    return mWeightWindow.size();
}

// ---- Latch path ----

int32_t LayerPHRState::noteLatchBacklog(int32_t bufferCount) {
    Mutex::Autolock lock(mLock);
    if (bufferCount < 1) {
        mConsecutiveBacklog = 0;
    } else if (mConsecutiveBacklog < INT32_MAX) {
        mConsecutiveBacklog++;
    }
    return mConsecutiveBacklog;
}

int32_t LayerPHRState::consecutiveBacklog() const {
    Mutex::Autolock lock(mLock);
    return mConsecutiveBacklog;
}

LayerPHRState::LatchResult LayerPHRState::noteLatch(int64_t latchTimeNs, int64_t period) {
    const int64_t previous = mLastLatchTime.exchange(latchTimeNs);
    // Taken as it comes: a period of 0 makes every later latch a jank.
    const float missed = std::round(static_cast<float>(latchTimeNs - previous) /
                                    static_cast<float>(period));
    if (!(missed >= 2.0f)) return LatchResult::kNone;

    mLastJankTime.store(latchTimeNs);
    Mutex::Autolock lock(mLock);
    if (mJankTimes.size() > kJankLimit) {
        if (latchTimeNs - mJankTimes.front() <= kJankWindowNs) {
            mJankTimes.clear();
            return LatchResult::kTooManyJanks;
        }
        mJankTimes.pop_front();
    }
    mJankTimes.push_back(latchTimeNs);
    return LatchResult::kJank;
}

size_t LayerPHRState::jankCount() const {
    Mutex::Autolock lock(mLock);
    return mJankTimes.size();
}

// ---- Target fps ----

bool LayerPHRState::setTargetFps(bool enable, float fromFps, float targetFps,
                                 int32_t switchTimeSec, int32_t displayFps) {
    {
        Mutex::Autolock lock(mLock);
        if (enable == mTargetFpsActive.load() && targetFps == mTargetFps) return false;
        mTargetFps = targetFps;
        if (enable) {
            if (switchTimeSec >= 1) {
                mCurrentFps = fromFps;
                mSmoothSwitch = true;
                mNextDeadline = std::max(mLastQueueTime.load(), mLastTargetFpsQueueTime.load());
                // Over switchTimeSec seconds of display frames. Without a display fps (a period
                // with no fps mode) the step is unbounded and the switch never ends: the
                // frames go out unpaced until pacing is switched again.
                const int64_t frames = int64_t{switchTimeSec} * displayFps;
                mFpsStep = (fromFps - targetFps) / static_cast<float>(frames);
            } else {
                fpsToInterval(targetFps, &mFrameInterval);
            }
        }
        resetTargetFpsClockLocked();
        mTargetFpsActive.store(enable);
    }
    if (enable) {
        PerfProxy::XTRACE_FORMAT("enable target fps: %f", static_cast<double>(targetFps));
        PerfProxy::XLOGD(kTag, "Layer %d: enable target fps: %f", mLayerId,
                         static_cast<double>(targetFps));
    } else {
        PerfProxy::XTRACE_FORMAT("Layer %d: %s", mLayerId, "disable target fps");
        PerfProxy::XLOGD(kTag, "Layer %d: %s", mLayerId, "disable target fps");
    }
    return true;
}

int64_t LayerPHRState::nextTargetFpsWait(int64_t now, bool compensate, int32_t switchTimeSec) {
    Mutex::Autolock lock(mLock);
    if (switchTimeSec >= 1 && mSmoothSwitch) {
        mCurrentFps -= mFpsStep;
        fpsToInterval(mCurrentFps, &mFrameInterval);
        mNextDeadline += mFrameInterval;
        if (std::fabs(mCurrentFps - mTargetFps) < std::fabs(mFpsStep)) {
            mBaseTime = mNextDeadline;
            mSmoothSwitch = false;
            fpsToInterval(mTargetFps, &mFrameInterval);
            PerfProxy::XTRACE_NAME("Target fps smooth switch finished.");
        }
    } else {
        // Without compensation a pause of more than a frame restarts the grid; with it, the
        // grid is kept and the frames after a late one wait less.
        if (!compensate &&
            mLastQueueTime.load() - mLastTargetFpsQueueTime.load() >
                    mFrameInterval + kTargetFpsGraceNs) {
            resetTargetFpsClockLocked();
        }
        if (mBaseTime < 0) {
            mBaseTime = now;
            PerfProxy::XTRACE_NAME("Switched to target fps now.");
            return 0;
        }
        mFrameIndex++;
        mNextDeadline = mBaseTime + mFrameInterval * mFrameIndex;
    }
    const int64_t wait = mNextDeadline - mLastQueueTime.load();
    return wait >= 1 ? wait : 0;
}

void LayerPHRState::resetTargetFpsClockLocked() {
    mBaseTime = -1;
    mFrameIndex = 0;
}

bool LayerPHRState::isTargetFpsSwitching() const {
    Mutex::Autolock lock(mLock);
    return mSmoothSwitch;
}

float LayerPHRState::targetFps() const {
    Mutex::Autolock lock(mLock);
    return mTargetFps;
}

float LayerPHRState::currentSwitchFps() const {
    Mutex::Autolock lock(mLock);
    return mCurrentFps;
}

float LayerPHRState::fpsStep() const {
    Mutex::Autolock lock(mLock);
    return mFpsStep;
}

int64_t LayerPHRState::frameInterval() const {
    Mutex::Autolock lock(mLock);
    return mFrameInterval;
}

int64_t LayerPHRState::targetFpsBaseTime() const {
    Mutex::Autolock lock(mLock);
    return mBaseTime;
}

int64_t LayerPHRState::nextDeadline() const {
    Mutex::Autolock lock(mLock);
    return mNextDeadline;
}

int64_t LayerPHRState::frameIndex() const {
    Mutex::Autolock lock(mLock);
    return mFrameIndex;
}

// ---- Holding a queue thread ----

LayerPHRState::HoldResult LayerPHRState::waitForRelease(int64_t timeoutNs, bool firstHold) {
    Mutex::Autolock lock(mHoldLock);
    mWaiting = true;
    // Checked under the mutex after `waiting` is set: a releaser that changed one of these
    // before taking the mutex is seen here, one that changes it later finds us waiting.
    if ((firstHold && mReleasedByTimer.load()) || mDetached.load()) {
        mWaiting = false;
        return HoldResult::kNotWaited;
    }
    const int64_t deadline = platform::waitClockNow() + std::min(timeoutNs, kMaxWaitNs);
    while (mWaiting && !mDetached.load()) {
        const int64_t remaining = deadline - platform::waitClockNow();
        if (remaining <= 0) {
            mWaiting = false;
            if (firstHold) mTimedOut.store(true);
            return HoldResult::kTimedOut;
        }
        mHoldCondition.waitRelative(mHoldLock, remaining);
    }
    mWaiting = false;
    return HoldResult::kReleased;
}

void LayerPHRState::releaseAtVsyncPoint() {
    if (!mTimedOut.exchange(false)) mReleasedByTimer.store(true);
    Mutex::Autolock lock(mHoldLock);
    if (mWaiting) {
        mHoldCondition.broadcast();
        mWaiting = false;
    }
}

void LayerPHRState::requestUnblock() {
    mUnblockRequested.store(true);
    if (!mHasPendingBuffers.load()) mBufferDropWait.store(1);
    Mutex::Autolock lock(mHoldLock);
    if (mWaiting) {
        mHoldCondition.broadcast();
        mWaiting = false;
        PerfProxy::XTRACE_NAME("unblockBuffer");
    }
}

void LayerPHRState::releaseWaiter() {
    Mutex::Autolock lock(mHoldLock);
    if (mWaiting) {
        mHoldCondition.broadcast();
        mWaiting = false;
    }
}

void LayerPHRState::detach() {
    mDetached.store(true);
    Mutex::Autolock lock(mHoldLock);
    mWaiting = false;
    mHoldCondition.broadcast();
}

bool LayerPHRState::isWaiting() const {
    Mutex::Autolock lock(mHoldLock);
    return mWaiting;
}

void LayerPHRState::sleepFor(int64_t ns) {
    // A plain sleep: pacing holds the frame to its deadline, whatever happens to the layer.
    platform::sleepFor(ns);
}

} // namespace android
