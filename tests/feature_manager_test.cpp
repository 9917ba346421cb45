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

struct Props {
    std::vector<std::pair<const char*, const char*>> service; // answered by the service
    std::vector<std::pair<const char*, const char*>> system;  // read from system properties
};

FeatureManager* construct(const Props& props) {
    for (const auto& [name, value] : props.service) perfd_stub::setProp(name, value);
    for (const auto& [name, value] : props.system) platform::setProperty(name, value);
    return FeatureManager::getInstance();
}

// The watcher thread hands a change over through the log; bounded so a lost change fails.
bool waitForLog(const LogCapture& logs, const std::string& fragment) {
    for (int i = 0; i < 500 && logs.countContaining(kTag, fragment) == 0; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return logs.countContaining(kTag, fragment) > 0;
}
} // namespace

TEST(FeatureManagerConstruction, DisabledLeavesEveryOptionalFeatureOff) {
    LogCapture logs;
    FeatureManager* fm = construct({{{"vendor.perf.pelyx.enable", "0"},
                                     {"vendor.perf.pelyx.debug", "1"},
                                     {"vendor.perf.phr.enable", "1"},
                                     {"vendor.ruvo.enable.target_fps", "true"},
                                     {"vendor.perf.gpu_jank_detect.enable", "true"}},
                                    {{"debug.perf.enable_big_jank_detect", "1"}}});
    for (Feature f : {ENABLE, QUICK_TOUCH, TARGET_FPS, GPU_JANK_DETECT, CPU_BIG_JANK}) {
        EXPECT_FALSE(fm->isFeatureEnabled(f)) << f;
    }
    EXPECT_TRUE(fm->isFeatureEnabled(FRAME_RESCUE));
    fm->setCallbackHintValue(4187, "com.game", 0, 0, {0, 80});
    EXPECT_FALSE(fm->getPhrConfig("com.game", false).has_value());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "set PhrMinRate fail, Quick Touch disable!"), 1u);
}

TEST(FeatureManagerConstruction, SwitchedOnFeaturesDefaultTheirTunables) {
    // A service answer keeps all of its 91 characters.
    const std::string longest = std::string(87, '0') + "0.25";
    FeatureManager* fm = construct({{{"vendor.perf.phr.enable", "true"},
                                     {"vendor.ruvo.enable.target_fps", "true"},
                                     {"vendor.perf.game_frame_rescue.headroom_resend_var", longest.c_str()}},
                                    {}});
    EXPECT_FLOAT_EQ(fm->getFrameResendVariation(), 0.25f);
    EXPECT_TRUE(fm->isPhrDynamicEnabled());
    EXPECT_EQ(fm->getTargetFpsSwitchTime(), 0);
    EXPECT_TRUE(fm->isTargetFpsCompensate());
}

// Values outside their range fall back with an error line naming the text read.
class InvalidTunable : public testing::TestWithParam<const char*> {};

TEST_P(InvalidTunable, FallsBackWithAnErrorLine) {
    LogCapture logs;
    const std::string text = GetParam();
    FeatureManager* fm = construct({{{"vendor.perf.game_frame_rescue.headroom_resend_var", GetParam()},
                                     {"vendor.perf.gpu_jank_detect.enable", "true"},
                                     {"vendor.perf.gpu_jank_filter.min_exec_time_mult", GetParam()}},
                                    {}});
    EXPECT_FLOAT_EQ(fm->getFrameResendVariation(), 0.2f);
    EXPECT_FLOAT_EQ(fm->getGpuMinExecTimeMult(), 1.0f);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR,
                         "Invalid FrameResendVariation: " + text + ", fall back to 0.2"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR,
                         "Invalid GpuMinExecTimeMult: " + text + ", fall back to 1.0"),
              text == "1" ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Texts, InvalidTunable, testing::Values("1", "0"));

TEST(FeatureManagerBigJank, ThresholdChangesReachTheWatcher) {
    LogCapture logs;
    FeatureManager* fm = construct({{}, {{"debug.perf.enable_big_jank_detect", "true"},
                                         {"debug.perf.cpu_big_jank_threshold_ms", "40"}}});
    EXPECT_TRUE(fm->isFeatureEnabled(CPU_BIG_JANK));
    EXPECT_EQ(fm->getCpuBigJankThresholdMs(), 40);

    platform::setProperty("debug.perf.cpu_big_jank_threshold_ms", "1"); // the smallest there is
    ASSERT_TRUE(waitForLog(logs, "The thresholdMs of cpu_big_jank is 1ms"));
    EXPECT_EQ(fm->getCpuBigJankThresholdMs(), 1);
    platform::setProperty("debug.perf.cpu_big_jank_threshold_ms", "none"); // reads as 0
    ASSERT_TRUE(waitForLog(logs, "Invalid thresholdMs of cpu_big_jank, disabled"));
    EXPECT_EQ(fm->getCpuBigJankThresholdMs(), 0);
    EXPECT_EQ(logs.countContaining(kTag, "The thresholdMs of cpu_big_jank is"), 1u);
}

// Activity hints: 0 asks for a one-shot alive check, 2 reports whether the scene is stable.
TEST(FeatureManagerActivity, AliveCheckFiresOnceAndSwitchingSetsStability) {
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

    for (int unstable : {0, 1, 0}) {
        fm->setCallbackHintValue(4192, "com.example.video", 2, unstable, {});
        EXPECT_EQ(fm->isActvStable(), unstable == 0);
    }
}
