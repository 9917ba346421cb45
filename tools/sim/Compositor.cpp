#include "Compositor.h"

#include <pthread.h>
#include <sched.h>
#include <time.h>

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

void sleepUntil(int64_t deadlineNs) {
    timespec ts{static_cast<time_t>(deadlineNs / 1'000'000'000),
                static_cast<long>(deadlineNs % 1'000'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

class Slice {
public:
    explicit Slice(const std::string& name) { android::platform::traceBegin(name.c_str()); }
    ~Slice() { android::platform::traceEnd(); }
};

} // namespace

Compositor::Compositor(std::vector<LayerRuntime*> layers, double refreshHz, bool recordFrames)
      : mLayers(std::move(layers)),
        mRecordFrames(recordFrames),
        mPeriodNs(static_cast<int64_t>(std::llround(1e9 / refreshHz))),
        mRefreshHz(refreshHz) {}

Compositor::~Compositor() {
    stop();
}

void Compositor::start(int64_t startNs) {
    mStartNs.store(startNs);
    mThread = std::thread([this] { run(); });
}

void Compositor::stop() {
    mStop.store(true);
    if (mThread.joinable()) mThread.join();
}

int64_t Compositor::nextVsyncAfter(int64_t t) const {
    const int64_t start = mStartNs.load();
    if (t < start) return start + mPeriodNs;
    return start + ((t - start) / mPeriodNs + 1) * mPeriodNs;
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
        sleepUntil(next);
        const int64_t woke = android::platform::now();
        mLatenessMs.push_back(static_cast<double>(woke - next) / 1e6);
        tick(next);
        mTicks.fetch_add(1);
        next += mPeriodNs;
        // A thread that woke more than a period late skips the vsyncs it slept through.
        const int64_t now = android::platform::now();
        while (next + mPeriodNs <= now) {
            next += mPeriodNs;
            ++mMissed;
        }
    }
}

void Compositor::tick(int64_t vsyncNs) {
    Slice slice("vsync");
    pelyxTrackVsyncSignal();

    for (LayerRuntime* layer : mLayers) {
        if (layer->hasPendingPresent) {
            layer->hasPendingPresent = false;
            present(*layer, layer->pendingPresent, vsyncNs);
        }
    }

    FakeDevices& devices = FakeDevices::instance();
    bool unsignaled = false;
    for (LayerRuntime* layer : mLayers) {
        const std::optional<Frame> oldest = layer->queue.oldest();
        if (!oldest) continue;
        const int64_t now = android::platform::now();
        if (oldest->fenceFd >= 0 && devices.signalTime(oldest->fenceFd) > now) {
            // The GPU is still at it: the buffer stays queued; the library hears of the fence.
            if (layer->lastLateFrame != oldest->number) {
                layer->lastLateFrame = oldest->number;
                ++layer->lateFences;
            }
            pelyxTrackLatchUnsignaledGpuFence(oldest->fenceFd, layer->setup.id);
            unsignaled = true;
            continue;
        }
        Slice latch("latch " + layer->setup.label);
        Frame frame;
        const int pending = layer->queue.latch(&frame);
        if (frame.fenceFd >= 0) devices.releaseFence(frame.fenceFd);
        const Bounds& b = layer->setup.bounds;
        const PelyxRect bounds{b.left, b.top, b.right, b.bottom};
        pelyxTrackBufferDecrement(layer->setup.name.c_str(), layer->setup.id, pending, &bounds,
                                  layer->setup.focused, layer->setup.visible);
        layer->pendingPresent = frame;
        layer->hasPendingPresent = true;
        android::platform::traceCounter(("queued " + layer->setup.label).c_str(), pending);
    }
    if (unsignaled) pelyxFlushLatchUnsignaledGpuFences();
}

void Compositor::present(LayerRuntime& layer, const Frame& frame, int64_t vsyncNs) {
    Slice slice("present " + layer.setup.label);
    // Until the app's rhythm is known no present is judged.
    const double cadence = layer.cadenceFps.load();
    const bool late = layer.janks.onPresent(
            vsyncNs, mPeriodNs,
            cadence > 0 ? allowedVsyncs(mRefreshHz, cadence) : std::numeric_limits<int>::max());
    if (mRecordFrames) layer.presents.push_back({frame, vsyncNs, late});
    if (frame.touchNs > 0) {
        layer.inputToPresentMs.push_back(static_cast<double>(vsyncNs - frame.touchNs) / 1e6);
    }
    if (layer.firstPresentNs < 0) layer.firstPresentNs = vsyncNs;
    layer.lastPresentNs = vsyncNs;
    layer.framesPresented.fetch_add(1);
}

} // namespace pelyx_sim
