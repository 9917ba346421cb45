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

// Touch events in an app's input channel. A frame's input stage consumes the whole batch
// before the frame reads it, MOVEs the library held back included: holding a batch only keeps
// the app from consuming it before its next frame, and a frame reads the same input either way.
// Thread-safe.
class TouchInput {
public:
    void deliver(int64_t eventNs) EXCLUDES(mLock);
    // The events since the last call, oldest first.
    std::vector<int64_t> consume() EXCLUDES(mLock);

private:
    android::Mutex mLock;
    std::vector<int64_t> mPending GUARDED_BY(mLock);
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
