#pragma once

#include <utils/LightRefBase.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "config/GfrTunables.h"

namespace android {

// Frame-rescue state of one registered layer. Shared through sp<> between the monitor's map and
// a check that is running; every field is guarded by the GFRMonitor mutex.
//
// Within a frame: idle (no check pending) -> waiting (check of level n pending) -> boosted (a
// hint was sent) -> idle again at the next frame begin, which withdraws the boost.
class LayerGFRState : public LightRefBase<LayerGFRState> {
public:
    // Why a boost frequency came out as it did; traced with every dynamic computation.
    enum WakeupFlag : uint32_t {
        kFarLowered = 0x001,      // ttd beyond twice golden, lowerBoost on: frequency 0
        kFarBase = 0x002,         // ttd beyond twice golden, lowerBoost off: base frequency
        kScaledNear = 0x004,      // golden < ttd <= 2 x golden: scaled
        kScaledUrgent = 0x008,    // ttd <= golden: scaled
        kFirstCheckMoved = 0x010, // level 0 fired at the dynamically moved time
        kDropRaiseQuarter = 0x020,
        kDropRaiseHalf = 0x040,
        kBelowFloor = 0x080,      // under 100 MHz: 0
        kCapped = 0x100,          // above the maximum frequency
        kLastLevel = 0x200,       // base frequency unchanged
        kDeadlinePassed = 0x400,  // max(base, last boost frequency)
        kInvalidGolden = 0x800,   // golden ns or frame period unusable: base frequency
    };

    static constexpr int32_t kMaxFrequencyMHz = 3000;

    LayerGFRState(int32_t layerId, std::string layerName, std::string packageName)
          : mLayerName(std::move(layerName)),
            mPackageName(std::move(packageName)),
            mLayerId(layerId) {}

    // The last base frequency capped at kMaxFrequencyMHz, or kMaxFrequencyMHz without any.
    static int32_t maxFrequencyOf(const GfrTunables& tunables) {
        if (tunables.baseFreq.empty()) return kMaxFrequencyMHz;
        const int32_t last = tunables.baseFreq.back();
        return last < kMaxFrequencyMHz ? last : kMaxFrequencyMHz;
    }

    int64_t mFrameToken = 0;      // start of the frame in flight; tells stale checks apart
    float mFps = 0.0f;            // fps behind mFramePeriod; 0 when the vsync period was used
    int64_t mFramePeriod = -1;
    int64_t mResendVariation = 0; // frame-time change that forces a withdrawal under flag 2
    bool mActive = false;
    int64_t mJankHeadroom = 0;
    int64_t mFrameTime = 0;
    int64_t mPrevFrameTime = 0;
    int64_t mQueueEndTime = 0;
    bool mBoosted = false;
    uint32_t mWakeupFlags = 0;
    uint64_t mPendingCheckId = 0; // 0: no check pending
    std::string mLayerName;
    std::string mPackageName;
    int32_t mLayerId = -1;
    int64_t mFirstCheckAdjust = 0; // dynamic mode's level-0 delay from the queue end; 0: unmoved
    int64_t mDeadline = 0;         // frame token + vsync period + jank headroom
    uint64_t mFrameDropWindow = 0; // bit 0: the most recent frame; set: dropped
    int32_t mLastBoostFreq = 0;
    GfrTunables mTunables;
    int32_t mMaxFreq = kMaxFrequencyMHz;
    int64_t mVsyncPeriodSeen = 0;
    std::vector<int64_t> mCheckTimes; // one per jank threshold, from the queue end
    int64_t mMinDelayNs = 0;
    int64_t mGoldenNs = 0;
    int64_t mPendingCheckTime = 0; // monotonic time the pending check is due (diagnostics)
};

} // namespace android
