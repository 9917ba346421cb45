#pragma once

#include <utils/LightRefBase.h>

#include <atomic>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "layers/QueueTimes.h"
#include "layers/Rect.h"

namespace android {

// One fully tracked layer. Shared between the registry's map and callers holding an sp<>;
// every field is guarded by the LayerManager registry mutex.
class LayerInfo : public LightRefBase<LayerInfo> {
public:
    // The last 30 frame intervals: a steady-rate test that needs more than a one-second average.
    class StableFpsTracker {
    public:
        void resize(int n);
        void push(int64_t sample);
        bool empty() const { return mSamples.empty(); }
        bool full() const { return mFull; }
        // -1 unless full with a non-zero sum; else the mode of the ring's mean rate.
        int getFpsMode() const;
        // Population deviation below max(2 ms, tolerance x mean).
        bool isStable(int layerId, float tolerance) const;

    private:
        std::vector<int64_t> mSamples;
        int32_t mIndex = 0;
        int64_t mSum = 0;
        bool mFull = false;
    };

    LayerInfo(int32_t id, std::string name, std::string packageName, int32_t pid, int32_t uid);

    // Advances the one-second measuring window with the buffer queued at mLastQueueTime; true
    // when a window completed (mFps, and maybe mFpsMode, were updated).
    bool updateFps();

    int32_t mId = -1;
    std::string mName;
    std::string mPackageName;
    int32_t mPid = -1;
    int32_t mUid = -1;
    Rect mBounds = Rect::INVALID_RECT;
    bool mFocused = true;
    bool mVisible = true;
    bool mIsGame = false;
    int32_t mGameWeight = -1;
    std::string mSceneTag;

    bool mGfrEnabled = false;     // frame rescue wanted by the per-app configuration
    bool mGfrRegistered = false;  // known to the GFR monitor
    bool mGfrActive = false;      // checks running for this layer
    bool mPhrRegistered = false;  // known to the PHR monitor
    bool mPhrConfigValid = false; // headroom rates configured for the app: headroom wanted
    float mPhrMinRate = 0.0f;
    float mHighFpsPhrMinRate = 0.0f;

    int64_t mLastQueueTime = 0;
    bool mLastQueueFlag = false; // as handed on by the entry point, for diagnostics
    // Written after the registry lock is dropped, at the very end of the queue path.
    std::atomic<int64_t> mLastProcessedTime{0};
    int64_t mFrameInterval = 0;
    int32_t mPendingBuffers = 0;
    int64_t mLastLatchTime = 0;
    int64_t mTimeToPresent = 0;
    QueueTimes mQueueTimes; // one per pending buffer, oldest first

    bool mActive = true;
    int64_t mRemovalDeadline = 0;

    // GPU fence jank detection.
    // 0 unknown, 1 GPU driver timeline, 255 other. Atomic: the origin query runs without the
    // registry mutex.
    std::atomic<uint8_t> mFenceOrigin{0};
    int32_t mPendingLatchFenceFd = -1;  // -1: none recorded
    int64_t mPendingLatchFenceTime = 0; // read only while a fence is recorded

    bool mTargetFpsActive = false;
    float mTargetFps = 0.0f;

    // Frame-rate estimation.
    int64_t mPrevQueueTime = 0;
    float mFps = 0.0f;
    bool mWindowStarted = false;
    int32_t mFramesInWindow = 0;
    int64_t mWindowStart = 0;
    int32_t mFpsMode = -1;
    StableFpsTracker mStableFps;
    int32_t mAliveAppMatchCount = 0;
};

} // namespace android
