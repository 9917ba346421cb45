#pragma once

// The compositor's vsync thread: ticks at the display's refresh rate on absolute monotonic
// deadlines, tells the library about each vsync, presents what it latched at the tick before,
// and latches the oldest ready buffer of every layer (a buffer is ready once its GPU fence has
// signalled; an unsignalled one is reported to the library and waits). One thread, started and
// stopped by the simulator's main thread; the layers outlive it.

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "BufferQueue.h"
#include "LayerRuntime.h"

namespace pelyx_sim {

class Compositor {
public:
    // `recordFrames`: every present is kept in its layer's `presents`.
    Compositor(std::vector<LayerRuntime*> layers, double refreshHz, bool recordFrames);
    ~Compositor();

    int64_t periodNs() const { return mPeriodNs; }

    // The first vsync falls one period after `startNs`.
    void start(int64_t startNs);
    // Returns once the thread has ended.
    void stop();

    // The vsync a frame started at `t` is drawn for: the first one after `t`. Any thread.
    int64_t nextVsyncAfter(int64_t t) const;

    int64_t ticks() const { return mTicks.load(); }
    // After stop(): ticks the thread woke up too late for, and how late it woke (ms).
    int64_t missed() const { return mMissed; }
    const std::vector<double>& latenessMs() const { return mLatenessMs; }

private:
    void run();
    void tick(int64_t vsyncNs);
    void present(LayerRuntime& layer, const Frame& frame, int64_t vsyncNs);

    const std::vector<LayerRuntime*> mLayers;
    const bool mRecordFrames;
    const int64_t mPeriodNs;
    const double mRefreshHz;
    std::atomic<int64_t> mStartNs{0};
    std::atomic<bool> mStop{false};
    std::atomic<int64_t> mTicks{0};
    int64_t mMissed = 0;
    std::vector<double> mLatenessMs;
    std::thread mThread;
};

} // namespace pelyx_sim
