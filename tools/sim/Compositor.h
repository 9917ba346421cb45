#pragma once

// The compositor's vsync thread: ticks at the display's refresh rate on absolute monotonic
// deadlines, a latch offset before each vsync. Each tick tells the library about the vsync (and
// the smart-touch app its Choreographer's vsync time),
// records what reached the screen since the tick before, and latches the oldest ready buffer of
// every layer: queued, its GPU fence signalled (an unsignalled one is reported to the library and
// waits) and its desired present time due. What a tick latches is presented the offset (plus
// any further present delay) later. A tick the thread oversleeps is still signalled to the
// library, late, without a latch. One thread, started and stopped by the simulator's main
// thread; the layers outlive it.

#include <atomic>
#include <cstdint>
#include <set>
#include <vector>

#include "BufferQueue.h"
#include "FrameTimeline.h"
#include "LayerRuntime.h"
#include "Scenario.h"
#include "platform/Thread.h"

namespace pelyx_sim {

class Compositor {
public:
    // `virtualClock`: each latch costs the device's latch cost in (virtual) time; on real time
    // the compositor's own code takes what it takes.
    Compositor(std::vector<LayerRuntime*> layers, double refreshHz, const DeviceModel& device,
               bool virtualClock);
    ~Compositor();

    int64_t periodNs() const { return mPeriodNs; }

    // The first tick falls one period after `startNs`.
    void start(int64_t startNs);
    // Returns once the thread has ended.
    void stop();

    // Valid once started. Any thread.
    VsyncGrid grid() const;

    int64_t ticks() const { return mTicks.load(); }
    // After stop(): ticks the thread overslept (signalled late, nothing latched), and how late
    // it woke for each tick (ms).
    int64_t missed() const { return mMissed; }
    const std::vector<double>& latenessMs() const { return mLatenessMs; }

private:
    void run();
    void lateTick(int64_t tickNs);
    void tick(int64_t tickNs, int64_t wokeNs);
    void present(LayerRuntime& layer, PresentRecord record);

    const std::vector<LayerRuntime*> mLayers;
    const int64_t mPeriodNs;
    const int64_t mLatchOffsetNs;
    const int mPresentDelay;
    const double mRefreshHz;
    const int64_t mLatchCostNs;
    const int64_t mReleaseDelayNs;
    const bool mFenceReportNow;
    const bool mAppVsync;  // a layer's app takes the vsync time for smart touch
    std::atomic<int64_t> mStartNs{0};
    std::atomic<bool> mStop{false};
    std::atomic<int64_t> mTicks{0};
    int64_t mMissed = 0;
    std::set<int64_t> mLateTicks;  // ticks overslept, or whose present had to move
    std::vector<double> mLatenessMs;
    android::platform::Thread mThread;
};

} // namespace pelyx_sim
