#include "App.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "FakeDevices.h"
#include "pelyx/pelyx.h"
#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Threads.h"
#include "platform/Trace.h"

namespace pelyx_sim {
namespace {

// Frames per second of the median of the last queue intervals: the rate the app keeps, which
// a heavy frame now and then does not move.
double cadence(const std::vector<int64_t>& queueTimes) {
    constexpr size_t kIntervals = 15;
    if (queueTimes.size() < kIntervals + 1) return 0;
    std::array<int64_t, kIntervals> intervals;
    for (size_t i = 0; i < kIntervals; ++i) {
        const size_t at = queueTimes.size() - 1 - i;
        intervals[i] = queueTimes[at] - queueTimes[at - 1];
    }
    std::nth_element(intervals.begin(), intervals.begin() + kIntervals / 2, intervals.end());
    const int64_t median = intervals[kIntervals / 2];
    return median > 0 ? 1e9 / static_cast<double>(median) : 0;
}

} // namespace

App::App(LayerRuntime& layer, const Compositor& compositor, const CpuModel& cpu, const StopSignal& stop,
         int64_t runStartNs)
      : mLayer(layer), mCompositor(compositor), mCpu(cpu), mStop(stop), mRunStartNs(runStartNs) {}

App::~App() {
    if (mThread.joinable()) mThread.join();
}

void App::start() {
    mThread.start(("app " + mLayer.setup.label).c_str(), [this] {
        run();
        mLayer.appDone.store(true);
    });
}

void App::join() {
    if (mThread.joinable()) mThread.join();
}

void App::run() {
    const LayerSetup& setup = mLayer.setup;
    android::platform::setThreadName(("app " + setup.label).c_str());
    android::platform::host::setCallingIdentity(mLayer.app.pid, mLayer.app.uid);
    if (mStop.waitUntil(mRunStartNs + static_cast<int64_t>(setup.startS * 1e9))) return;
    while (!mStop.stopped()) {
        if (setup.stopS >= 0 &&
            android::platform::now() >= mRunStartNs + static_cast<int64_t>(setup.stopS * 1e9)) {
            return;
        }
        if (!frame()) return;
    }
}

// CPU work of `ns` at the normal clock, in a trace slice.
void App::work(int64_t ns) {
    const double factor = mCpu.factor(mLayer.app.package, mLayer.app.pid, android::platform::now());
    android::platform::traceBegin(("work " + mLayer.setup.label).c_str());
    android::platform::sleepFor(static_cast<int64_t>(static_cast<double>(ns) / factor));
    android::platform::traceEnd();
}

void App::consumeInput(Frame& frame) {
    frame.touchEventsNs = mLayer.input.consume();
    if (!frame.touchEventsNs.empty()) frame.touchNs = frame.touchEventsNs.back();
}

// One frame; false when the app is done.
bool App::frame() {
    const LayerSetup& setup = mLayer.setup;
    const VsyncGrid grid = mCompositor.grid();
    const int64_t period = grid.periodNs;
    const int64_t appPeriod = setup.fpsCap > 0 ? static_cast<int64_t>(std::llround(1e9 / setup.fpsCap)) : period;
    int64_t startTick = 0;
    if (setup.loop == AppLoop::Choreographer) {
        // The first vsync once the app is ready and its cap allows (less half a vsync, for the
        // clock's jitter); the vsyncs missed meanwhile are skipped, never caught up.
        int64_t ready = android::platform::now();
        if (mLastStartNs > 0) ready = std::max(ready, mLastStartNs + appPeriod - period / 2);
        startTick = grid.firstTickAtOrAfter(ready);
        if (mStop.waitUntil(startTick)) return false;
        mLastStartNs = startTick;
    }

    Frame frame;
    frame.number = ++mFrames;
    frame.startNs = android::platform::now();
    const std::optional<FrameWork> work = mLayer.work.next(frame.startNs - mRunStartNs);
    if (!work) return false;
    frame.heavy = work->heavy;
    if (!setup.work.inputAfterDequeue) consumeInput(frame);

    // Input and simulation, then the buffer (the wait when every other one is queued), then
    // the rendering into it, whose GPU share goes to the GPU before the queue.
    const int64_t beforeDequeue = static_cast<int64_t>(static_cast<double>(work->cpuNs) * setup.work.dequeueAt);
    this->work(beforeDequeue);
    const int64_t beforeWait = android::platform::now();
    int64_t releaseNs = 0;
    if (!mLayer.queue.dequeue(&releaseNs)) return false;
    frame.dequeueWaitNs = android::platform::now() - beforeWait;
    if (setup.work.inputAfterDequeue) consumeInput(frame);
    this->work(work->cpuNs - beforeDequeue);
    frame.gpuWorkNs = work->gpuNs;
    if (work->gpuNs > 0) frame.fenceFd = FakeDevices::instance().submitGpuWork(mLayer.index, work->gpuNs, releaseNs);

    bool autoTimestamp = true;
    int64_t desiredPresent = 0;
    if (setup.loop == AppLoop::PresentTime) {
        // A frame interval after the last present time, or the first present still reachable.
        autoTimestamp = false;
        desiredPresent = grid.presentOf(grid.firstTickAtOrAfter(android::platform::now()));
        if (mLastDesiredNs > 0) desiredPresent = std::max(desiredPresent, mLastDesiredNs + appPeriod);
        mLastDesiredNs = desiredPresent;
    }
    uint32_t flags = 0;
    if (setup.smartTouch) {
        aPelyxQueueBuffer(true);
        aPelyxFilterBuffer(&autoTimestamp, &desiredPresent, &flags);
    }
    const int64_t before = android::platform::now();
    frame.queueEnterNs = before;
    frame.instant = !autoTimestamp && desiredPresent <= before;
    frame.desiredPresentNs = autoTimestamp ? before : desiredPresent;
    android::platform::traceBegin(("queue " + setup.label).c_str());
    // The compositor's queue path: the flag is whether the buffer carries an automatic
    // timestamp, the value 1 marks an instant buffer, the timestamp is the desired present time.
    pelyxTrackBufferIncrement(setup.name.c_str(), setup.id, autoTimestamp, frame.instant ? 1 : 0,
                              frame.desiredPresentNs);
    android::platform::traceEnd();
    const int64_t after = android::platform::now();
    frame.holdNs = after - before;
    if (frame.holdNs > kHoldNs) {
        mLayer.noteAct(before);
        mLayer.holdsMs.push_back(static_cast<double>(frame.holdNs) / 1e6);
        if (mLayer.targetFps.load() <= 0) ++mLayer.quickTouchHolds;
    }
    frame.queueNs = after;
    // The latch the app meant the frame for: the one after the vsync that started it, the one
    // that presents at its present time, or, shown as soon as possible, the first once queued.
    if (setup.loop == AppLoop::Choreographer) {
        frame.intendedTickNs = startTick + period;
    } else if (!autoTimestamp && !frame.instant) {
        frame.intendedTickNs = grid.tickPresentingAt(frame.desiredPresentNs);
    } else {
        frame.intendedTickNs = grid.firstTickAtOrAfter(after);
    }
    const bool instant = frame.instant;
    mLayer.queue.queue(std::move(frame));
    mLayer.queueTimes.push_back(after);
    mLayer.cadenceFps.store(cadence(mLayer.queueTimes));
    mLayer.framesQueued.fetch_add(1);
    if (instant) {
        ++mLayer.instantBuffers;
        mLayer.noteAct(before);
    }
    if (setup.smartTouch) aPelyxQueueBuffer(false);
    return true;
}

} // namespace pelyx_sim
