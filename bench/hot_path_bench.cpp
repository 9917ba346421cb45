// Cost of the compositor's per-frame entry calls: a queue + latch pair per tracked layer, a
// vsync, and two floors (an empty exported call; an uncontended lock plus one hash lookup).
// Time runs on a manual clock advanced 16.67 ms per frame, so layers are promoted and stay at
// 60 fps however fast the loop spins. Heap allocations on the calling thread are counted by
// the global operator new of this binary.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <utils/Mutex.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "PerfdControl.h"
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
// Out of line: inlined into operator delete, GCC takes the malloc'd block for a mismatch.
__attribute__((noinline)) void release(void* p) {
    std::free(p);
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
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, size_t) noexcept { release(p); }
void operator delete[](void* p, size_t) noexcept { release(p); }
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

// Three sets of four layers: plain apps, games with headroom rates (registered with the PHR
// monitor, quick touch off, so never held) and games with frame rescue active.
enum class Monitor { kNone = 0, kHeadroom = 1, kFrameRescue = 2 };
const char* const kSetNames[] = {"app", "phr", "gfr"};

const std::vector<BenchLayer>& benchLayers(Monitor monitor = Monitor::kNone) {
    static const std::vector<std::vector<BenchLayer>> sets = [] {
        std::vector<std::vector<BenchLayer>> out(3);
        for (int set = 0; set < 3; set++) {
            for (int i = 1; i <= 4; i++) {
                const std::string pkg = std::string("com.bench.") + kSetNames[set] + std::to_string(i);
                out[set].push_back({pkg + "/" + pkg + ".MainActivity#" + std::to_string(i),
                                    100 * (set + 1) + i});
            }
        }
        return out;
    }();
    return sets[static_cast<int>(monitor)];
}

// Configuration is read once per process, possibly by an earlier benchmark: set it at load.
const bool kConfigured = [] {
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    return true;
}();

void startLibrary() {
    static const bool started = [] {
        android::platform::host::setClock(&manualNow);
        for (int i = 1; i <= 4; i++) {
            for (const char* set : {"phr", "gfr"}) {
                const std::string pkg = std::string("com.bench.") + set + std::to_string(i);
                perfd_stub::setGame(pkg, true);
                perfd_stub::setGameWeight(pkg, 1);
            }
        }
        const bool enabled = pelyxInit(1080, 2400);
        pelyxSetVsyncPeriod(kFrameNs);
        for (int i = 1; i <= 4; i++) {
            const std::string phr = "com.bench.phr" + std::to_string(i);
            const std::string gfr = "com.bench.gfr" + std::to_string(i);
            perfd_stub::pushHint(4187, phr, 0, 0, {0, 80, 0, 120});
            perfd_stub::pushHint(4189, gfr + ":golden=0.8", 0, 0, {1});
        }
        return enabled;
    }();
    if (!started) std::abort();
}

const PelyxRect kBounds{0, 0, 1080, 2400};

void queueAndLatch(const BenchLayer& layer) {
    pelyxTrackBufferIncrement(layer.name.c_str(), layer.id, false, 0, manualNow());
    pelyxTrackBufferDecrement(layer.name.c_str(), layer.id, 0, &kBounds, true, true);
}

// Brings `count` layers of a set to full tracking at a steady 60 fps: promotion, then a pause
// for the boost thread to classify the games, then windows that switch their monitors on.
void warmUp(size_t count, Monitor monitor) {
    // Layers of an earlier run go silent and leave at the vsync path's clean-ups.
    for (int i = 0; i < 3; i++) {
        gNow.fetch_add(1'600'000'000, std::memory_order_relaxed);
        pelyxTrackVsyncSignal();
    }
    const std::vector<BenchLayer>& layers = benchLayers(monitor);
    auto play = [&](int frames) {
        for (int frame = 0; frame < frames; frame++) {
            gNow.fetch_add(kFrameNs, std::memory_order_relaxed);
            for (size_t i = 0; i < count; i++) queueAndLatch(layers[i]);
        }
    };
    play(40);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    play(kWarmUpFrames);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

void runPairs(benchmark::State& state, Monitor monitor, size_t count) {
    startLibrary();
    // A compositor binder thread serving an app: the caller's identity is a thread-local read,
    // as on a device. (The host default asks the kernel for getpid/getuid on every call.) Each
    // set is its own app: identity is cached per uid.
    android::platform::host::setCallingIdentity(12345, 10123 + static_cast<int>(monitor));
    warmUp(count, monitor);
    const std::vector<BenchLayer>& layers = benchLayers(monitor);
    android::LayerManager* lm = android::LayerManager::getInstance();
    for (size_t i = 0; i < count; i++) {
        auto status = lm->getLayerStatus(layers[i].id);
        const bool ready = status && (monitor != Monitor::kHeadroom || status->phrRegistered) &&
                (monitor != Monitor::kFrameRescue || status->gfrActive);
        if (!ready) {
            state.SkipWithError("layers did not reach full tracking with their monitor");
            return;
        }
    }
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

void BM_HotPath_QueueLatchPair(benchmark::State& state) {
    runPairs(state, Monitor::kNone, static_cast<size_t>(state.range(0)));
}
BENCHMARK(BM_HotPath_QueueLatchPair)->Arg(1)->Arg(4);

void BM_HotPath_PairHeadroomRegistered(benchmark::State& state) {
    runPairs(state, Monitor::kHeadroom, static_cast<size_t>(state.range(0)));
}
BENCHMARK(BM_HotPath_PairHeadroomRegistered)->Arg(1)->Arg(4);

void BM_HotPath_PairFrameRescueActive(benchmark::State& state) {
    runPairs(state, Monitor::kFrameRescue, static_cast<size_t>(state.range(0)));
}
BENCHMARK(BM_HotPath_PairFrameRescueActive)->Arg(1)->Arg(4);

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

// A layer whose app picked a hostile name, from its first buffer to its removal: first sight
// (classification), 0.5 s as a candidate, promotion, the fps windows that switch its monitors on
// (the package is a game with frame rescue and headroom configured), and the clean-ups that remove
// it. Every exported call is timed on its own; the worst per stage is reported. A prober thread
// takes the registry lock every 50 us and reports the longest it waited, an upper estimate of the
// longest hold. Arguments: name length in MiB, and the shape: 0 no package anywhere, 1 the
// SurfaceView form the expression captures from, 2 an activity name ("pkg/..."), 3 an ordinary
// short name of the same app, the control.
constexpr const char* kHostilePackage = "com.hostile.game";

std::string hostileName(size_t bytes, int shape) {
    const std::string pkg = kHostilePackage;
    switch (shape) {
        case 1: {
            const std::string head = "SurfaceView[" + pkg + "/";
            return head + std::string(bytes - head.size() - 2, 'p') + "#1";
        }
        case 2: {
            const std::string head = pkg + "/";
            return head + std::string(bytes - head.size() - 2, 'a') + "#1";
        }
        case 3: // the control: a name as apps give them
            return pkg + "/" + pkg + ".MainActivity#1";
        default:
            return std::string(bytes, 'n');
    }
}

void BM_HotPath_HostileName(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    startLibrary();
    static const bool configured = [] {
        perfd_stub::setGame(kHostilePackage, true);
        perfd_stub::setGameWeight(kHostilePackage, 1);
        perfd_stub::pushHint(4187, kHostilePackage, 0, 0, {0, 80, 0, 120});
        perfd_stub::pushHint(4189, std::string(kHostilePackage) + ":golden=0.8", 0, 0, {1});
        return true;
    }();
    benchmark::DoNotOptimize(configured);
    // An app of its own per shape: the registry knows apps by uid.
    android::platform::host::setCallingIdentity(23456, 10770 + static_cast<int>(state.range(1)));
    const std::string name = hostileName(static_cast<size_t>(state.range(0)) << 20,
                                         static_cast<int>(state.range(1)));
    android::LayerManager* lm = android::LayerManager::getInstance();

    // A call during which the kernel preempted the thread (another runnable thread took the
    // core: this machine has two) measures the machine, not the call. Such calls are counted and
    // their worst is kept apart; waits inside the call (locks, conditions) still count. The
    // prober leaves out its own preempted probes the same way.
    auto involuntarySwitches = [] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_nivcsw;
    };
    std::atomic<bool> done{false};
    int64_t worstWaitNs = 0;
    std::thread prober([&] {
        while (!done.load()) {
            const long switches = involuntarySwitches();
            const auto start = Clock::now();
            benchmark::DoNotOptimize(lm->candidateCount());
            const int64_t waited = std::chrono::nanoseconds(Clock::now() - start).count();
            if (involuntarySwitches() == switches) worstWaitNs = std::max(worstWaitNs, waited);
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    enum Stage { kFirst, kCandidate, kPromotion, kTracked, kCleanup, kStages };
    int64_t worst[kStages] = {};
    int64_t worstPreemptedNs = 0;
    int preempted = 0;
    auto timed = [&](auto&& call) -> int64_t {
        const long switches = involuntarySwitches();
        const auto start = Clock::now();
        call();
        const int64_t ns = std::chrono::nanoseconds(Clock::now() - start).count();
        if (involuntarySwitches() == switches) return ns;
        preempted++;
        worstPreemptedNs = std::max(worstPreemptedNs, ns);
        return 0;
    };
    auto note = [&](Stage stage, int64_t ns) { worst[stage] = std::max(worst[stage], ns); };
    bool featuresOn = false;
    static int32_t sId = 7000; // a fresh layer id each time: a package-less id is remembered
    for (auto _ : state) {
        const int32_t id = ++sId;
        bool tracked = false;
        for (int frame = 0; frame < 150; frame++) { // 2.5 s at 60 fps
            gNow.fetch_add(kFrameNs, std::memory_order_relaxed);
            const int64_t queued = timed(
                    [&] { pelyxTrackBufferIncrement(name.c_str(), id, false, 0, manualNow()); });
            Stage stage = frame == 0 ? kFirst : tracked ? kTracked : kCandidate;
            if (!tracked && lm->getLayerStatus(id)) {
                tracked = true;
                stage = kPromotion;
                // The boost thread classifies the app; its monitors follow at the next window.
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            note(stage, queued);
            note(stage, timed([&] {
                pelyxTrackBufferDecrement(name.c_str(), id, 0, &kBounds, true, true);
            }));
        }
        if (auto status = lm->getLayerStatus(id)) {
            featuresOn = featuresOn || (status->gfrActive && status->phrRegistered);
        }
        for (int i = 0; i < 3; i++) { // silent: marked inactive, then removed
            gNow.fetch_add(1'600'000'000, std::memory_order_relaxed);
            note(kCleanup, timed([] { pelyxTrackVsyncSignal(); }));
        }
    }
    done = true;
    prober.join();
    int64_t worstCall = 0;
    for (int64_t w : worst) worstCall = std::max(worstCall, w);
    state.counters["worst_call_us"] = static_cast<double>(worstCall) / 1e3;
    state.counters["preempted_calls"] = preempted;
    state.counters["worst_preempted_us"] = static_cast<double>(worstPreemptedNs) / 1e3;
    state.counters["first_sight_us"] = static_cast<double>(worst[kFirst]) / 1e3;
    state.counters["candidate_us"] = static_cast<double>(worst[kCandidate]) / 1e3;
    state.counters["promotion_us"] = static_cast<double>(worst[kPromotion]) / 1e3;
    state.counters["tracked_us"] = static_cast<double>(worst[kTracked]) / 1e3;
    state.counters["cleanup_us"] = static_cast<double>(worst[kCleanup]) / 1e3;
    state.counters["lock_wait_us"] = static_cast<double>(worstWaitNs) / 1e3;
    state.counters["features_on"] = featuresOn ? 1 : 0;
}
BENCHMARK(BM_HotPath_HostileName)
        ->ArgsProduct({{1, 16}, {0, 1, 2}})
        ->Args({0, 3})
        ->ArgNames({"MiB", "shape"})
        ->Unit(benchmark::kMillisecond)
        ->Iterations(3);

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
