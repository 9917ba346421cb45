#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "PerfdControl.h"
#include "config/FeatureManager.h"
#include "perf/PerfProxy.h"
#include "platform/Properties.h"
#include "support/LogCapture.h"

using namespace android;
using pelyx_test::LogCapture;

namespace {
constexpr const char* kTag = "Pelyx.FeatureManager";

// Waits (bounded) until the capture holds a line with this fragment.
bool waitForLog(const LogCapture& logs, const std::string& tag, const std::string& fragment) {
    for (int i = 0; i < 500; i++) {
        if (logs.countContaining(tag, fragment) > 0) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
} // namespace

TEST(FeatureManagerConstruction, DefaultsWithEverythingUnset) {
    LogCapture logs;
    FeatureManager* fm = FeatureManager::getInstance();
    EXPECT_EQ(fm, FeatureManager::getInstance());
    for (int f : std::initializer_list<int>{DEBUG, QUICK_TOUCH, TARGET_FPS, GPU_JANK_DETECT, CPU_BIG_JANK, 6, 7, 8, 10, -1, 1000})
        EXPECT_FALSE(fm->isFeatureEnabled(static_cast<Feature>(f))) << f;
    EXPECT_TRUE(fm->isFeatureEnabled(ENABLE) && fm->isFeatureEnabled(FRAME_RESCUE));
    EXPECT_FLOAT_EQ(fm->getFrameResendVariation(), 0.2f);
    EXPECT_FLOAT_EQ(fm->getGpuMinExecTimeMult(), 1.0f);
    EXPECT_EQ(fm->getTargetFpsSwitchTime(), -1);
    EXPECT_FLOAT_EQ(fm->getDefaultMaxHeadroomRate(true), 1.8f);
    EXPECT_FLOAT_EQ(fm->getDefaultMaxHeadroomRate(false), 0.9f);
    EXPECT_EQ(logs.countContaining(kTag, "Invalid"), 0u);
}

TEST(FeatureManagerConstruction, DisabledLeavesEveryOptionalFeatureOff) {
    perfd_stub::setProp("vendor.perf.pelyx.enable", "0");
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "true");
    perfd_stub::setProp("vendor.perf.game_frame_rescue.headroom_resend_var", "0.5");
    platform::setProperty("debug.perf.enable_big_jank_detect", "1");
    FeatureManager* fm = FeatureManager::getInstance();
    for (Feature f : {ENABLE, QUICK_TOUCH, TARGET_FPS, GPU_JANK_DETECT, CPU_BIG_JANK})
        EXPECT_FALSE(fm->isFeatureEnabled(f)) << f;
    EXPECT_FLOAT_EQ(fm->getFrameResendVariation(), 0.0f);
    EXPECT_FLOAT_EQ(fm->getGpuMinExecTimeMult(), 1.0f);
    EXPECT_EQ(fm->getTargetFpsSwitchTime(), -1);
}

TEST(FeatureManagerConstruction, ReadsEnabledFeaturesAndTheirTunables) {
    LogCapture logs;
    perfd_stub::setProp("vendor.perf.pelyx.debug", "true");
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    perfd_stub::setProp("vendor.perf.phr.dynamic.enable", "false");
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "yes");
    perfd_stub::setProp("vendor.ruvo.target_fps.switch_time", "7");
    perfd_stub::setProp("vendor.ruvo.target_fps.compensate", "0");
    perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "on");
    perfd_stub::setProp("vendor.perf.gpu_jank_filter.min_exec_time_mult", "7.5");
    perfd_stub::setProp("vendor.perf.game_frame_rescue.headroom_resend_var", "0.5");
    FeatureManager* fm = FeatureManager::getInstance();
    for (Feature f : {DEBUG, QUICK_TOUCH, TARGET_FPS, GPU_JANK_DETECT}) EXPECT_TRUE(fm->isFeatureEnabled(f)) << f;
    EXPECT_TRUE(PerfProxy::isDebuggable());
    EXPECT_FALSE(fm->isPhrDynamicEnabled());
    EXPECT_EQ(fm->getTargetFpsSwitchTime(), 7);
    EXPECT_FLOAT_EQ(fm->getGpuMinExecTimeMult(), 7.5f);
    EXPECT_FLOAT_EQ(fm->getFrameResendVariation(), 0.5f);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "Target fps switch time is 7 seconds, compensation is 0."), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "[TFPS:1][QuickTouch:1, mPHRDynamicEnable:0][GpuJankDetect:1]"), 1u);
}

TEST(FeatureManagerConstruction, DynamicHeadroomDefaultsOnWithQuickTouch) {
    perfd_stub::setProp("vendor.perf.phr.enable", "true");
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "true");
    FeatureManager* fm = FeatureManager::getInstance();
    EXPECT_TRUE(fm->isPhrDynamicEnabled());
    EXPECT_EQ(fm->getTargetFpsSwitchTime(), 0);
    EXPECT_TRUE(fm->isTargetFpsCompensate());
}

class ResendVariation : public testing::TestWithParam<const char*> {};

TEST_P(ResendVariation, OutsideOpenUnitIntervalFallsBack) {
    LogCapture logs;
    perfd_stub::setProp("vendor.perf.game_frame_rescue.headroom_resend_var", GetParam());
    EXPECT_FLOAT_EQ(FeatureManager::getInstance()->getFrameResendVariation(), 0.2f);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR,
                         std::string("Invalid FrameResendVariation: ") + GetParam() +
                                 ", fall back to 0.2"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Values, ResendVariation, testing::Values("1", "0", "-0.5", "abc", "1.5"));

TEST(FeatureManagerConstruction, NonPositiveGpuExecMultFallsBack) {
    LogCapture logs;
    perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "true");
    perfd_stub::setProp("vendor.perf.gpu_jank_filter.min_exec_time_mult", "-2");
    EXPECT_FLOAT_EQ(FeatureManager::getInstance()->getGpuMinExecTimeMult(), 1.0f);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR,
                         "Invalid GpuMinExecTimeMult: -2, fall back to 1.0"), 1u);
}

TEST(FeatureManagerBigJank, ThresholdChangeReachesOnPropChanged) {
    LogCapture logs;
    platform::setProperty("debug.perf.enable_big_jank_detect", "true");
    platform::setProperty("debug.perf.cpu_big_jank_threshold_ms", "40");
    FeatureManager* fm = FeatureManager::getInstance();
    EXPECT_TRUE(fm->isFeatureEnabled(CPU_BIG_JANK));
    EXPECT_EQ(fm->getCpuBigJankThresholdMs(), 40);

    platform::setProperty("debug.perf.cpu_big_jank_threshold_ms", "25");
    ASSERT_TRUE(waitForLog(logs, kTag, "The thresholdMs of cpu_big_jank is 25ms"));
    EXPECT_EQ(fm->getCpuBigJankThresholdMs(), 25);

    platform::setProperty("debug.perf.cpu_big_jank_threshold_ms", "0");
    ASSERT_TRUE(waitForLog(logs, kTag, "Invalid thresholdMs of cpu_big_jank, disabled"));
    EXPECT_EQ(fm->getCpuBigJankThresholdMs(), 0);
    // Both changes were announced to the layer registry, which is not running here.
    for (int i = 0; i < 200 && logs.countContaining("Pelyx.LayerManager", "not initialized") < 2; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(logs.count("Pelyx.LayerManager", ANDROID_LOG_ERROR, "LayerManager not initialized"), 2u);
}

TEST(FeatureManagerAliveApp, CheckFiresOnceForAMatchingLayer) {
    FeatureManager* fm = FeatureManager::getInstance();
    fm->setCallbackHintValue(4192, "com.example.video", 0, 0, {});
    EXPECT_EQ(fm->getCheckingAliveApp(), "com.example.video");
    perfd_stub::clearCalls();

    fm->processAliveAppCheck("SurfaceView[com.example.video/com.example.video.Main]#3");
    ASSERT_EQ(perfd_stub::countCalls("perf_event"), 1u);
    EXPECT_EQ(perfd_stub::calls().back().ints.at(0), 4099);
    EXPECT_EQ(perfd_stub::calls().back().pkg, "com.example.video");
    EXPECT_EQ(fm->getCheckingAliveApp(), "");

    fm->setCallbackHintValue(4192, "com.example.video", 0, 0, {});
    fm->processAliveAppCheck("com.other/com.other.Main#1");
    EXPECT_EQ(perfd_stub::countCalls("perf_event"), 1u);
    EXPECT_EQ(fm->getCheckingAliveApp(), "");
}
