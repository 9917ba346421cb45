#include "perf/PerfProxy.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

using android::PerfProxy;

namespace {
int threadsNamed(const std::string& wanted) {
    int found = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        found += std::getline(std::ifstream(task.path() / "comm"), name) && name == wanted;
    }
    return found;
}
} // namespace

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
    for (int i = 0; i < 500 && threadsNamed("BP") > 1; i++) usleep(10'000);
    EXPECT_EQ(1, threadsNamed("BP"));
}
