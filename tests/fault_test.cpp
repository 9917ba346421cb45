// Real faults from the kernel: no descriptors left, no threads allowed. The library degrades with
// its log lines and the compositor's calls keep working.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

#include "PerfdControl.h"
#include "layers/LayerManager.h"
#include "pelyx/pelyx.h"
#include "perf/PerfProxy.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "timer/TimerQueue.h"

using namespace android;
using pelyx_test::LogCapture;
using pelyx_test::ManualClock;

namespace {
constexpr int64_t k60Hz = 16'666'666;

// A 60 fps layer through the entry points for a second: promoted if the registry works.
void playOneSecond(ManualClock& clock) {
    const char* name = "com.fault/com.fault.Main#1";
    const PelyxRect bounds{0, 0, 1080, 2400};
    for (int i = 0; i < 60; i++) {
        clock.advance(k60Hz);
        pelyxTrackBufferIncrement(name, 1, false, 0, clock.now());
        pelyxTrackVsyncSignal();
        pelyxTrackBufferDecrement(name, 1, 0, &bounds, true, true);
    }
}
} // namespace

TEST(Faults, NoDescriptorsForTheBoostThreadsQueue) {
    LogCapture logs;
    perfd_stub::reset(); // the client library is loaded already: no descriptor needed for it
    // UBSan's first type check of a class needs a descriptor of its own: meet the type first.
    sp<TimerQueue> warm = new TimerQueue();
    warm.clear();
    std::vector<int> held;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) held.push_back(fd);
    ASSERT_EQ(errno, EMFILE);
    PerfProxy* perf = PerfProxy::getInstance();
    for (int fd : held) close(fd);

    EXPECT_FALSE(perf->isBoostThreadRunning());
    EXPECT_EQ(perf->postTask([] {}), 0u);
    EXPECT_GE(logs.countContaining("Pelyx.TimerQueue", "epoll_create1 failed: "), 1u);

    // Without the boost thread the compositor side still tracks layers.
    ManualClock clock;
    ASSERT_TRUE(pelyxInit(1080, 2400));
    pelyxSetVsyncPeriod(k60Hz);
    playOneSecond(clock);
    EXPECT_EQ(LayerManager::getInstance()->trackedLayerCount(), 1);
}

TEST(Faults, NoThreadsAllowed) {
    // Root is exempt from the process limit, so become an ordinary user first.
    if (getuid() == 0 && setuid(65534) != 0) GTEST_SKIP() << "cannot drop root";
    if (getuid() == 0) GTEST_SKIP() << "still root";
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NPROC, &limit), 0);
    const rlimit saved = limit;
    limit.rlim_cur = 0; // the hard limit stays, so the leak checker can have its thread at exit
    ASSERT_EQ(setrlimit(RLIMIT_NPROC, &limit), 0);

    LogCapture logs;
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    EXPECT_TRUE(pelyxInit(1080, 2400)) << "a watcher that cannot start is logged, not fatal";
    EXPECT_FALSE(PerfProxy::getInstance()->isBoostThreadRunning());
    EXPECT_EQ(logs.count("Pelyx", ANDROID_LOG_ERROR, "BoostThread Creation Failed"), 1u);
    EXPECT_GE(logs.countContaining("Pelyx", "in propertyMonitor"), 1u);

    LayerManager* lm = LayerManager::getInstance();
    EXPECT_FALSE(lm->initGFREnv());
    EXPECT_EQ(logs.count("Pelyx.LayerManager", ANDROID_LOG_ERROR, "Failed to initialize GFRMonitor"),
              1u);
    lm->setSmartTouchEnable(true);
    EXPECT_FALSE(lm->initPHREnv());
    EXPECT_EQ(logs.count("Pelyx.LayerManager", ANDROID_LOG_ERROR, "Failed to initialize PHRMonitor"),
              1u);

    ManualClock clock;
    pelyxSetVsyncPeriod(k60Hz);
    playOneSecond(clock);
    EXPECT_EQ(lm->trackedLayerCount(), 1);
    setrlimit(RLIMIT_NPROC, &saved);
}
