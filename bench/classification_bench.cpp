// Cost of turning a layer name into a package name, for ordinary and app-chosen hostile names.
// Bytes per second count the whole name, though no more than its first 4 KiB is read.

#include <benchmark/benchmark.h>

#include <string>

#include "perf/PerfProxy.h"

namespace {

void runPackageName(benchmark::State& state, const std::string& name) {
    android::PerfProxy* proxy = android::PerfProxy::getInstance();
    for (auto _ : state) {
        std::string package = proxy->getPackageName(name);
        benchmark::DoNotOptimize(package);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(name.size()));
}

std::string repeated(const std::string& unit, size_t totalBytes) {
    std::string text;
    text.reserve(totalBytes + unit.size());
    while (text.size() < totalBytes) text += unit;
    return text;
}

void BM_PackageName_SurfaceView(benchmark::State& state) {
    runPackageName(state,
                   "SurfaceView[com.example.game/com.example.game.MainActivity](BLAST)#1234");
}
BENCHMARK(BM_PackageName_SurfaceView);

void BM_PackageName_Activity(benchmark::State& state) {
    runPackageName(state, "com.example.mail/com.example.mail.ui.InboxActivity#57");
}
BENCHMARK(BM_PackageName_Activity);

void BM_PackageName_OneMiBPlain(benchmark::State& state) {
    runPackageName(state, std::string(1 << 20, 'a'));
}
BENCHMARK(BM_PackageName_OneMiBPlain)->Unit(benchmark::kMillisecond);

// Starts like a SurfaceView name, so the expression runs over the whole megabyte.
void BM_PackageName_OneMiBSurfaceViewRepeated(benchmark::State& state) {
    runPackageName(state, repeated("SurfaceView[", 1 << 20));
}
BENCHMARK(BM_PackageName_OneMiBSurfaceViewRepeated)->Unit(benchmark::kMillisecond);

// A megabyte that would match in full; only its first 4 KiB are read, and they do not match.
void BM_PackageName_OneMiBSurfaceViewCapture(benchmark::State& state) {
    runPackageName(state, "SurfaceView[" + std::string(1 << 20, 'p') + "#1");
}
BENCHMARK(BM_PackageName_OneMiBSurfaceViewCapture)->Unit(benchmark::kMillisecond);

// The costliest name there is now: as long as is read, and matched in full, so the capture is
// tracked across all of it.
void BM_PackageName_FourKiBSurfaceViewCapture(benchmark::State& state) {
    runPackageName(state, "SurfaceView[" + std::string(4096 - 14, 'p') + "#1");
}
BENCHMARK(BM_PackageName_FourKiBSurfaceViewCapture)->Unit(benchmark::kMicrosecond);

} // namespace
