#include "Compositor.h"

#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "FakeDevices.h"
#include "pelyx/pelyx.h"
#include "platform/Clock.h"
#include "platform/Threads.h"
#include "platform/Trace.h"

namespace pelyx_sim {
namespace {

// A buffer whose desired present time is within this of the present is due (clock jitter).
constexpr int64_t kDueSlackNs = 1'000'000;

class Slice {
public:
    explicit Slice(const std::string& name) { android::platform::traceBegin(name.c_str()); }
    ~Slice() { android::platform::traceEnd(); }
};

} // namespace

Compositor::Compositor(std::vector<LayerRuntime*> layers, double refreshHz, const DeviceModel& device,
                       bool virtualClock)
      : mLayers(std::move(layers)),
        mPeriodNs(static_cast<int64_t>(std::llround(1e9 / refreshHz))),
        mLatchOffsetNs(static_cast<int64_t>(std::llround(device.latchOffsetMsAt(refreshHz) * 1e6))),
        mPresentDelay(device.presentDelayVsyncs),
        mRefreshHz(refreshHz),
        mLatchCostNs(virtualClock ? static_cast<int64_t>(std::llround(device.latchCostUs * 1e3)) : 0),
        mReleaseDelayNs(static_cast<int64_t>(std::llround(device.releaseDelayUs * 1e3))),
        mFenceReportNow(device.fenceReportNow),
        mAppVsync(std::any_of(mLayers.begin(), mLayers.end(), [](const LayerRuntime* l) { return l->setup.smartTouch; })) {}

Compositor::~Compositor() {
    stop();
}

void Compositor::start(int64_t startNs) {
    mStartNs.store(startNs);
    mThread.start("sim vsync", [this] { run(); });
}

void Compositor::stop() {
    mStop.store(true);
    if (mThread.joinable()) mThread.join();
}

VsyncGrid Compositor::grid() const {
    return VsyncGrid{mStartNs.load(), mPeriodNs, mLatchOffsetNs, mPresentDelay};
}

void Compositor::run() {
    android::platform::setThreadName("sim vsync");
    // A compositor's main thread runs in the real-time class; without the privilege it runs on
    // as it is, and the lateness figures in the summary show what that cost.
    sched_param param{};
    param.sched_priority = 2;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);

    int64_t next = mStartNs.load() + mPeriodNs;
    while (!mStop.load()) {
        android::platform::sleepUntil(next);
        const int64_t woke = android::platform::now();
        mLatenessMs.push_back(static_cast<double>(woke - next) / 1e6);
        // Ticks slept through are signalled all the same; only the last one latches.
        while (woke >= next + mPeriodNs) {
            lateTick(next);
            next += mPeriodNs;
        }
        tick(next, woke);
        mTicks.fetch_add(1);
        next += mPeriodNs;
    }
}

void Compositor::lateTick(int64_t tickNs) {
    Slice slice("vsync (late)");
    pelyxTrackVsyncSignal();
    if (mAppVsync) aPelyxSetVsyncTime(tickNs);
    mLateTicks.insert(tickNs);
    ++mMissed;
    mTicks.fetch_add(1);
}

void Compositor::tick(int64_t tickNs, int64_t wokeNs) {
    Slice slice("vsync");
    pelyxTrackVsyncSignal();
    // The app's Choreographer hears of the same vsync and hands its time to smart touch.
    if (mAppVsync) aPelyxSetVsyncTime(tickNs);

    for (LayerRuntime* layer : mLayers) {
        while (!layer->pendingPresents.empty() && layer->pendingPresents.front().presentNs <= wokeNs) {
            present(*layer, layer->pendingPresents.front());
            layer->pendingPresents.pop_front();
        }
    }

    // A latch the thread reached after its vsync is shown at the next one.
    int64_t presentNs = grid().presentOf(tickNs);
    while (presentNs <= wokeNs) presentNs += mPeriodNs;
    if (presentNs != grid().presentOf(tickNs)) mLateTicks.insert(tickNs);

    FakeDevices& devices = FakeDevices::instance();
    bool unsignaled = false;
    for (LayerRuntime* layer : mLayers) {
        const std::optional<Frame> oldest = layer->queue.oldest();
        if (!oldest) continue;
        const int64_t now = android::platform::now();
        const int64_t readyNs = oldest->fenceFd >= 0 ? devices.signalTime(oldest->fenceFd) : oldest->queueNs;
        if (readyNs > now) {
            // The GPU is still at it: the buffer stays queued; the library hears of the fence.
            if (layer->lastLateFrame != oldest->number) {
                layer->lastLateFrame = oldest->number;
                ++layer->lateFences;
            }
            if (mFenceReportNow) {
                pelyxNotifyGpuFenceUnsignaled(oldest->fenceFd, layer->setup.id);
            } else {
                pelyxTrackLatchUnsignaledGpuFence(oldest->fenceFd, layer->setup.id);
                unsignaled = true;
            }
            continue;
        }
        if (oldest->desiredPresentNs > presentNs + kDueSlackNs) continue;  // not due yet

        Slice latch("latch " + layer->setup.label);
        android::platform::sleepFor(mLatchCostNs);
        PresentRecord record;
        const int pending = layer->queue.latch(&record.frame, android::platform::now() + mReleaseDelayNs, presentNs);
        if (record.frame.fenceFd >= 0) {
            record.gpuStartNs = devices.gpuStartTime(record.frame.fenceFd);
            devices.releaseFence(record.frame.fenceFd);
        }
        record.readyNs = readyNs;
        record.latchNs = tickNs;
        record.presentNs = presentNs;
        layer->pendingPresents.push_back(record);
        const Bounds& b = layer->setup.bounds;
        const PelyxRect bounds{b.left, b.top, b.right, b.bottom};
        pelyxTrackBufferDecrement(layer->setup.name.c_str(), layer->setup.id, pending, &bounds,
                                  layer->setup.focused, layer->setup.visible);
        android::platform::traceCounter(("queued " + layer->setup.label).c_str(), pending);
    }
    if (unsignaled) pelyxFlushLatchUnsignaledGpuFences();
}

void Compositor::present(LayerRuntime& layer, PresentRecord record) {
    Slice slice("present " + layer.setup.label);
    // Until the app's rhythm is known no present is judged by it.
    const double cadence = layer.cadenceFps.load();
    record.rhythmLate = layer.janks.onPresent(
            record.presentNs, mPeriodNs,
            cadence > 0 ? allowedVsyncs(mRefreshHz, cadence) : std::numeric_limits<int>::max());
    record.verdict = judgeFrame(record.frame, record.readyNs, record.presentNs, grid(), mLateTicks);
    if (layer.firstPresentNs < 0) layer.firstPresentNs = record.presentNs;
    layer.lastPresentNs = record.presentNs;
    layer.presents.push_back(record);
    layer.framesPresented.fetch_add(1);
}

} // namespace pelyx_sim
