// Many compositor-like threads against the whole library at once: layers that come and go,
// vsync, latches, fences, configuration pushes, smart-touch switch flips and a registry stop at a
// random moment. A watchdog fails the run if any thread stays inside one call for too long.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "PerfdControl.h"
#include "layers/LayerManager.h"
#include "pelyx/pelyx.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "stress/Watchdog.h"

using namespace android;
using Clock = std::chrono::steady_clock;
using pelyx_test::Watchdog;

namespace {

constexpr int64_t k60Hz = 16'666'666;

// Fences behind the ioctl table: every descriptor names a GPU timeline; deadlines succeed.
int fenceIoctl(int, unsigned long request, void* arg) {
    if (request == 0xC0383E04) {
        memset(arg, 0, 56);
        strcpy(static_cast<char*>(arg), "mavu-timeline-stress");
    }
    return 0;
}
const platform::IoctlTable kFences{[](const char*, int) { return 77; }, fenceIoctl,
                                   [](int) { return 0; }};

} // namespace

TEST(Stress, NoThreadStaysBlockedAndNothingBreaks) {
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
    perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "1");
    for (int app = 0; app < 8; app++) {
        const std::string pkg = "com.stress.app" + std::to_string(app);
        perfd_stub::setGame(pkg, app % 2 == 0);
        perfd_stub::setGameWeight(pkg, app);
    }
    platform::host::setIoctlTable(&kFences);
    ASSERT_TRUE(pelyxInit(1080, 2400));
    pelyxSetVsyncPeriod(k60Hz);

    const int seconds = pelyx_test::secondsFromEnv("PELYX_STRESS_SECONDS", 4);
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    std::atomic<bool> running{true};
    Watchdog watchdog(7, std::chrono::seconds(2));
    std::vector<std::thread> threads;
    std::atomic<uint64_t> calls{0};

    // Compositor queue threads: each serves a few layers whose ids churn.
    for (int t = 0; t < 3; t++) {
        Watchdog::Beat& beat = watchdog.beat(t, "queue " + std::to_string(t));
        threads.emplace_back([&, t, &beat = beat] {
            std::mt19937 rng(t);
            platform::host::setCallingIdentity(2000 + t, 10'100 + t);
            int generation = 0;
            while (running.load()) {
                const int app = (t * 3 + generation) % 8;
                const int32_t id = 100 + t * 1000 + generation % 50;
                const std::string pkg = "com.stress.app" + std::to_string(app);
                const std::string name = pkg + "/" + pkg + ".Main#" + std::to_string(id);
                const PelyxRect bounds{0, 0, 1080, static_cast<int32_t>(1200 + app * 100)};
                const auto until = Clock::now() + std::chrono::milliseconds(300 + rng() % 900);
                while (running.load() && Clock::now() < until) {
                    {
                        Watchdog::Call call(beat);
                        pelyxTrackBufferIncrement(name.c_str(), id, rng() % 2, rng() % 2, 0);
                        pelyxTrackBufferDecrement(name.c_str(), id, rng() % 3, &bounds, rng() % 4 != 0,
                                                  rng() % 8 != 0);
                    }
                    calls++;
                    std::this_thread::sleep_for(std::chrono::microseconds(8'000 + rng() % 12'000));
                }
                generation++;
            }
        });
    }
    using std::chrono::milliseconds;
    threads.push_back(watchdog.periodic(3, "vsync", running, std::chrono::nanoseconds(k60Hz), [&] {
        pelyxTrackVsyncSignal();
        pelyxUnblockPendingBuffer();
        calls++;
    }));
    threads.push_back(watchdog.periodic(4, "fences", running, milliseconds(3), [&, rng = std::mt19937(4)]() mutable {
        const int32_t id = 100 + (rng() % 3) * 1000 + rng() % 50;
        pelyxNotifyGpuFenceUnsignaled(5, id);
        pelyxTrackLatchUnsignaledGpuFence(6, id);
        pelyxFlushLatchUnsignaledGpuFences();
        calls++;
    }));
    // The performance service pushing configuration.
    threads.push_back(watchdog.periodic(5, "service", running, milliseconds(20), [&, rng = std::mt19937(5)]() mutable {
        const std::string pkg = "com.stress.app" + std::to_string(rng() % 8);
        switch (rng() % 5) {
            case 0: perfd_stub::pushHint(4171, pkg, 3000 + rng() % 9000, 0, {}); break;
            case 1: perfd_stub::pushHint(4187, pkg, 0, 0, {0, int(rng() % 150), 0, int(rng() % 200)}); break;
            case 2: perfd_stub::pushHint(4189, pkg + ":golden=0.8_dynamic=1", 0, 0, {int(rng() % 3)}); break;
            case 3: perfd_stub::pushHint(4192, pkg, rng() % 3, rng() % 2, {}); break;
            default: perfd_stub::pushHint(4171, "", 0, 0, {}); break;
        }
        perfd_stub::clearCalls();
        calls++;
    }));
    // Smart-touch switch flips, and one registry stop at a random moment.
    std::mt19937 switchRng(6);
    const auto stopAt = Clock::now() + milliseconds(switchRng() % (seconds * 1000));
    threads.push_back(watchdog.periodic(6, "switches", running, milliseconds(50),
                                        [&, rng = switchRng, stopped = false]() mutable {
        platform::setProperty("debug.vendor.perf.smart_touch", rng() % 2 ? "1" : "0");
        if (!stopped && Clock::now() >= stopAt) {
            LayerManager::getInstance()->stop();
            stopped = true;
        }
        calls++;
    }));

    while (Clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        watchdog.exitIfBlocked();
    }
    running.store(false);
    for (std::thread& thread : threads) thread.join();
    platform::host::setIoctlTable(nullptr);
    EXPECT_GT(calls.load(), 1000u);
    printf("stress: %d s, %zu threads, %llu library calls\n", seconds, threads.size(),
           static_cast<unsigned long long>(calls.load()));
}
