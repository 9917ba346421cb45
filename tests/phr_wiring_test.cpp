// The headroom monitor driven through the layer registry.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

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

TEST_F(PhrWiring, AGameWithRatesIsRegisteredWithThem) {
    Producer game{1, k60Hz};
    startHeadroom(game);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "PHRMonitor initialized"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "PHR: Registered layer 1 [com.app1/com.app1.Main#1]"), 1u);
    EXPECT_EQ(phr->vsyncPeriod(), k60Hz);
    sp<LayerPHRState> state = phr->getLayerState(1);
    ASSERT_NE(state, nullptr);
    EXPECT_FLOAT_EQ(state->phrMinRate(), 0.8f);
    EXPECT_FLOAT_EQ(state->highFpsPhrMinRate(), 1.2f);

    // New rates reach the monitor; a change of a hundredth or less does not.
    features->setCallbackHintValue(4187, "com.app1", 0, 0, {0, 81, 0, 150});
    EXPECT_FLOAT_EQ(state->phrMinRate(), 0.8f);
    features->setCallbackHintValue(4187, "com.app1", 0, 0, {0, 90, 0, 150});
    EXPECT_FLOAT_EQ(state->phrMinRate(), 0.9f);
    EXPECT_FLOAT_EQ(state->highFpsPhrMinRate(), 1.5f);
}

TEST_F(PhrWiring, TheMonitorStartsWithThePeriodEvenWithoutAnFpsMode) {
    lm->setVsyncPeriod(15'000'000); // no fps mode of its own: the monitors are not told
    ASSERT_TRUE(lm->initPHREnv());
    EXPECT_EQ(phr->vsyncPeriod(), 15'000'000);
}

TEST_F(PhrWiring, TargetFpsPacingFollowsTheConfiguration) {
    Producer game{1, k60Hz};
    startHeadroom(game);
    features->setCallbackHintValue(4171, "com.app1", 4500, 0, {});
    EXPECT_TRUE(lm->getLayerStatus(1)->targetFpsActive) << "60 fps above a 45 target: pace";
    EXPECT_TRUE(phr->getLayerState(1)->mTargetFpsActive.load());

    features->setCallbackHintValue(4171, "com.app1", 0, 0, {});
    EXPECT_FALSE(lm->getLayerStatus(1)->targetFpsActive);
    EXPECT_FALSE(phr->getLayerState(1)->mTargetFpsActive.load());
}

TEST_F(PhrWiring, PacingStopsWhenTheLayerFallsWellBelowItsTarget) {
    Producer game{1, k60Hz};
    features->setCallbackHintValue(4171, "com.app1", 5500, 0, {});
    startHeadroom(game);
    ASSERT_TRUE(lm->getLayerStatus(1)->targetFpsActive) << "switched on at a window";
    // Let any smooth switch finish, then drop to 40 fps: more than 2 below the target.
    game.period = 25 * kMs;
    for (int i = 0; i < 8 && lm->getLayerStatus(1)->targetFpsActive; i++) {
        run({&game}, 1'100 * kMs);
    }
    EXPECT_FALSE(lm->getLayerStatus(1)->targetFpsActive);
}

// Pacing of a slow layer stays on while a smooth switch is under way, and when late frames may
// not be made up.
class PhrWiringKeepsPacing : public PhrWiring, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        const std::string setting = GetParam();
        const size_t eq = setting.find('=');
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
    game.period = 25 * kMs;
    run({&game}, 3'300 * kMs);
    EXPECT_TRUE(lm->getLayerStatus(1)->targetFpsActive);
}

INSTANTIATE_TEST_SUITE_P(Settings, PhrWiringKeepsPacing,
                         testing::Values("vendor.ruvo.target_fps.switch_time=60",
                                         "vendor.ruvo.target_fps.compensate=false"),
                         [](const auto& info) { return info.index == 0 ? "SmoothSwitch" : "NoCompensation"; });

TEST_F(PhrWiring, LosingTheRatesOrTheLayerLeavesTheMonitor) {
    Producer game{1, k60Hz};
    startHeadroom(game);
    phr->setQuickTouchStatus(1, true);
    ASSERT_EQ(phr->quickTouchLayerId(), 1);
    features->setCallbackHintValue(4187, "com.app1", 0, 0, {});
    EXPECT_NE(phr->quickTouchLayerId(), 1) << "no rates: quick touch off";

    clock.advance(2'100 * kMs);
    lm->cleanupInactiveLayers(clock.now());
    lm->cleanupInactiveLayers(clock.now() + 1'000 * kMs);
    EXPECT_EQ(phr->getLayerState(1), nullptr);
    EXPECT_EQ(logs.count("Pelyx.PHRMonitor", ANDROID_LOG_DEBUG, "Layer 1 destroyed"), 1u);
}

TEST_F(PhrWiring, StopStopsTheMonitorAndFreesHeldThreads) {
    Producer game{1, k60Hz};
    startHeadroom(game);
    phr->setQuickTouchStatus(1, true);
    // A queue thread that the hold may keep: stop must not leave it blocked.
    std::atomic<bool> returned{false};
    std::thread compositor([&] {
        queue(game);
        returned = true;
    });
    lm->stop();
    for (int i = 0; i < 400 && !returned; i++) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(returned.load());
    compositor.join();
    EXPECT_FALSE(phr->isRunning());
}

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
