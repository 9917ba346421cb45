#pragma once

// Per-frame work times of one layer's app, drawn from its model or replayed from a capture.
// Owned and called by that app's render thread only.

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "Scenario.h"

namespace pelyx_sim {

struct FrameWork {
    int64_t cpuNs = 0;  // from the frame's start to its queue
    int64_t gpuNs = 0;  // from the queue until the buffer's fence signals
    bool heavy = false;
};

class WorkSource {
public:
    WorkSource(const WorkModel& model, uint32_t seed);

    // The work of the frame that starts `sinceStartNs` after the run began; nothing once a
    // replay has used its last interval.
    std::optional<FrameWork> next(int64_t sinceStartNs);

    bool replaying() const { return mModel.replayMs != nullptr; }
    size_t replayed() const { return mIndex; }
    size_t replayLength() const { return mModel.replayMs ? mModel.replayMs->size() : 0; }

private:
    static int64_t toNs(double ms);

    WorkModel mModel;
    std::mt19937 mRandom;
    std::normal_distribution<double> mJitter;
    size_t mIndex = 0;
    int64_t mNextBurstNs = 0;
    int mHeavyLeft = 0;
};

} // namespace pelyx_sim
