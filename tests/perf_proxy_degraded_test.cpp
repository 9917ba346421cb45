// PerfProxy with the performance-service client missing or incomplete: built once per variant
// below, each binary linked with another stand-in (or none), which the real dlopen/dlsym then see.

#include "perf/PerfProxy.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "support/LogCapture.h"

#ifndef PERF_PROXY_NO_LIBRARY
#include <PerfdControl.h>
#endif

using android::PerfProxy;
using pelyx_test::LogCapture;

namespace {

// Calls that were never found answer with their fallbacks; without a boost thread nothing is
// queued.
[[maybe_unused]] void expectFallbacks(PerfProxy* proxy, bool boostThread) {
    int args[2] = {1, 0};
    EXPECT_EQ(-1, proxy->perfHint(5633, "com.game", 0, 1));
    proxy->perfEvent(4186, "com.game", 2, args);
    EXPECT_EQ(-1, proxy->perfLockAcq(0, 0, args, 2));
    EXPECT_EQ(-1, proxy->perfLockRel(1));
    EXPECT_EQ(-1, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    EXPECT_DOUBLE_EQ(2.2, proxy->halVersion());
    EXPECT_EQ(-1, proxy->perfCallbackRegister(nullptr, 4));
    EXPECT_EQ(boostThread, proxy->isBoostThreadRunning());
    if (boostThread) return;
    EXPECT_EQ(0u, proxy->postTaskDelayed(0, [] {}));
    proxy->setLowLatency(321, true);
    EXPECT_EQ(-1, proxy->lowLatencyHandle());
}

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
    // Property answers are the default, cut to the 91 characters a property holds.
    EXPECT_STREQ("dflt", proxy->perfGetProp("vendor.perf.pelyx.debug", "dflt").value);
    EXPECT_EQ(std::string(91, 'd'), proxy->perfGetProp("x", std::string(200, 'd').c_str()).value);
    EXPECT_STREQ("", proxy->perfGetProp("x", nullptr).value);
    EXPECT_EQ(-1, proxy->perfGetFeedback(5633, "com.game"));
    expectFallbacks(proxy, false);
}
#endif

#ifdef PERF_PROXY_NO_HAL_VER
TEST(PerfProxyNoHalVersionTest, KeepsHal22AndSkipsExtendedFeedback) {
    perfd_stub::setHalVersion(3.0); // unreachable: the entry point is missing
    perfd_stub::setGameWeight("com.game", 6);
    PerfProxy::setDebuggable(true, false);
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_EQ(1u, logs.count("Pelyx", ANDROID_LOG_DEBUG,
                             "Unable to find get_perf_hal_ver function.\n"));
    EXPECT_EQ(1u, logs.countContaining("Pelyx", "Unable to find"));
    int args[2] = {1, 0};
    EXPECT_EQ(-1, proxy->perfGetFeedbackExtn(5633, "com.game", 2, args));
    EXPECT_DOUBLE_EQ(2.2, proxy->halVersion());
    EXPECT_EQ(6, proxy->perfHint(5633, "com.game", 0, 1)); // the rest still works
    EXPECT_TRUE(proxy->isBoostThreadRunning());
}
#endif

#ifdef PERF_PROXY_NO_CALLBACK
TEST(PerfProxyNoCallbackRegisterTest, LogsTheLoaderErrorAndStartsNoThread) {
    perfd_stub::setHalVersion(2.5);
    LogCapture logs;
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_EQ(1u, logs.countContaining("Pelyx", "Unable to find perf_callback_register function. "
                                                "Err = "));
    EXPECT_EQ(1u, logs.countContaining("Pelyx", ": undefined symbol: perf_callback_register"));
    EXPECT_EQ(-1, proxy->perfCallbackRegister(nullptr, 4));
    EXPECT_FALSE(proxy->isBoostThreadRunning());
    // What was looked up before the registration call is kept.
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
    // Found before the gap: forwarded; after it: never looked up.
    EXPECT_STREQ("v", proxy->perfGetProp("vendor.p", "d").value);
    EXPECT_EQ(0, proxy->perfGetFeedback(5633, "com.other"));
    perfd_stub::clearCalls();
    expectFallbacks(proxy, false);
    EXPECT_TRUE(perfd_stub::calls().empty());
}
#endif
