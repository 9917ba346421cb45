#define LOG_TAG "Pelyx.LayerManager"

#include "layers/LayerInfo.h"

#include <cmath>
#include <sstream>

#include "perf/PerfProxy.h"

namespace android {
namespace {
constexpr int kStableWindowSize = 30;
constexpr int64_t kFpsWindowNs = 1'000'000'001; // a window closes after more than a second
constexpr float kStableTolerance = 0.2f;
constexpr float kMinStableDeviationNs = 2'000'000.0f;
} // namespace

void LayerInfo::StableFpsTracker::resize(int n) {
    mSamples.assign(n > 0 ? n : 0, 0);
    mIndex = 0;
    mSum = 0;
    mFull = false;
}

void LayerInfo::StableFpsTracker::push(int64_t sample) {
    if (mSamples.empty()) return;
    if (mFull) mSum -= mSamples[mIndex];
    mSamples[mIndex] = sample;
    mSum += sample;
    mIndex = (mIndex + 1) % static_cast<int32_t>(mSamples.size());
    if (mIndex == 0) mFull = true;
}

int LayerInfo::StableFpsTracker::getFpsMode() const {
    if (!mFull || mSamples.empty() || mSum == 0) return -1;
    const float mean = static_cast<float>(mSum) / static_cast<float>(mSamples.size());
    return PerfProxy::getFpsMode(1e9f / mean);
}

bool LayerInfo::StableFpsTracker::isStable(int layerId, float tolerance) const {
    if (!mFull || mSamples.empty()) return false;
    const float size = static_cast<float>(mSamples.size());
    const float mean = static_cast<float>(mSum) / size;
    float squares = 0.0f;
    for (int64_t sample : mSamples) {
        const float diff = static_cast<float>(sample) - mean;
        squares += diff * diff;
    }
    const float deviation = std::sqrt(squares / size);
    const bool stable = deviation < std::max(kMinStableDeviationNs, tolerance * mean);
    if (PerfProxy::isDebuggable()) {
        std::ostringstream line;
        line << "Window: [";
        for (size_t i = 0; i < mSamples.size(); i++) line << (i ? ", " : "") << mSamples[i];
        line << "] Layer: " << layerId << " StdDev: " << deviation << " Mean: " << mean
             << " Result: " << stable;
        PerfProxy::XLOGD(LOG_TAG, "%s", line.str().c_str());
    }
    return stable;
}

LayerInfo::LayerInfo(int32_t id, std::string name, std::string packageName, int32_t pid,
                     int32_t uid)
      : mId(id), mName(std::move(name)), mPackageName(std::move(packageName)), mPid(pid),
        mUid(uid) {}

bool LayerInfo::updateFps() {
    const int64_t now = mLastQueueTime;
    if (mPrevQueueTime == 0) {
        mPrevQueueTime = now;
        return false;
    }
    const int64_t delta = now - mPrevQueueTime;
    if (!mWindowStarted) {
        if (delta > 0 && mFramesInWindow == 0) {
            mWindowStarted = true;
            mWindowStart = mPrevQueueTime;
        } else {
            mPrevQueueTime = now;
            return false;
        }
    }
    mFramesInWindow++;
    const int64_t elapsed = now - mWindowStart;
    if (mStableFps.empty()) mStableFps.resize(kStableWindowSize);
    mStableFps.push(delta);

    bool completed = false;
    if (elapsed >= kFpsWindowNs) {
        mFps = 1.0f / ((static_cast<float>(elapsed) / static_cast<float>(mFramesInWindow)) / 1e9f);
        const int candidate = PerfProxy::getFpsMode(mFps);
        if (candidate != mFpsMode) {
            // Both the one-second average and the 30-interval ring must agree, on a steady beat.
            const int stableMode =
                    mStableFps.isStable(mId, kStableTolerance) ? mStableFps.getFpsMode() : -1;
            if (stableMode == candidate) {
                mFpsMode = candidate;
                PerfProxy::XLOGD(LOG_TAG, "Stable FPS shift detected for layer %d: %.2f (mode -> %d)",
                                 mId, mFps, mFpsMode);
            }
        }
        PerfProxy::XLOGD(LOG_TAG, "FPS:%.2F[%s] layer %d, (%d, %d) mode:%d focused:%d visible: %d",
                         mFps, mName.c_str(), mId, mBounds.getWidth(), mBounds.getHeight(),
                         mFpsMode, mFocused, mVisible);
        mFramesInWindow = 0;
        mWindowStarted = false;
        completed = true;
    }
    mPrevQueueTime = now;
    return completed;
}

} // namespace android
