#pragma once

// Everything the simulator keeps for one layer while it runs. Each field is written by the
// thread named beside it; the counters the progress line reads are atomics, everything else is
// read by the main thread only after the writing thread has ended.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "BufferQueue.h"
#include "FrameTimeline.h"
#include "Scenario.h"
#include "Stats.h"
#include "WorkSource.h"

namespace pelyx_sim {

// Touch events on their way to an app: the input thread delivers them, or holds a MOVE batch
// when the library says so; the app's render thread samples the newest delivered event when it
// starts a frame. A held batch goes out with the next delivery or at the app's next frame start,
// too late for that frame's sample. Thread-safe.
class TouchInput {
public:
    // Delivers the event, and any batch held before it.
    void deliver(int64_t eventNs) EXCLUDES(mLock);
    void hold(int64_t eventNs) EXCLUDES(mLock);
    // At a frame start: the newest event delivered since the previous sample (0: none); then
    // the held batch is delivered.
    int64_t sampleAtFrameStart() EXCLUDES(mLock);

private:
    android::Mutex mLock;
    int64_t mNewest GUARDED_BY(mLock) = 0;
    int64_t mHeld GUARDED_BY(mLock) = 0;
};

struct PresentRecord {
    Frame frame;
    int64_t gpuStartNs = -1;  // -1: no GPU work
    int64_t readyNs = 0;      // GPU work done (the queue time without any)
    int64_t latchNs = 0;      // the tick that latched it
    int64_t presentNs = 0;
    bool rhythmLate = false;
    FrameVerdict verdict;
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
    int lateFences = 0;
    uint64_t lastLateFrame = 0;
    std::deque<PresentRecord> pendingPresents;  // latched, not yet on screen
    int64_t firstPresentNs = -1;
    int64_t lastPresentNs = -1;
    std::vector<PresentRecord> presents;

    // Timeline thread.
    int movesConsumedNow = 0;
    int movesHeld = 0;

    // App and timeline threads: the first time the library changed what this layer does (a
    // hold, an instant buffer, a held MOVE); -1: never.
    std::atomic<int64_t> firstActNs{-1};
    void noteAct(int64_t t) {
        int64_t seen = firstActNs.load();
        while ((seen < 0 || t < seen) && !firstActNs.compare_exchange_weak(seen, t)) {
        }
    }
};

} // namespace pelyx_sim
