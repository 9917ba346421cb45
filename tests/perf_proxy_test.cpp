// PerfProxy against the full stand-in client, loaded through the real dlopen/dlsym. CTest runs
// each case in its own process, so every case builds the singleton afresh.

#include "perf/PerfProxy.h"

#include <PerfdControl.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/HostControl.h"
#include "support/LogCapture.h"

using android::PerfProxy;
using pelyx_test::LogCapture;

namespace {

constexpr auto kWait = std::chrono::seconds(5);

bool waitFor(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::vector<std::string> threadNames() {
    std::vector<std::string> names;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return names;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name)) names.push_back(name);
    }
    closedir(dir);
    return names;
}

bool hasThread(const std::string& name) {
    for (const auto& n : threadNames()) {
        if (n == name) return true;
    }
    return false;
}

std::vector<perfd_stub::Call> callsOf(const std::string& fn) {
    std::vector<perfd_stub::Call> out;
    for (auto& call : perfd_stub::calls()) {
        if (call.fn == fn) out.push_back(call);
    }
    return out;
}

// Runs on the boost thread strictly after everything already posted (a later deadline).
void drainBoostThread(PerfProxy* proxy) {
    std::promise<void> done;
    ASSERT_NE(0u, proxy->postTaskDelayed(5'000'000, [&] { done.set_value(); }));
    ASSERT_EQ(std::future_status::ready, done.get_future().wait_for(kWait));
}

// ---- A boost device played through the ioctl table ----

struct FakeDevice {
    struct Request {
        int fd;
        unsigned long request;
        std::array<int32_t, 3> record;
    };
    std::mutex mutex;
    int openFd = 77; // negative: fail with openErrno
    int openErrno = 0;
    int ioctlResult = 0;
    int ioctlErrno = 0;
    std::vector<std::pair<std::string, int>> opens;
    std::vector<Request> requests;
};

FakeDevice gDevice;

int fakeOpen(const char* path, int flags) {
    std::lock_guard<std::mutex> lock(gDevice.mutex);
    gDevice.opens.emplace_back(path, flags);
    if (gDevice.openFd < 0) errno = gDevice.openErrno;
    return gDevice.openFd;
}

int fakeIoctl(int fd, unsigned long request, void* arg) {
    std::lock_guard<std::mutex> lock(gDevice.mutex);
    FakeDevice::Request r{fd, request, {}};
    memcpy(r.record.data(), arg, sizeof(r.record));
    gDevice.requests.push_back(r);
    if (gDevice.ioctlResult < 0) errno = gDevice.ioctlErrno;
    return gDevice.ioctlResult;
}

int fakeClose(int) { return 0; }

const android::platform::IoctlTable kFakeTable{fakeOpen, fakeIoctl, fakeClose};

class PerfProxyDeviceTest : public ::testing::Test {
protected:
    void SetUp() override { android::platform::host::setIoctlTable(&kFakeTable); }
    void TearDown() override { android::platform::host::setIoctlTable(nullptr); }

    std::vector<std::pair<std::string, int>> opens() {
        std::lock_guard<std::mutex> lock(gDevice.mutex);
        return gDevice.opens;
    }
    std::vector<FakeDevice::Request> requests() {
        std::lock_guard<std::mutex> lock(gDevice.mutex);
        return gDevice.requests;
    }
};

// ---- Trace read-back ----

std::string tracePath() {
    return testing::TempDir() + "perf_proxy_" + std::to_string(getpid()) + ".trace.json";
}

// Names of the events of one phase ('B', 'b', 'e', ...) in a closed trace file.
std::vector<std::string> traceNames(const std::string& path, char phase) {
    std::ifstream in(path);
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    EXPECT_TRUE(Json::parseFromStream(builder, in, &root, &errors)) << errors;
    std::vector<std::string> names;
    for (const auto& event : root["traceEvents"]) {
        if (event["ph"].asString() == std::string(1, phase)) names.push_back(event["name"].asString());
    }
    return names;
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

// ---- Service calls ----

TEST(PerfProxyClientTest, WrappersForwardCallsAndAnswers) {
    perfd_stub::setGame("com.game", true);
    perfd_stub::setGameWeight("com.game", 7);
    perfd_stub::setProp("vendor.perf.pelyx.debug", "true");
    PerfProxy* proxy = PerfProxy::getInstance();

    EXPECT_EQ(2, proxy->perfGetFeedback(5633, "com.game"));
    EXPECT_EQ(0, proxy->perfGetFeedback(5633, "com.other"));
    EXPECT_EQ(7, proxy->perfHint(5633, "com.game", 0, 1));
    EXPECT_STREQ("true", proxy->perfGetProp("vendor.perf.pelyx.debug", "false").value);
    EXPECT_STREQ("dflt", proxy->perfGetProp("vendor.perf.unset", "dflt").value);
    perfd_stub::setProp("vendor.long", std::string(200, 'x'));
    EXPECT_EQ(std::string(91, 'x'), proxy->perfGetProp("vendor.long", "").value);

    int args[3] = {4, 5, 6};
    proxy->perfEvent(4099, nullptr, 3, args);
    auto events = callsOf("perf_event");
    ASSERT_EQ(1u, events.size());
    EXPECT_FALSE(events[0].hasPkg);
    EXPECT_EQ((std::vector<int>{4099, 3}), events[0].ints);
    EXPECT_EQ((std::vector<int>{4, 5, 6}), events[0].args);

    auto feedback = callsOf("perf_get_feedback");
    ASSERT_EQ(2u, feedback.size());
    EXPECT_EQ("com.game", feedback[0].pkg);
    EXPECT_EQ(std::vector<int>{5633}, feedback[0].ints);

    int list[2] = {0x40CD0000, 42};
    const int handle = proxy->perfLockAcq(0, 0, list, 2);
    EXPECT_GE(handle, 1);
    EXPECT_EQ(0, proxy->perfLockRel(handle));
    EXPECT_EQ(-1, proxy->perfLockRel(handle)) << "a released handle is unknown to the service";

    struct Receiver : aidl::vendor::tvo::hardware::perf2::BnPerfCallback {
        ndk::ScopedAStatus notifyCallback(int32_t, const std::string&, int32_t, int32_t,
                                          const std::vector<int32_t>&) override {
            return ndk::ScopedAStatus::ok();
        }
    };
    auto receiver = ndk::SharedRefBase::make<Receiver>();
    EXPECT_EQ(0, proxy->perfCallbackRegister(receiver, 4));
    EXPECT_EQ(receiver, perfd_stub::registeredCallback());
    EXPECT_EQ(4, perfd_stub::registeredClientId());
}

TEST(PerfProxyClientTest, HalVersionAndExtendedFeedbackFromANewerClient) {
    perfd_stub::setGameWeight("com.game", 9);
    perfd_stub::setHalVersion(3.0);
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_DOUBLE_EQ(3.0, proxy->halVersion());
    EXPECT_DOUBLE_EQ(3.0, proxy->getPerfHalVer());
    int args[2] = {1, 0};
    EXPECT_EQ(9, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    auto extn = callsOf("perf_get_feedback_extn");
    ASSERT_EQ(1u, extn.size());
    EXPECT_EQ("com.game", extn[0].pkg);
    EXPECT_EQ((std::vector<int>{1, 0}), extn[0].args);
}

TEST(PerfProxyClientTest, ExtendedFeedbackMissingAtHal22) {
    perfd_stub::setGameWeight("com.game", 9);
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_DOUBLE_EQ(2.2, proxy->halVersion());
    int args[2] = {1, 0};
    EXPECT_EQ(-1, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    EXPECT_EQ(0u, perfd_stub::countCalls("perf_get_feedback_extn"));
}

// ---- Boost thread ----

TEST(PerfProxyBoostThreadTest, PostedTasksRunOnTheBPThread) {
    PerfProxy* proxy = PerfProxy::getInstance();
    ASSERT_TRUE(proxy->isBoostThreadRunning());

    std::promise<std::pair<std::string, long>> ran;
    EXPECT_NE(0u, proxy->postTask([&] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        ran.set_value({name, syscall(SYS_gettid)});
    }));
    auto future = ran.get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(kWait));
    auto [name, tid] = future.get();
    EXPECT_EQ("BP", name);
    EXPECT_NE(syscall(SYS_gettid), tid);
    EXPECT_TRUE(hasThread("BP"));
}

TEST(PerfProxyBoostThreadTest, DelayedTaskWaitsForItsDelay) {
    PerfProxy* proxy = PerfProxy::getInstance();
    constexpr int64_t kDelayNs = 50'000'000;
    std::promise<std::chrono::steady_clock::time_point> ran;
    const auto posted = std::chrono::steady_clock::now();
    ASSERT_NE(0u, proxy->postTaskDelayed(kDelayNs, [&] { ran.set_value(std::chrono::steady_clock::now()); }));
    auto future = ran.get_future();
    ASSERT_EQ(std::future_status::ready, future.wait_for(kWait));
    EXPECT_GE(future.get() - posted, std::chrono::nanoseconds(kDelayNs));
}

TEST(PerfProxyBoostThreadTest, StoppedThreadRefusesTasksAndCanRestart) {
    PerfProxy* proxy = PerfProxy::getInstance();
    std::atomic<bool> pendingRan{false};
    proxy->postTaskDelayed(20'000'000'000, [&] { pendingRan = true; });
    proxy->stopBoostThread();
    proxy->stopBoostThread(); // second stop is harmless
    EXPECT_FALSE(proxy->isBoostThreadRunning());
    EXPECT_TRUE(waitFor([] { return !hasThread("BP"); }));

    std::atomic<bool> ran{false};
    EXPECT_EQ(0u, proxy->postTask([&] { ran = true; }));
    EXPECT_EQ(0u, proxy->postTaskDelayed(0, [&] { ran = true; }));

    proxy->startBoostThread();
    ASSERT_TRUE(proxy->isBoostThreadRunning());
    drainBoostThread(proxy);
    EXPECT_FALSE(ran.load());
    EXPECT_FALSE(pendingRan.load()) << "tasks of the stopped queue are dropped";
    EXPECT_TRUE(hasThread("BP"));
}

TEST(PerfProxyBoostThreadTest, ConcurrentPostersAllRun) {
    PerfProxy* proxy = PerfProxy::getInstance();
    constexpr int kThreads = 4;
    constexpr int kPerThread = 250;
    std::atomic<int> count{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&] {
            for (int i = 0; i < kPerThread; ++i) {
                EXPECT_NE(0u, proxy->postTaskDelayed(i % 3 * 100'000, [&] { ++count; }));
            }
        });
    }
    for (auto& t : posters) t.join();
    EXPECT_TRUE(waitFor([&] { return count.load() == kThreads * kPerThread; })) << count.load();
}

TEST(PerfProxyBoostThreadTest, ThrowingTaskIsLoggedAndTheLoopGoesOn) {
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    proxy->postTask([] { throw std::runtime_error("boom"); });
    proxy->postTask([] { throw 5; });
    drainBoostThread(proxy);
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR, "Exception caught: boom in PerfProxy task"));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR, "Exception caught in PerfProxy task"));
    EXPECT_TRUE(proxy->isBoostThreadRunning());
}

// ---- Frame hints ----

TEST_F(PerfProxyDeviceTest, DeviceLevelsGoToTheDeviceAndPostNothing) {
    PerfProxy::setDebuggable(true, false);
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();

    const uint64_t before = proxy->postTask([] {});
    proxy->frameHint(2, 8'000'000, 7, "com.game", 800);
    proxy->frameHint(0, 16'000'000, 7, "com.game", 0);
    proxy->frameHint(3, 4'000'000, 7, "com.game", 1500);
    const uint64_t after = proxy->postTask([] {});
    EXPECT_EQ(before + 1, after) << "device-level hints must not post to the boost thread";

    auto o = opens();
    ASSERT_EQ(1u, o.size());
    EXPECT_EQ("/dev/vorla", o[0].first);
    EXPECT_EQ(O_RDONLY, o[0].second & O_ACCMODE);

    auto r = requests();
    ASSERT_EQ(3u, r.size());
    EXPECT_EQ(77, r[0].fd);
    EXPECT_EQ(0x400C6701ul, r[0].request);
    EXPECT_EQ((std::array<int32_t, 3>{2, 8'000'000, 800}), r[0].record);
    EXPECT_EQ((std::array<int32_t, 3>{0, 16'000'000, 0}), r[1].record);
    EXPECT_EQ((std::array<int32_t, 3>{3, 4'000'000, 1500}), r[2].record);

    drainBoostThread(proxy);
    EXPECT_EQ(0u, perfd_stub::countCalls("perf_event"));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG,
                             "[GFR_BOOST] Successfully opened /dev/vorla, vorla is available\n"));
}

TEST_F(PerfProxyDeviceTest, OtherLevelsGoToTheServiceFromTheBoostThread) {
    PerfProxy* proxy = PerfProxy::getInstance();
    const uint64_t before = proxy->postTask([] {});
    proxy->frameHint(5, 3'000'000, 9, "com.game", 900);
    proxy->frameHint(-1, 1'000'000, 9, "com.game", 900);
    EXPECT_EQ(before + 3, proxy->postTask([] {}));
    drainBoostThread(proxy);

    EXPECT_EQ(1u, opens().size());
    EXPECT_TRUE(requests().empty());
    auto events = callsOf("perf_event");
    ASSERT_EQ(2u, events.size());
    for (const auto& e : events) {
        EXPECT_EQ((std::vector<int>{4186, 2}), e.ints);
        EXPECT_EQ("com.game", e.pkg);
    }
    // Same deadline order is not guaranteed, so compare as a set.
    std::vector<std::vector<int>> args{events[0].args, events[1].args};
    std::sort(args.begin(), args.end());
    EXPECT_EQ((std::vector<std::vector<int>>{{-1, 1'000'000}, {5, 3'000'000}}), args);
}

TEST_F(PerfProxyDeviceTest, FailedOpenIsLoggedOnceAndHintsUseTheService) {
    gDevice.openFd = -1;
    gDevice.openErrno = ENOENT;
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    for (int i = 0; i < 3; ++i) proxy->frameHint(2, 1000 + i, 4, "com.game", 700);
    drainBoostThread(proxy);

    EXPECT_EQ(1u, opens().size()) << "the device is tried once per process";
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR,
                             "[GFR_BOOST] Failed to open /dev/vorla, vorla not available, errno=2 "
                             "(No such file or directory)\n"));
    auto events = callsOf("perf_event");
    ASSERT_EQ(3u, events.size());
    for (const auto& e : events) {
        ASSERT_EQ(2u, e.args.size());
        EXPECT_EQ(2, e.args[0]);
    }
}

TEST_F(PerfProxyDeviceTest, IoctlFailureIsLoggedEveryTime) {
    gDevice.ioctlResult = -1;
    gDevice.ioctlErrno = EIO;
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    proxy->frameHint(1, 500, 3, "com.game", 600);
    proxy->frameHint(1, 500, 3, "com.game", 600);
    EXPECT_EQ(2u, requests().size());
    EXPECT_EQ(2u, logs.count("Pelyx", ANDROID_LOG_ERROR,
                             "[GFR_BOOST] GFR ioctl failed, ret=-1, ioctl_fd=77 errno=5"));
    drainBoostThread(proxy);
    EXPECT_EQ(0u, perfd_stub::countCalls("perf_event")) << "a failed device hint is lost, not resent";
}

TEST_F(PerfProxyDeviceTest, DeviceRequestIsTracedWhenDebuggable) {
    const std::string path = tracePath();
    ASSERT_TRUE(android::platform::host::traceOpen(path));
    PerfProxy* proxy = PerfProxy::getInstance();
    proxy->frameHint(2, 100, 11, "com.game", 800);
    PerfProxy::setDebuggable(true, false);
    proxy->frameHint(3, 200, 12, "com.game", 900);
    android::platform::host::traceClose();

    auto names = traceNames(path, 'B');
    EXPECT_FALSE(contains(names, "[GFR_BOOST] GFR_IOCTL bl=2 hr=100 bf=800, [id: 11]"));
    EXPECT_TRUE(contains(names, "[GFR_BOOST] GFR_IOCTL bl=3 hr=200 bf=900, [id: 12]"));
    unlink(path.c_str());
}

TEST(PerfProxyFrameHintImpTest, EmptyPackageSendsNullTextAndProfilesTheHint) {
    const std::string path = tracePath();
    ASSERT_TRUE(android::platform::host::traceOpen(path));
    PerfProxy::setDebuggable(true, true);
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    proxy->frameHintImp(5, 300, 21, "");
    proxy->frameHintImp(0, 400, 22, "com.game");
    android::platform::host::traceClose();

    auto events = callsOf("perf_event");
    ASSERT_EQ(2u, events.size());
    EXPECT_FALSE(events[0].hasPkg);
    EXPECT_EQ((std::vector<int>{5, 300}), events[0].args);
    EXPECT_TRUE(events[1].hasPkg);
    EXPECT_EQ((std::vector<int>{0, 400}), events[1].args);

    auto names = traceNames(path, 'B');
    EXPECT_EQ(2, std::count(names.begin(), names.end(), "frame hint"));
    EXPECT_TRUE(contains(names, "Boost hint: 5, [id: 21]"));
    EXPECT_FALSE(contains(names, "Boost hint: 0, [id: 22]")) << "a withdrawal is not profiled";
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG, "Boost hint: 5, [id: 21]"));
    unlink(path.c_str());
}

// ---- Low-latency lock ----

TEST(PerfProxyLowLatencyTest, EnableThenDisableAcquiresAndReleasesOnce) {
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_EQ(-1, proxy->lowLatencyHandle());
    proxy->setLowLatency(1234, true);
    drainBoostThread(proxy);
    const int handle = proxy->lowLatencyHandle();
    EXPECT_GE(handle, 1);
    auto acq = callsOf("perf_lock_acq");
    ASSERT_EQ(1u, acq.size());
    EXPECT_EQ((std::vector<int>{0, 0, 2}), acq[0].ints);
    EXPECT_EQ((std::vector<int>{0x40CD0000, 1234}), acq[0].args);

    proxy->setLowLatency(1234, false);
    drainBoostThread(proxy);
    proxy->setLowLatency(1234, false);
    drainBoostThread(proxy);
    EXPECT_EQ(-1, proxy->lowLatencyHandle());
    auto rel = callsOf("perf_lock_rel");
    ASSERT_EQ(1u, rel.size());
    EXPECT_EQ(std::vector<int>{handle}, rel[0].ints);
    EXPECT_EQ(1u, perfd_stub::countCalls("perf_lock_acq"));
}

TEST(PerfProxyLowLatencyTest, NewPidReleasesThePreviousLockFirst) {
    PerfProxy* proxy = PerfProxy::getInstance();
    proxy->setLowLatency(100, true);
    drainBoostThread(proxy);
    const int first = proxy->lowLatencyHandle();
    proxy->setLowLatency(200, true);
    drainBoostThread(proxy);

    std::vector<perfd_stub::Call> calls;
    for (auto& call : perfd_stub::calls()) {
        if (call.fn.rfind("perf_lock_", 0) == 0) calls.push_back(call);
    }
    ASSERT_EQ(3u, calls.size());
    EXPECT_EQ("perf_lock_acq", calls[0].fn);
    EXPECT_EQ("perf_lock_rel", calls[1].fn);
    EXPECT_EQ(std::vector<int>{first}, calls[1].ints);
    EXPECT_EQ("perf_lock_acq", calls[2].fn);
    EXPECT_EQ((std::vector<int>{0x40CD0000, 200}), calls[2].args);
    EXPECT_GE(proxy->lowLatencyHandle(), 1);
    EXPECT_NE(first, proxy->lowLatencyHandle());
}

// ---- Debug switches ----

TEST(PerfProxyDebugTest, DebugLogOnlyWhenDebuggable) {
    LogCapture logs;
    PerfProxy::XLOGD("Pelyx.Test", "value %d", 1);
    PerfProxy::setDebuggable(true, false);
    PerfProxy::XLOGD("Pelyx.Test", "value %d", 2);
    PerfProxy::setDebuggable(false, false);
    PerfProxy::XLOGD("Pelyx.Test", "value %d", 3);

    EXPECT_EQ(0u, logs.countContaining("Pelyx.Test", "value 1"));
    EXPECT_EQ(1u, logs.count("Pelyx.Test", ANDROID_LOG_DEBUG, "value 2"));
    EXPECT_EQ(0u, logs.countContaining("Pelyx.Test", "value 3"));
}

TEST(PerfProxyDebugTest, TraceNeedsDebugSwitchAndOpenTrace) {
    PerfProxy::setDebuggable(true, false);
    EXPECT_FALSE(PerfProxy::isTraceEnabled()) << "no trace file open";
    PerfProxy::XTRACE_NAME("closed");

    const std::string path = tracePath();
    ASSERT_TRUE(android::platform::host::traceOpen(path));
    PerfProxy::setDebuggable(false, false);
    EXPECT_FALSE(PerfProxy::isTraceEnabled());
    PerfProxy::XTRACE_NAME("off");
    PerfProxy::XTRACE_FORMAT("off %d", 1);
    PerfProxy::XTRACE_ASYNC_BEGIN("off async", 1);

    PerfProxy::setDebuggable(true, false);
    EXPECT_TRUE(PerfProxy::isTraceEnabled());
    PerfProxy::XTRACE_BEGIN("section");
    PerfProxy::XTRACE_END();
    PerfProxy::XTRACE_NAME("name");
    PerfProxy::XTRACE_FORMAT("fmt %d %s", 3, "%n%s"); // arguments are never formats
    PerfProxy::XTRACE_FORMAT("%s", std::string(300, 'y').c_str());
    PerfProxy::XTRACE_ASYNC_BEGIN("async", 9);
    PerfProxy::XTRACE_ASYNC_END("async", 9);
    android::platform::host::traceClose();

    auto begins = traceNames(path, 'B');
    EXPECT_FALSE(contains(begins, "closed"));
    EXPECT_FALSE(contains(begins, "off"));
    EXPECT_FALSE(contains(begins, "off 1"));
    EXPECT_TRUE(contains(begins, "section"));
    EXPECT_TRUE(contains(begins, "name"));
    EXPECT_TRUE(contains(begins, "fmt 3 %n%s"));
    EXPECT_TRUE(contains(begins, std::string(255, 'y'))) << "formatted names are cut at 256 bytes";
    EXPECT_EQ(traceNames(path, 'B').size(), traceNames(path, 'E').size());
    EXPECT_EQ(std::vector<std::string>{"async"}, traceNames(path, 'b'));
    EXPECT_EQ(std::vector<std::string>{"async"}, traceNames(path, 'e'));
    unlink(path.c_str());
}

TEST(PerfProxyDebugTest, ProfileLogNeedsBothSwitches) {
    LogCapture logs;
    PerfProxy::setDebuggable(false, true);
    PerfProxy::XTRACE_PROFILE("profile %d", 1);
    PerfProxy::setDebuggable(true, false);
    PerfProxy::XTRACE_PROFILE("profile %d", 2);
    PerfProxy::setDebuggable(true, true);
    PerfProxy::XTRACE_PROFILE("profile %d", 3);
    PerfProxy::XTRACE_PROFILE("%s", std::string(300, 'z').c_str());

    EXPECT_EQ(0u, logs.countContaining("Pelyx", "profile 1"));
    EXPECT_EQ(0u, logs.countContaining("Pelyx", "profile 2"));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG, "profile 3"));
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG, std::string(255, 'z')));
}
