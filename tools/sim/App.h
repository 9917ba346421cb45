#pragma once

// One app's render thread for one layer, with the app's pid and uid as the calling identity of
// the compositor's queue path. A frame starts when the app's loop says (see AppLoop), consumes
// its input (at its start, or once it has its buffer), works (sleeps) for the first share of its
// CPU time, takes a free buffer (waiting while every other one is queued or on its way back),
// works the rest, submits its GPU work (which starts once the GPU is free and the buffer
// released), then queues through pelyxTrackBufferIncrement, which the library may hold; with
// smart touch the app-side functions wrap the queue. CPU work runs faster while the CPU model
// says so. The thread ends at the stop signal, at the layer's stop time, or when its replay runs
// out.

#include <cstdint>

#include "BufferQueue.h"
#include "Compositor.h"
#include "Cpu.h"
#include "LayerRuntime.h"
#include "platform/Thread.h"

namespace pelyx_sim {

class App {
public:
    // A hold is a queue call that took longer than this.
    static constexpr int64_t kHoldNs = 500'000;

    App(LayerRuntime& layer, const Compositor& compositor, const CpuModel& cpu, const StopSignal& stop,
        int64_t runStartNs);
    ~App();

    void start();
    // Only once layer().appDone is set, or the join may wait for a held queue call.
    void join();
    LayerRuntime& layer() { return mLayer; }

private:
    void run();
    bool frame();
    void work(int64_t ns);
    void consumeInput(Frame& frame);

    LayerRuntime& mLayer;
    const Compositor& mCompositor;
    const CpuModel& mCpu;
    const StopSignal& mStop;
    const int64_t mRunStartNs;
    int64_t mLastStartNs = 0;    // a Choreographer app's last frame start (a vsync)
    int64_t mLastDesiredNs = 0;  // a present-time app's last present time
    uint64_t mFrames = 0;
    android::platform::Thread mThread;
};

} // namespace pelyx_sim
