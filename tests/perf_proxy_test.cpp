// PerfProxy against the full stand-in client, loaded through the real dlopen/dlsym; each case
// runs in its own process, so each builds the singleton afresh.

#include "perf/PerfProxy.h"

#include <PerfdControl.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include "platform/HostControl.h"
#include "support/LogCapture.h"

using android::PerfProxy;
using pelyx_test::LogCapture;

namespace {

constexpr auto kWait = std::chrono::seconds(5);

int threadsNamed(const std::string& wanted) {
    int found = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = dir ? readdir(dir) : nullptr) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        found += std::getline(comm, name) && name == wanted;
    }
    if (dir) closedir(dir);
    return found;
}
bool hasThread(const std::string& wanted) { return threadsNamed(wanted) > 0; }

std::vector<perfd_stub::Call> callsOf(const std::vector<std::string>& fns) {
    std::vector<perfd_stub::Call> out;
    for (auto& call : perfd_stub::calls()) {
        if (std::find(fns.begin(), fns.end(), call.fn) != fns.end()) out.push_back(call);
    }
    return out;
}

// Runs on the boost thread strictly after everything already posted (a later deadline).
void drainBoostThread(PerfProxy* proxy) {
    std::promise<void> done;
    ASSERT_NE(0u, proxy->postTaskDelayed(5'000'000, [&] { done.set_value(); }));
    ASSERT_EQ(std::future_status::ready, done.get_future().wait_for(kWait));
}

const std::string kTracePath = testing::TempDir() + "perf_proxy_" + std::to_string(getpid());

// Events of one phase with that name in the closed trace file.
size_t traced(char phase, const std::string& name) {
    std::stringstream text;
    text << std::ifstream(kTracePath).rdbuf();
    const std::string s = text.str();
    const std::string needle = std::string("{\"ph\":\"") + phase +
            "\",\"name\":" + Json::valueToQuotedString(name.c_str()) + ",";
    size_t n = 0;
    for (size_t p = s.find(needle); p != std::string::npos; p = s.find(needle, p + 1)) n++;
    return n;
}

// A boost device played through the ioctl table; frameHint reaches it on the calling thread.
struct FakeDevice {
    int openFd = 77; // negative: the open fails with ENOENT
    int ioctlResult = 0;
    std::vector<std::pair<std::string, int>> opens;
    std::vector<std::vector<long>> requests; // fd, request, then the record
} gDevice;

const android::platform::IoctlTable kFakeTable{
        [](const char* path, int flags) {
            gDevice.opens.emplace_back(path, flags);
            errno = ENOENT;
            return gDevice.openFd;
        },
        [](int fd, unsigned long request, void* arg) {
            const auto* r = static_cast<const int32_t*>(arg);
            gDevice.requests.push_back({fd, static_cast<long>(request), r[0], r[1], r[2]});
            errno = EIO;
            return gDevice.ioctlResult;
        },
        [](int) { return 0; }};

} // namespace

TEST(PerfProxyClientTest, PropertyAnswersAreBoundedAndOldHalsGetNoExtendedFeedback) {
    perfd_stub::setProp("vendor.long", std::string(200, 'x'));
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_STREQ("dflt", proxy->perfGetProp("vendor.perf.unset", "dflt").value);
    EXPECT_EQ(std::string(91, 'x'), proxy->perfGetProp("vendor.long", "").value);
    // Extended feedback is not safe at HAL 2.2: never looked up.
    int args[2] = {1, 0};
    EXPECT_DOUBLE_EQ(2.2, proxy->halVersion());
    EXPECT_EQ(-1, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    EXPECT_EQ(0u, perfd_stub::countCalls("perf_get_feedback_extn"));
}

TEST(PerfProxyClientTest, HalVersionAndExtendedFeedbackFromANewerClient) {
    perfd_stub::setGameWeight("com.game", 9);
    perfd_stub::setHalVersion(3.0);
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_DOUBLE_EQ(3.0, proxy->halVersion());
    EXPECT_DOUBLE_EQ(3.0, proxy->getPerfHalVer());
    int args[2] = {1, 0};
    EXPECT_EQ(9, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    EXPECT_EQ((std::vector<int>{1, 0}), callsOf({"perf_get_feedback_extn"}).at(0).args);
}

TEST(PerfProxyBoostThreadTest, TasksRunOnTheBPThreadAfterTheirDelay) {
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    ASSERT_TRUE(proxy->isBoostThreadRunning());
    proxy->postTask([] { throw std::runtime_error("boom"); });
    proxy->postTask([] { throw 5; });

    std::promise<std::string> ran;
    const auto posted = std::chrono::steady_clock::now();
    ASSERT_NE(0u, proxy->postTaskDelayed(50'000'000, [&] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        ran.set_value(name);
    }));
    auto future = ran.get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(kWait));
    EXPECT_GE(std::chrono::steady_clock::now() - posted, std::chrono::milliseconds(50));
    EXPECT_EQ("BP", future.get());
    EXPECT_TRUE(hasThread("BP"));
    // Exceptions are logged on the boost thread and the loop goes on.
    for (const char* line : {"Exception caught: boom in PerfProxy task",
                             "Exception caught in PerfProxy task"}) {
        EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR, line)) << line;
    }
}

TEST(PerfProxyBoostThreadTest, StoppedThreadRefusesTasksAndCanRestart) {
    PerfProxy* proxy = PerfProxy::getInstance();
    std::atomic<bool> ran{false};
    proxy->postTaskDelayed(20'000'000'000, [&] { ran = true; });
    proxy->stopBoostThread();
    proxy->stopBoostThread();
    EXPECT_FALSE(proxy->isBoostThreadRunning());
    for (int i = 0; i < 500 && hasThread("BP"); i++) usleep(10'000);
    EXPECT_FALSE(hasThread("BP"));
    EXPECT_EQ(0u, proxy->postTask([&] { ran = true; }));

    proxy->startBoostThread();
    ASSERT_TRUE(proxy->isBoostThreadRunning());
    drainBoostThread(proxy);
    EXPECT_FALSE(ran.load()) << "tasks of the stopped queue are dropped";
    EXPECT_TRUE(hasThread("BP"));
}

TEST(PerfProxyBoostThreadTest, ARestartFromItsOwnTaskLeavesOneThread) {
    PerfProxy* proxy = PerfProxy::getInstance();
    std::promise<void> restarted;
    proxy->postTask([&] {
        proxy->stopBoostThread();
        proxy->startBoostThread();
        restarted.set_value();
    });
    ASSERT_EQ(std::future_status::ready, restarted.get_future().wait_for(kWait));
    drainBoostThread(proxy);
    // The stopped generation's thread leaves once its task returns, taking its queue with it.
    for (int i = 0; i < 500 && threadsNamed("BP") > 1; i++) usleep(10'000);
    EXPECT_EQ(1, threadsNamed("BP"));
}

TEST(PerfProxyDeviceTest, LevelsZeroToThreeGoToTheDeviceOthersToTheService) {
    android::platform::host::setIoctlTable(&kFakeTable);
    ASSERT_TRUE(android::platform::host::traceOpen(kTracePath));
    PerfProxy::setDebuggable(true, true);
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    const uint64_t before = proxy->postTask([] {});
    proxy->frameHint(2, 8'000'000, 7, "com.game", 800);
    proxy->frameHint(0, 16'000'000, 7, "com.game", 0);
    gDevice.ioctlResult = -1;
    proxy->frameHint(3, 4'000'000, 7, "com.game", 1500);
    EXPECT_EQ(before + 1, proxy->postTask([] {})) << "device-level hints post nothing";
    proxy->frameHint(5, 3'000'000, 9, "", 900);
    proxy->frameHint(-1, 1'000'000, 9, "com.game", 900);
    EXPECT_EQ(before + 4, proxy->postTask([] {})) << "other levels go through the boost thread";
    proxy->frameHintImp(0, 400, 22, "com.game"); // a withdrawal is not profiled
    drainBoostThread(proxy);
    android::platform::host::traceClose();

    ASSERT_EQ(1u, gDevice.opens.size());
    EXPECT_EQ("/dev/vorla", gDevice.opens[0].first);
    EXPECT_EQ(O_RDONLY, gDevice.opens[0].second & O_ACCMODE);
    EXPECT_EQ(gDevice.requests,
              (std::vector<std::vector<long>>{{77, 0x400C6701, 2, 8'000'000, 800},
                                              {77, 0x400C6701, 0, 16'000'000, 0},
                                              {77, 0x400C6701, 3, 4'000'000, 1500}}));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG,
                             "[GFR_BOOST] Successfully opened /dev/vorla, vorla is available\n"));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR,
                             "[GFR_BOOST] GFR ioctl failed, ret=-1, ioctl_fd=77 errno=5"));
    EXPECT_EQ(1u, traced('B', "[GFR_BOOST] GFR_IOCTL bl=2 hr=8000000 bf=800, [id: 7]"));

    auto events = callsOf({"perf_event"});
    ASSERT_EQ(3u, events.size());
    for (const auto& e : events) {
        EXPECT_EQ((std::vector<int>{4186, 2}), e.ints);
        EXPECT_EQ(e.args[0] != 5, e.hasPkg) << "an empty package goes out as a null text";
    }
    EXPECT_EQ(3u, traced('B', "frame hint"));
    EXPECT_EQ(1u, traced('B', "Boost hint: 5, [id: 9]"));
    EXPECT_EQ(1u, traced('B', "Boost hint: -1, [id: 9]"));
    EXPECT_EQ(0u, traced('B', "Boost hint: 0, [id: 22]"));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG, "Boost hint: 5, [id: 9]"));
    unlink(kTracePath.c_str());
}

TEST(PerfProxyDeviceTest, FailedOpenIsLoggedOnceAndHintsUseTheService) {
    android::platform::host::setIoctlTable(&kFakeTable);
    gDevice.openFd = -1;
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    for (int i = 0; i < 3; ++i) proxy->frameHint(2, 1000 + i, 4, "com.game", 700);
    drainBoostThread(proxy);

    EXPECT_EQ(1u, gDevice.opens.size()) << "the device is tried once per process";
    EXPECT_TRUE(gDevice.requests.empty());
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR,
                             "[GFR_BOOST] Failed to open /dev/vorla, vorla not available, errno=2 "
                             "(No such file or directory)\n"));
    auto events = callsOf({"perf_event"});
    ASSERT_EQ(3u, events.size());
    for (const auto& e : events) EXPECT_EQ(2, e.args.at(0));
}

TEST(PerfProxyLowLatencyTest, EachPidGetsOneLockReleasedBeforeTheNext) {
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_EQ(-1, proxy->lowLatencyHandle());
    proxy->setLowLatency(100, true);
    drainBoostThread(proxy);
    const int first = proxy->lowLatencyHandle();
    EXPECT_GE(first, 1);
    proxy->setLowLatency(200, true);
    drainBoostThread(proxy);
    const int second = proxy->lowLatencyHandle();
    EXPECT_NE(first, second);
    proxy->setLowLatency(200, false);
    proxy->setLowLatency(200, false);
    drainBoostThread(proxy);
    EXPECT_EQ(-1, proxy->lowLatencyHandle());

    // Acquire: handle, duration, count, then the list; release: the handle.
    std::vector<std::vector<int>> calls;
    for (auto& c : callsOf({"perf_lock_acq", "perf_lock_rel"})) {
        calls.push_back(c.ints);
        calls.back().insert(calls.back().end(), c.args.begin(), c.args.end());
    }
    EXPECT_EQ(calls, (std::vector<std::vector<int>>{{0, 0, 2, 0x40CD0000, 100},
                                                    {first},
                                                    {0, 0, 2, 0x40CD0000, 200},
                                                    {second}}));
}

TEST(PerfProxyDebugTest, DebugLogAndTracesNeedTheirSwitches) {
    LogCapture logs;
    PerfProxy::setDebuggable(true, false);
    EXPECT_FALSE(PerfProxy::isTraceEnabled()) << "no trace file open";
    PerfProxy::XLOGD("Pelyx.Test", "value %d", 1);
    ASSERT_TRUE(android::platform::host::traceOpen(kTracePath));
    PerfProxy::setDebuggable(false, true);
    EXPECT_FALSE(PerfProxy::isTraceEnabled());
    PerfProxy::XLOGD("Pelyx.Test", "value %d", 2);
    PerfProxy::XTRACE_NAME("off");
    PerfProxy::XTRACE_FORMAT("off %d", 1);
    PerfProxy::XTRACE_PROFILE("profile %d", 1);
    PerfProxy::XTRACE_ASYNC_BEGIN("off", 1);

    PerfProxy::setDebuggable(true, false);
    EXPECT_TRUE(PerfProxy::isTraceEnabled());
    PerfProxy::XTRACE_BEGIN("section");
    PerfProxy::XTRACE_END();
    PerfProxy::XTRACE_NAME("name");
    PerfProxy::XTRACE_FORMAT("fmt %d %s", 3, "%n%s"); // arguments are never formats
    PerfProxy::XTRACE_FORMAT("%s", std::string(300, 'y').c_str());
    PerfProxy::XTRACE_PROFILE("profile %d", 2); // traced, not logged
    PerfProxy::XTRACE_ASYNC_BEGIN("async", 9);
    PerfProxy::XTRACE_ASYNC_END("async", 9);
    android::platform::host::traceClose();
    PerfProxy::setDebuggable(true, true);
    PerfProxy::XTRACE_PROFILE("%s", std::string(300, 'z').c_str()); // logged, no trace open

    EXPECT_EQ(1u, logs.count("Pelyx.Test", ANDROID_LOG_DEBUG, "value 1"));
    EXPECT_EQ(0u, logs.countContaining("Pelyx.Test", "value 2"));
    for (const char* name : {"off", "off 1", "profile 1"}) EXPECT_EQ(0u, traced('B', name)) << name;
    for (const char* name : {"section", "name", "fmt 3 %n%s", "profile 2"}) {
        EXPECT_EQ(1u, traced('B', name)) << name;
    }
    EXPECT_EQ(1u, traced('B', std::string(255, 'y'))) << "formatted names are cut at 256 bytes";
    EXPECT_EQ(5u, traced('E', ""));
    EXPECT_EQ(0u, traced('b', "off"));
    EXPECT_EQ(1u, traced('b', "async"));
    EXPECT_EQ(1u, traced('e', "async"));
    EXPECT_EQ(0u, logs.countContaining("Pelyx", "profile"));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG, std::string(255, 'z')));
    unlink(kTracePath.c_str());
}
