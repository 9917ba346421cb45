// PerfProxy where the performance-service client is missing or incomplete. This file is built
// once per case below, each binary linked with a different stand-in variant (or none at all),
// so the real dlopen/dlsym see exactly that library.

#include "perf/PerfProxy.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>

#include "support/LogCapture.h"

#ifndef PERF_PROXY_NO_LIBRARY
#include <PerfdControl.h>
#endif

using android::PerfProxy;
using pelyx_test::LogCapture;

namespace {

bool hasThread(const std::string& wanted) {
    bool found = false;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return false;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string name;
        if (std::getline(comm, name) && name == wanted) found = true;
    }
    closedir(dir);
    return found;
}

// Without a boost thread nothing is queued, and nothing posted ever runs.
[[maybe_unused]] void expectNoBoostThread(PerfProxy* proxy) {
    EXPECT_FALSE(proxy->isBoostThreadRunning());
    EXPECT_FALSE(hasThread("BP"));
    std::atomic<bool> ran{false};
    EXPECT_EQ(0u, proxy->postTask([&] { ran = true; }));
    EXPECT_EQ(0u, proxy->postTaskDelayed(0, [&] { ran = true; }));
    proxy->setLowLatency(321, true);
    EXPECT_FALSE(ran.load());
    EXPECT_EQ(-1, proxy->lowLatencyHandle());
}

#ifndef PERF_PROXY_NO_LIBRARY
// The loader's text for a symbol the stand-in lacks, as PerfProxy saw it.
[[maybe_unused]] std::string missingSymbolError(const char* symbol) {
    void* handle = dlopen(android::kPerfClientLibrary, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(nullptr, handle);
    dlerror();
    EXPECT_EQ(nullptr, dlsym(handle, symbol));
    const char* error = dlerror();
    std::string text = error ? error : "";
    dlclose(handle);
    return text;
}
#endif

} // namespace

#ifdef PERF_PROXY_NO_LIBRARY

TEST(PerfProxyNoLibraryTest, EveryWrapperFallsBack) {
    ASSERT_EQ(nullptr, dlopen(android::kPerfClientLibrary, RTLD_NOW)) << "stand-in found on path";
    const std::string loaderError = dlerror();
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();

    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR,
                             std::string("Unable to open ") + android::kPerfClientLibrary + ": " +
                                     loaderError + "\n."));
    EXPECT_STREQ("dflt", proxy->perfGetProp("vendor.perf.pelyx.debug", "dflt").value);
    EXPECT_EQ(std::string(91, 'd'), proxy->perfGetProp("x", std::string(200, 'd').c_str()).value);
    EXPECT_STREQ("", proxy->perfGetProp("x", nullptr).value);
    EXPECT_EQ(-1, proxy->perfGetFeedback(5633, "com.game"));
    int args[2] = {1, 0};
    EXPECT_EQ(-1, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    EXPECT_EQ(-1, proxy->perfHint(5633, "com.game", 0, 1));
    proxy->perfEvent(4099, "com.game", 2, args);
    EXPECT_EQ(-1, proxy->perfLockAcq(0, 0, args, 2));
    EXPECT_EQ(-1, proxy->perfLockRel(1));
    EXPECT_DOUBLE_EQ(-1.0, proxy->getPerfHalVer());
    EXPECT_EQ(-1, proxy->perfCallbackRegister(nullptr, 4));
    EXPECT_DOUBLE_EQ(2.2, proxy->halVersion());
}

TEST(PerfProxyNoLibraryTest, NoBoostThreadAndServiceHintsAreDropped) {
    PerfProxy* proxy = PerfProxy::getInstance();
    expectNoBoostThread(proxy);
    proxy->frameHint(5, 1000, 1, "com.game", 0); // dropped: no thread to send it from
    EXPECT_EQ(0u, proxy->postTask([] {}));
}

#endif

#ifdef PERF_PROXY_NO_HAL_VER

TEST(PerfProxyNoHalVersionTest, KeepsHal22AndSkipsExtendedFeedback) {
    perfd_stub::setHalVersion(3.0); // unreachable: the entry point is missing
    perfd_stub::setGameWeight("com.game", 6);
    PerfProxy::setDebuggable(true, false);
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();

    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG, "Unable to find get_perf_hal_ver function.\n"));
    EXPECT_EQ(0u, logs.countContaining("Pelyx", "Unable to find perf_"));
    EXPECT_DOUBLE_EQ(2.2, proxy->halVersion());
    EXPECT_DOUBLE_EQ(-1.0, proxy->getPerfHalVer());
    int args[2] = {1, 0};
    EXPECT_EQ(-1, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    EXPECT_EQ(0u, perfd_stub::countCalls("perf_get_feedback_extn"));
    // Not fatal: the rest of the client and the boost thread work.
    EXPECT_EQ(6, proxy->perfHint(5633, "com.game", 0, 1));
    EXPECT_TRUE(proxy->isBoostThreadRunning());
}

#endif

#ifdef PERF_PROXY_NO_CALLBACK

TEST(PerfProxyNoCallbackRegisterTest, LogsTheLoaderErrorAndStartsNoThread) {
    perfd_stub::setHalVersion(2.5);
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();

    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR,
                             "Unable to find perf_callback_register function. Err = " +
                                     missingSymbolError("perf_callback_register")));
    EXPECT_EQ(-1, proxy->perfCallbackRegister(nullptr, 4));
    expectNoBoostThread(proxy);
    // Everything looked up before the registration call is still there.
    EXPECT_DOUBLE_EQ(2.5, proxy->halVersion());
    int args[2] = {3, 4};
    proxy->perfEvent(4186, "com.game", 2, args);
    EXPECT_EQ(1u, perfd_stub::countCalls("perf_event"));
}

#endif

#ifdef PERF_PROXY_NO_HINT

TEST(PerfProxyNoHintTest, MissingRequiredCallStopsTheSetUp) {
    perfd_stub::setHalVersion(3.0);
    perfd_stub::setProp("vendor.p", "v");
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();

    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_ERROR, "Unable to find perf_hint function.\n"));
    EXPECT_EQ(1u, logs.countContaining("Pelyx", "Unable to find"));
    // Found before the gap: still forwarded.
    EXPECT_STREQ("v", proxy->perfGetProp("vendor.p", "d").value);
    EXPECT_EQ(0, proxy->perfGetFeedback(5633, "com.other"));
    EXPECT_EQ(1u, perfd_stub::countCalls("perf_get_feedback"));
    // After the gap: never looked up.
    int args[2] = {5, 6};
    proxy->perfEvent(4186, "com.game", 2, args);
    EXPECT_EQ(0u, perfd_stub::countCalls("perf_event"));
    EXPECT_EQ(-1, proxy->perfHint(5633, "com.game", 0, 1));
    EXPECT_EQ(-1, proxy->perfLockAcq(0, 0, args, 2));
    EXPECT_EQ(-1, proxy->perfLockRel(1));
    EXPECT_DOUBLE_EQ(-1.0, proxy->getPerfHalVer());
    EXPECT_DOUBLE_EQ(2.2, proxy->halVersion());
    EXPECT_EQ(-1, proxy->perfCallbackRegister(nullptr, 4));
    EXPECT_EQ(0u, perfd_stub::countCalls("get_perf_hal_ver"));
    expectNoBoostThread(proxy);
}

#endif
