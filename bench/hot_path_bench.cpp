// Cost of the compositor's per-frame entry calls: a queue + latch pair per tracked layer, a
// vsync, and two floors (an empty exported call; an uncontended lock plus one hash lookup).
// Time runs on a manual clock advanced 16.67 ms per frame, so layers are promoted and stay at
// 60 fps however fast the loop spins. Heap allocations on the calling thread are counted by
// the global operator new of this binary.

#include <benchmark/benchmark.h>
#include <utils/Mutex.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "layers/LayerManager.h"
#include "pelyx/pelyx.h"
#include "platform/HostControl.h"

// Sanitizer runtimes bring their own operator new; their builds time the path without counting.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PELYX_BENCH_SANITIZED 1
#endif
#endif

#ifndef PELYX_BENCH_SANITIZED
namespace {
thread_local uint64_t tAllocations = 0;

void* countedAlloc(size_t size) {
    tAllocations++;
    return std::malloc(size == 0 ? 1 : size);
}
} // namespace

// The whole benchmark binary allocates through these; only the counter is added.
void* operator new(size_t size) {
    if (void* p = countedAlloc(size)) return p;
    throw std::bad_alloc();
}
void* operator new[](size_t size) {
    if (void* p = countedAlloc(size)) return p;
    throw std::bad_alloc();
}
void* operator new(size_t size, const std::nothrow_t&) noexcept { return countedAlloc(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return countedAlloc(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }
#endif

namespace {

constexpr int64_t kFrameNs = 16'666'667; // 60 fps
constexpr int kWarmUpFrames = 120;       // 2 s: promotion (0.5 s) and two fps windows

std::atomic<int64_t> gNow{1'000'000'000};
int64_t manualNow() {
    return gNow.load(std::memory_order_relaxed);
}

struct BenchLayer {
    std::string name;
    int32_t id;
};

const std::vector<BenchLayer>& benchLayers() {
    static const std::vector<BenchLayer> layers = [] {
        std::vector<BenchLayer> out;
        for (int i = 1; i <= 4; i++) {
            const std::string pkg = "com.bench.app" + std::to_string(i);
            out.push_back({pkg + "/" + pkg + ".MainActivity#" + std::to_string(i), 100 + i});
        }
        return out;
    }();
    return layers;
}

void startLibrary() {
    static const bool started = [] {
        android::platform::host::setClock(&manualNow);
        const bool enabled = pelyxInit(1080, 2400);
        pelyxSetVsyncPeriod(kFrameNs);
        return enabled;
    }();
    if (!started) std::abort();
}

const PelyxRect kBounds{0, 0, 1080, 2400};

void queueAndLatch(const BenchLayer& layer) {
    pelyxTrackBufferIncrement(layer.name.c_str(), layer.id, false, 0, manualNow());
    pelyxTrackBufferDecrement(layer.name.c_str(), layer.id, 0, &kBounds, true, true);
}

// Brings `count` layers to full tracking at a steady 60 fps and lets the boost thread finish
// the classification work their promotion posted.
void warmUp(size_t count) {
    for (int frame = 0; frame < kWarmUpFrames; frame++) {
        gNow.fetch_add(kFrameNs, std::memory_order_relaxed);
        for (size_t i = 0; i < count; i++) queueAndLatch(benchLayers()[i]);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

void BM_HotPath_QueueLatchPair(benchmark::State& state) {
    startLibrary();
    // A compositor binder thread serving an app: the caller's identity is a thread-local read,
    // as on a device. (The host default asks the kernel for getpid/getuid on every call.)
    android::platform::host::setCallingIdentity(12345, 10123);
    const size_t count = static_cast<size_t>(state.range(0));
    warmUp(count);
    if (android::LayerManager::getInstance()->trackedLayerCount() < static_cast<int32_t>(count)) {
        state.SkipWithError("layers were not promoted to full tracking");
        return;
    }
    const std::vector<BenchLayer>& layers = benchLayers();
    size_t next = 0;
#ifndef PELYX_BENCH_SANITIZED
    const uint64_t allocationsBefore = tAllocations;
#endif
    for (auto _ : state) {
        queueAndLatch(layers[next]);
        if (++next == count) {
            next = 0;
            gNow.fetch_add(kFrameNs, std::memory_order_relaxed);
        }
    }
#ifndef PELYX_BENCH_SANITIZED
    state.counters["allocs_per_pair"] = benchmark::Counter(
            static_cast<double>(tAllocations - allocationsBefore), benchmark::Counter::kAvgIterations);
#endif
}
BENCHMARK(BM_HotPath_QueueLatchPair)->Arg(1)->Arg(4);

// Amortises the registry's periodic clean-up, which runs on the vsync path every 1.5 s.
void BM_HotPath_Vsync(benchmark::State& state) {
    startLibrary();
    for (auto _ : state) {
        pelyxTrackVsyncSignal();
        gNow.fetch_add(kFrameNs, std::memory_order_relaxed);
    }
}
BENCHMARK(BM_HotPath_Vsync);

// An app that names its layer with 1 MiB and no package, queueing at 120 Hz: after the first
// buffer the registry must not look at the name again.
void BM_HotPath_PackagelessHugeName(benchmark::State& state) {
    startLibrary();
    android::platform::host::setCallingIdentity(12345, 10999);
    const std::string name(1 << 20, 'n');
    pelyxTrackBufferIncrement(name.c_str(), 900, false, 0, manualNow()); // the one real look
    for (auto _ : state) {
        pelyxTrackBufferIncrement(name.c_str(), 900, false, 0, manualNow());
        gNow.fetch_add(8'333'333, std::memory_order_relaxed);
    }
}
BENCHMARK(BM_HotPath_PackagelessHugeName);

void BM_Floor_EmptyExportedCall(benchmark::State& state) {
    startLibrary();
    for (auto _ : state) {
        benchmark::DoNotOptimize(pelyxSmartTouchEnabled());
    }
}
BENCHMARK(BM_Floor_EmptyExportedCall);

void BM_Floor_LockAndHashLookup(benchmark::State& state) {
    android::Mutex lock;
    std::unordered_map<int, int> table;
    for (int id = 101; id <= 104; id++) table.emplace(id, id);
    int key = 101;
    for (auto _ : state) {
        android::Mutex::Autolock autolock(lock);
        auto it = table.find(key);
        benchmark::DoNotOptimize(it);
        key = key == 104 ? 101 : key + 1;
    }
}
BENCHMARK(BM_Floor_LockAndHashLookup);

} // namespace
