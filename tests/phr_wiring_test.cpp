// The headroom monitor driven through the layer registry.
#include <gtest/gtest.h>


#include "config/FeatureManager.h"
#include "layers/LayerManager.h"
#include "phr/PHRMonitor.h"
#include "support/RegistryDriver.h"

using namespace android;
using namespace pelyx_test;

namespace {

class PhrWiring : public RegistryTest {
protected:
    void SetUp() override {
        perfd_stub::setProp("vendor.perf.phr.enable", "1");
        perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
        // Pacing is switched off for a slow layer only once a smooth switch has ended.
        perfd_stub::setProp("vendor.ruvo.target_fps.switch_time", switchTime);
        perfd_stub::setGame("com.app1", true);
        perfd_stub::setGameWeight("com.app1", 3);
        RegistryTest::SetUp();
        lm->setSmartTouchEnable(true);
        features = FeatureManager::getInstance();
        features->setCallbackHintValue(4187, "com.app1", 0, 0, {0, 80, 0, 120});
    }

    // Promoted, classified, then one more window to register with the headroom monitor.
    void startHeadroom(Producer& game) {
        run({&game}, 700 * kMs);
        ASSERT_TRUE(drainBoostThread());
        run({&game}, 2'200 * kMs);
        ASSERT_TRUE(lm->getLayerStatus(game.id)->phrRegistered);
    }

    FeatureManager* features = nullptr;
    PHRMonitor* phr = PHRMonitor::getInstance();
    std::string switchTime = "1";
};
} // namespace

TEST_F(PhrWiring, TheMonitorStartsWithThePeriodEvenWithoutAnFpsMode) {
    lm->setVsyncPeriod(15'000'000); // no fps mode of its own: the monitors are not told
    ASSERT_TRUE(lm->initPHREnv());
    EXPECT_EQ(phr->vsyncPeriod(), 15'000'000);
}

// Pacing of a layer more than 2 fps below its target stops, but stays on while a smooth switch is
// under way, and when late frames may not be made up.
class PhrWiringKeepsPacing : public PhrWiring, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        const std::string setting = GetParam();
        const size_t eq = setting.find('=');
        if (eq == std::string::npos) return PhrWiring::SetUp();
        if (setting.rfind("vendor.ruvo.target_fps.switch_time", 0) == 0) {
            switchTime = setting.substr(eq + 1);
        } else {
            perfd_stub::setProp(setting.substr(0, eq), setting.substr(eq + 1));
        }
        PhrWiring::SetUp();
    }
};

TEST_P(PhrWiringKeepsPacing, WhenTheLayerFallsBelowItsTarget) {
    Producer game{1, k60Hz};
    features->setCallbackHintValue(4171, "com.app1", 5500, 0, {});
    startHeadroom(game);
    ASSERT_TRUE(lm->getLayerStatus(1)->targetFpsActive);
    game.period = 17'800'000; // 56.2 fps: within the 2 fps of slack
    run({&game}, 2'200 * kMs);
    ASSERT_TRUE(lm->getLayerStatus(1)->targetFpsActive);
    game.period = 19 * kMs; // 52.6 fps
    run({&game}, 3'300 * kMs);
    EXPECT_EQ(lm->getLayerStatus(1)->targetFpsActive, std::string(GetParam()) != "defaults");
}

INSTANTIATE_TEST_SUITE_P(Settings, PhrWiringKeepsPacing,
                         testing::Values("vendor.ruvo.target_fps.switch_time=60",
                                         "vendor.ruvo.target_fps.compensate=false", "defaults"),
                         [](const auto& info) {
                             return info.index == 0 ? "SmoothSwitch" : info.index == 1 ? "NoCompensation" : "Defaults";
                         });

TEST_F(PhrWiring, TouchesUnblockAndOnlyLatchesAtTheDisplayModeCount) {
    Producer game{1, k60Hz};
    startHeadroom(game);
    sp<LayerPHRState> state = phr->getLayerState(1);
    lm->unblockPendingBuffer();
    EXPECT_TRUE(state->mUnblockRequested.load());

    game.period = 33'333'333; // fps mode 30 on a 60 Hz display
    run({&game}, 2'200 * kMs);
    ASSERT_EQ(lm->getLayerStatus(1)->fpsMode, 30);
    const int64_t latched = state->mLastLatchTime.load();
    run({&game}, 200 * kMs);
    EXPECT_EQ(state->mLastLatchTime.load(), latched);
}

TEST_F(PhrWiring, WithdrawnRatesSwitchQuickTouchOffAndTouchesNoLongerUnblock) {
    Producer game{1, k60Hz};
    startHeadroom(game);
    sp<LayerPHRState> state = phr->getLayerState(1);
    EXPECT_FLOAT_EQ(state->rateForFps(120), 1.2f) << "registered with the app's rates";
    phr->setQuickTouchStatus(1, true); // as a backlog of buffers would
    features->setCallbackHintValue(4187, "com.app1", 0, 0, {});
    EXPECT_FALSE(state->mQuickTouchActive.load());
    lm->unblockPendingBuffer();
    EXPECT_FALSE(state->mUnblockRequested.load());
}
