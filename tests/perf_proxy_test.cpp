#include "perf/PerfProxy.h"

#include <PerfdControl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "platform/HostControl.h"
#include "support/LogCapture.h"
#include "support/Threads.h"

using android::PerfProxy;

using pelyx_test::threadsNamed;

namespace {
// Runs on the boost thread strictly after everything already posted (a later deadline).
void drain(PerfProxy* proxy) {
    std::promise<void> done;
    ASSERT_NE(0u, proxy->postTaskDelayed(5'000'000, [&] { done.set_value(); }));
    ASSERT_EQ(std::future_status::ready, done.get_future().wait_for(std::chrono::seconds(5)));
}

// The calls of one kind, as their scalar arguments followed by their argument list.
std::vector<std::vector<int>> callsTo(const std::string& fn) {
    std::vector<std::vector<int>> out;
    for (const perfd_stub::Call& c : perfd_stub::calls()) {
        if (c.fn != fn) continue;
        out.push_back(c.ints);
        out.back().insert(out.back().end(), c.args.begin(), c.args.end());
    }
    return out;
}

std::vector<std::vector<int>> gRecords;  // level, headroom, frequency
const android::platform::IoctlTable kBoostDevice{
        [](const char*, int) { return 0; }, // a real descriptor once stdin has been closed
        [](int, unsigned long, void* arg) {
            const auto* r = static_cast<const int32_t*>(arg);
            gRecords.push_back({r[0], r[1], r[2]});
            return 0;
        },
        [](int) { return 0; }};
} // namespace

TEST(PerfProxyDevice, LevelsZeroToThreeGoToTheDeviceOthersToTheService) {
    pelyx_test::LogCapture logs;
    android::platform::host::setIoctlTable(&kBoostDevice);
    PerfProxy* proxy = PerfProxy::getInstance();
    proxy->frameHint(2, 8'000'000, 7, "com.game", 800);
    proxy->frameHint(0, 16'000'000, 7, "com.game", 0);
    proxy->frameHint(5, 3'000'000, 9, "com.game", 900);
    drain(proxy);
    android::platform::host::setIoctlTable(nullptr);
    EXPECT_EQ(gRecords, (std::vector<std::vector<int>>{{2, 8'000'000, 800}, {0, 16'000'000, 0}}));
    EXPECT_EQ(callsTo("perf_event"), (std::vector<std::vector<int>>{{4186, 2, 5, 3'000'000}}));
    EXPECT_EQ(logs.errors(), 0u);
}

TEST(PerfProxyLowLatency, EachPidGetsOneLockReleasedBeforeTheNext) {
    PerfProxy* proxy = PerfProxy::getInstance();
    proxy->setLowLatency(100, true);
    drain(proxy);
    const int first = proxy->lowLatencyHandle();
    proxy->setLowLatency(200, true);
    proxy->setLowLatency(200, false);
    proxy->setLowLatency(200, false);
    drain(proxy);
    EXPECT_EQ(-1, proxy->lowLatencyHandle());
    const int second = first + 1;  // the stand-in hands out handles in turn
    EXPECT_EQ(callsTo("perf_lock_acq"), (std::vector<std::vector<int>>{{0, 0, 2, 0x40CD0000, 100},
                                                                       {0, 0, 2, 0x40CD0000, 200}}));
    EXPECT_EQ(callsTo("perf_lock_rel"), (std::vector<std::vector<int>>{{first}, {second}}));
}

TEST(PerfProxyBoostThread, ARestartFromItsOwnTaskLeavesOneThread) {
    PerfProxy* proxy = PerfProxy::getInstance();
    std::promise<void> restarted, drained;
    proxy->postTask([&] {
        proxy->stopBoostThread();
        proxy->startBoostThread();
        restarted.set_value();
    });
    ASSERT_EQ(std::future_status::ready, restarted.get_future().wait_for(std::chrono::seconds(5)));
    ASSERT_NE(0u, proxy->postTaskDelayed(5'000'000, [&] { drained.set_value(); }));
    ASSERT_EQ(std::future_status::ready, drained.get_future().wait_for(std::chrono::seconds(5)));
    // The stopped generation's thread leaves once its task returns, taking its queue with it.
    for (int i = 0; i < 500 && threadsNamed("BP").size() > 1; i++) usleep(10'000);
    EXPECT_EQ(1u, threadsNamed("BP").size());
    proxy->stopBoostThread();
    EXPECT_TRUE(threadsNamed("BP").empty()) << "a stop from another thread joins it";
}
