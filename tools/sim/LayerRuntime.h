#pragma once

// Everything the simulator keeps for one layer while it runs. Each field is written by the
// thread named beside it; the counters the progress line reads are atomics, everything else is
// read by the main thread only after the writing thread has ended.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "BufferQueue.h"
#include "Scenario.h"
#include "Stats.h"
#include "WorkSource.h"

namespace pelyx_sim {

// Touch events on their way to an app: the input thread delivers them, the app's render thread
// samples the newest one when it starts a frame. Thread-safe.
class TouchInput {
public:
    void deliver(int64_t eventNs) EXCLUDES(mLock);
    // The newest event delivered since the previous sample; 0 when there is none.
    int64_t sample() EXCLUDES(mLock);

private:
    android::Mutex mLock;
    int64_t mNewest GUARDED_BY(mLock) = 0;
};

struct PresentRecord {
    Frame frame;
    int64_t presentNs = 0;
    bool late = false;
};

struct LayerRuntime {
    LayerRuntime(const LayerSetup& layerSetup, const AppSetup& appSetup, int layerIndex, uint32_t seed)
          : setup(layerSetup), app(appSetup), index(layerIndex), queue(layerSetup.buffers),
            work(layerSetup.work, seed + static_cast<uint32_t>(layerIndex) * 7919u) {}

    const LayerSetup& setup;
    const AppSetup& app;
    const int index;
    BufferQueue queue;
    TouchInput input;

    // Timeline thread: the target rate pushed for this layer's package (0: none).
    std::atomic<double> targetFps{0.0};

    // App thread.
    WorkSource work;
    std::vector<double> holdsMs;
    int quickTouchHolds = 0;
    int instantBuffers = 0;
    std::vector<int64_t> queueTimes;
    // The app's recent frame rate (median of its last queue intervals), which janks are
    // measured against; 0 until known.
    std::atomic<double> cadenceFps{0.0};
    std::atomic<int64_t> framesQueued{0};
    std::atomic<bool> appDone{false};

    // Compositor thread.
    std::atomic<int64_t> framesPresented{0};
    JankCounter janks;
    std::vector<double> inputToPresentMs;
    int lateFences = 0;
    uint64_t lastLateFrame = 0;
    bool hasPendingPresent = false;
    Frame pendingPresent;
    int64_t firstPresentNs = -1;
    int64_t lastPresentNs = -1;
    std::vector<PresentRecord> presents;  // only with --frames

    // Timeline thread.
    int movesConsumedNow = 0;
    int movesHeld = 0;
};

} // namespace pelyx_sim
