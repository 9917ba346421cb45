// Frame rescue on the compositor's queue path: what one frame begin and end of a game layer cost
// while "BLT" runs, i.e. cancelling the previous frame's check and scheduling the next one.

#include <benchmark/benchmark.h>

#include <string>

#include "gfr/GFRMonitor.h"
#include "platform/Clock.h"

using namespace android;

namespace {

void BM_GfrFrameBeginEnd(benchmark::State& state) {
    GFRMonitor& monitor = GFRMonitor::getInstance();
    if (!monitor.init()) {
        state.SkipWithError("GFRMonitor::init failed");
        return;
    }
    monitor.setVsyncInfo(16'666'666, 2);
    const int layers = static_cast<int>(state.range(0));
    for (int id = 1; id <= layers; ++id) {
        monitor.registerLayer(id, "com.game/com.game.Main#" + std::to_string(id), "com.game");
        monitor.setGFRActive(id, true);
    }
    int id = 1;
    for (auto _ : state) {
        // Frames follow each other well inside the first threshold: no check ever fires.
        const int64_t now = platform::now();
        monitor.onQueueBegin(id, now, 16'666'666, 8'000'000);
        monitor.onQueueEnd(id, now, 0);
        id = id % layers + 1;
    }
    monitor.forceStop();
}
BENCHMARK(BM_GfrFrameBeginEnd)->Arg(1)->Arg(4);

} // namespace
