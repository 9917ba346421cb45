#include "WorkSource.h"

#include <algorithm>
#include <cmath>

namespace pelyx_sim {
namespace {
// A frame never takes less than this: an app cannot draw in no time, and a zero interval in a
// capture (a present the tool logged twice) must not make the app spin.
constexpr double kMinWorkMs = 0.05;
} // namespace

WorkSource::WorkSource(const WorkModel& model, uint32_t seed)
      : mModel(model),
        mRandom(seed),
        mJitter(0.0, model.jitterMs > 0 ? model.jitterMs : 1.0),
        mNextBurstNs(toNs(model.heavyFromS * 1000.0)) {}

int64_t WorkSource::toNs(double ms) {
    return static_cast<int64_t>(std::llround(ms * 1e6));
}

std::optional<FrameWork> WorkSource::next(int64_t sinceStartNs) {
    FrameWork work;
    work.gpuNs = toNs(mModel.gpuMs);
    if (mModel.replayMs) {
        if (mIndex >= mModel.replayMs->size()) return std::nullopt;
        work.cpuNs = toNs(std::max(kMinWorkMs, (*mModel.replayMs)[mIndex++]));
        return work;
    }
    if (mModel.heavyMs > 0 && mModel.heavyEveryS > 0 && sinceStartNs >= mNextBurstNs) {
        mHeavyLeft = mModel.heavyBurst;
        const int64_t every = toNs(mModel.heavyEveryS * 1000.0);
        while (mNextBurstNs <= sinceStartNs) mNextBurstNs += every;
    }
    double ms = mModel.meanMs;
    if (mHeavyLeft > 0) {
        --mHeavyLeft;
        work.heavy = true;
        ms = mModel.heavyMs;
        if (mModel.heavyGpuMs > 0) work.gpuNs = toNs(mModel.heavyGpuMs);
    } else if (mModel.jitterMs > 0) {
        // Clamped so that a wide spread cannot produce negative or absurd frames.
        ms = std::clamp(ms + mJitter(mRandom), kMinWorkMs, 4 * mModel.meanMs + 4 * mModel.jitterMs);
    }
    ++mIndex;
    work.cpuNs = toNs(std::max(kMinWorkMs, ms));
    return work;
}

} // namespace pelyx_sim
