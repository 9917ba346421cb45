// A long run with layer churn and configuration pushes at device-like rates: resident memory
// stays flat after warm-up, no error line is logged and no thread is left blocked.
// PELYX_SOAK_SECONDS sets the length (8 s by default; make soak runs minutes).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <thread>

#include "PerfdControl.h"
#include "pelyx/pelyx.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"
#include "stress/Watchdog.h"
#include "support/FakeBoostDevice.h"
#include "support/LogCapture.h"

using namespace android;
using pelyx_test::Watchdog;
using Clock = std::chrono::steady_clock;

namespace {

double residentMiB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * sysconf(_SC_PAGESIZE) / (1024.0 * 1024.0);
}


} // namespace

TEST(Soak, MemoryStaysFlatWithChurnAndPushes) {
    pelyx_test::LogCapture logs;
    pelyx_test::FakeBoostDevice device;
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
    for (int app = 0; app < 20; app++) {
        const std::string pkg = "com.soak.app" + std::to_string(app);
        perfd_stub::setGame(pkg, true);
        perfd_stub::setGameWeight(pkg, 2);
    }
    platform::setProperty("debug.vendor.perf.smart_touch", "1");
    ASSERT_TRUE(pelyxInit(1080, 2400));
    pelyxSetVsyncPeriod(16'666'666);

    const int seconds = pelyx_test::secondsFromEnv("PELYX_SOAK_SECONDS", 8);
    std::atomic<bool> running{true};
    Watchdog watchdog(4, std::chrono::seconds(2));
    std::vector<std::thread> threads;

    // Two compositor queue threads; every few seconds an app goes and a new one comes.
    for (int t = 0; t < 2; t++) {
        Watchdog::Beat& beat = watchdog.beat(t, "queue " + std::to_string(t));
        threads.emplace_back([&, t, &beat = beat] {
            platform::host::setCallingIdentity(3000 + t, 20'000 + t);
            const auto period = std::chrono::microseconds(t == 0 ? 16'667 : 8'333);
            auto next = Clock::now();
            for (int generation = 0; running.load(); generation++) {
                const int app = (t * 10 + generation) % 20;
                const int32_t id = 1 + t * 100'000 + generation;
                const std::string pkg = "com.soak.app" + std::to_string(app);
                const std::string name = pkg + "/" + pkg + ".Main#" + std::to_string(id);
                const PelyxRect bounds{0, 0, 1080, 2400};
                const auto until = Clock::now() + std::chrono::seconds(3);
                while (running.load() && Clock::now() < until) {
                    {
                        Watchdog::Call call(beat);
                        pelyxTrackBufferIncrement(name.c_str(), id, false, 0, 0);
                        pelyxTrackBufferDecrement(name.c_str(), id, 0, &bounds, t == 0, true);
                    }
                    next += period;
                    std::this_thread::sleep_until(next);
                }
            }
        });
    }
    threads.push_back(watchdog.periodic(2, "vsync", running, std::chrono::microseconds(16'667),
                                        [] { pelyxTrackVsyncSignal(); }));
    threads.push_back(watchdog.periodic(3, "service", running, std::chrono::milliseconds(50),
                                        [rng = std::mt19937(3)]() mutable {
        const std::string pkg = "com.soak.app" + std::to_string(rng() % 20);
        switch (rng() % 4) {
            case 0: perfd_stub::pushHint(4171, pkg, 3000 + rng() % 6000, 0, {}); break;
            case 1: perfd_stub::pushHint(4187, pkg, 0, 0, {0, 70 + int(rng() % 30), 0, 120}); break;
            case 2: perfd_stub::pushHint(4189, pkg + ":golden=0.8_dynamic=1", 0, 0, {1}); break;
            default: perfd_stub::pushHint(4192, pkg, 1, 0, {}); break;
        }
        perfd_stub::clearCalls();
    }));

    const double startMiB = residentMiB();
    double warmMiB = startMiB;
    double peakAfterWarmUp = 0;
    const auto start = Clock::now();
    for (int s = 1; s <= seconds; s++) {
        std::this_thread::sleep_until(start + std::chrono::seconds(s));
        watchdog.exitIfBlocked();
        const double now = residentMiB();
        if (s == std::max(1, seconds / 4)) warmMiB = now;
        if (s > seconds / 4) peakAfterWarmUp = std::max(peakAfterWarmUp, now);
        // Logs are kept for the error count only; the rest would grow the test's own memory.
        for (const auto& line : logs.lines()) ASSERT_LT(line.priority, ANDROID_LOG_ERROR) << line.message;
        logs.clear();
    }
    running.store(false);
    for (std::thread& thread : threads) thread.join();
    const double endMiB = residentMiB();
    printf("soak: %d s, RSS start %.1f MiB, after warm-up %.1f MiB, peak after %.1f MiB, end %.1f MiB\n",
           seconds, startMiB, warmMiB, peakAfterWarmUp, endMiB);
    EXPECT_LT(peakAfterWarmUp - warmMiB, 4.0) << "resident memory grew after warm-up";
}
