// Hold accuracy of the headroom monitor: how late a held queue thread returns against the
// point at which it was meant to be released, for the "PHR" worker's vsync-aligned release and
// for target-fps pacing (p50/p99/max in microseconds), plus the cost of a queue call that is not
// held. Real clock; about five seconds in all.

#include <benchmark/benchmark.h>
#include <utils/Timers.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "phr/PHRMonitor.h"
#include "platform/HostControl.h"

using namespace android;

namespace {

constexpr int64_t kPeriod = 16'666'666; // 60 Hz
constexpr int32_t kHoldLayer = 9001;
constexpr int32_t kPacedLayer = 9002;
constexpr int32_t kFreeLayer = 9003;

int64_t nowNs() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

PHRMonitor* monitor() {
    platform::host::setClock(nullptr); // another benchmark may have left a manual clock
    PHRMonitor* m = PHRMonitor::getInstance();
    m->init();
    m->setVsyncInfo(kPeriod, 60);
    return m;
}

void report(benchmark::State& state, std::vector<int64_t>& samples) {
    if (samples.empty()) return;
    std::sort(samples.begin(), samples.end());
    auto percentile = [&samples](double p) {
        const size_t index =
                static_cast<size_t>(p * static_cast<double>(samples.size() - 1) + 0.5);
        return static_cast<double>(samples[index]) / 1000.0;
    };
    state.counters["p50_us"] = percentile(0.50);
    state.counters["p99_us"] = percentile(0.99);
    state.counters["max_us"] = static_cast<double>(samples.back()) / 1000.0;
}

// Each iteration: a latch one period ahead (so the next buffer is two periods early), a vsync,
// and a buffer queued right after it. The worker should release it P - (H mod P) after the
// vsync; the hold's own time-out would end it at P after the queue.
void BM_PHR_WorkerReleaseLateness(benchmark::State& state) {
    PHRMonitor* m = monitor();
    m->registerLayer(kHoldLayer, "bench.hold", 0.5f, 0.5f);
    sp<LayerPHRState> layer = m->getLayerState(kHoldLayer);
    std::vector<int64_t> samples;
    int64_t timeouts = 0;
    for (auto _ : state) {
        m->setQuickTouchStatus(kHoldLayer, true); // back on if a slow iteration looked like jank
        if (m->quickTouchLayerId() != kHoldLayer) {
            state.SkipWithError("quick touch is owned by another layer");
            break;
        }
        m->onBufferDecrement(kHoldLayer, 0, nowNs() + kPeriod);
        const int64_t intended = kPeriod - layer->mHeadroom.load() % kPeriod;
        const int64_t vsync = nowNs();
        m->onVsync(vsync);
        m->onBufferIncrement(kHoldLayer, kPeriod, nowNs(), false);
        samples.push_back(nowNs() - (vsync + intended));
        if (layer->mTimedOut.load()) timeouts++;
    }
    m->unregisterLayer(kHoldLayer);
    report(state, samples);
    state.counters["timeouts"] = static_cast<double>(timeouts);
}
BENCHMARK(BM_PHR_WorkerReleaseLateness)->Unit(benchmark::kMillisecond)->UseRealTime()
        ->Iterations(200);

// Back-to-back buffers of a layer paced to 120 fps: each should return at its deadline.
void BM_PHR_TargetFpsPacingLateness(benchmark::State& state) {
    PHRMonitor* m = monitor();
    m->registerLayer(kPacedLayer, "bench.paced", 0.5f, 0.5f);
    m->setTargetFpsStatus(kPacedLayer, true, 240.0f, 120.0f);
    sp<LayerPHRState> layer = m->getLayerState(kPacedLayer);
    std::vector<int64_t> samples;
    for (auto _ : state) {
        m->onBufferIncrement(kPacedLayer, kPeriod, nowNs(), false);
        const int64_t returned = nowNs();
        if (layer->frameIndex() > 0) samples.push_back(returned - layer->nextDeadline());
    }
    m->unregisterLayer(kPacedLayer);
    report(state, samples);
}
BENCHMARK(BM_PHR_TargetFpsPacingLateness)->Unit(benchmark::kMillisecond)->UseRealTime()
        ->Iterations(300);

// A registered layer without quick touch or pacing: lookup, bookkeeping and trace checks.
void BM_PHR_QueueNotHeld(benchmark::State& state) {
    PHRMonitor* m = monitor();
    m->registerLayer(kFreeLayer, "bench.free", 0.5f, 0.5f);
    int64_t t = nowNs();
    for (auto _ : state) {
        t += kPeriod;
        m->onBufferIncrement(kFreeLayer, kPeriod, t, false);
    }
    m->unregisterLayer(kFreeLayer);
}
BENCHMARK(BM_PHR_QueueNotHeld);

} // namespace
