// Frame rescue driven through the layer registry: a game layer at its vsync rate gets deadline
// checks, a late frame is boosted level by level and the boost is withdrawn by the next frame.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "config/FeatureManager.h"
#include "gfr/GFRMonitor.h"
#include "layers/LayerManager.h"
#include "support/FakeBoostDevice.h"
#include "support/RegistryDriver.h"

namespace android {
class GFRMonitorTestPeer {
public:
    static sp<LayerGFRState> state(int32_t id) {
        GFRMonitor& m = GFRMonitor::getInstance();
        Mutex::Autolock lock(m.mMutex);
        auto it = m.mLayers.find(id);
        return it == m.mLayers.end() ? nullptr : it->second;
    }
};
} // namespace android

using namespace android;
using namespace pelyx_test;

namespace {

class GfrWiring : public RegistryTest {
protected:
    void SetUp() override {
        perfd_stub::setGame("com.app1", true);
        perfd_stub::setGameWeight("com.app1", 3);
        RegistryTest::SetUp();
        FeatureManager::getInstance()->setCallbackHintValue(4189, "com.app1:golden=0.8", 0, 0, {1});
    }

    // Promoted, classified, then one more window to switch frame rescue on.
    void startRescue(Producer& game) {
        run({&game}, 700 * kMs);
        ASSERT_TRUE(drainBoostThread());
        run({&game}, 2'200 * kMs);
        auto status = lm->getLayerStatus(game.id);
        ASSERT_TRUE(status->gfrRegistered);
        ASSERT_TRUE(status->gfrActive);
    }

    std::vector<int32_t> levels() {
        std::vector<int32_t> out;
        for (const auto& hint : FakeBoostDevice::hints()) out.push_back(hint[0]);
        return out;
    }

    FakeBoostDevice device;
};
} // namespace

TEST_F(GfrWiring, LateFrameIsBoostedThenWithdrawnByTheNextOne) {
    Producer game{1, k60Hz};
    startRescue(game);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "GFRMonitor initialized"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "GFR: Registered layer 1 [com.app1/com.app1.Main#1]"), 1u);
    EXPECT_TRUE(levels().empty()) << "frames on time send nothing";

    // The last frame's checks (20, 26.7 and 33.3 ms after its queue) find no newer frame.
    const int64_t lastQueue = game.next - game.period;
    clock.set(lastQueue + 40 * kMs);
    for (int i = 0; i < 200 && levels().size() < 3; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(levels(), (std::vector<int32_t>{1, 2, 3}));

    clock.set(lastQueue + 45 * kMs);
    queue(game);
    for (int i = 0; i < 200 && levels().size() < 4; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(levels().size(), 4u);
    EXPECT_EQ(levels().back(), 0) << "the next frame withdraws the boost";
}

TEST_F(GfrWiring, InvisibleOrRemovedLayersLeaveTheMonitor) {
    Producer game{1, k60Hz};
    startRescue(game);
    game.visible = false;
    run({&game}, 1'100 * kMs);
    EXPECT_FALSE(lm->getLayerStatus(1)->gfrActive);
    EXPECT_EQ(logs.count("Pelyx.GFRMonitor", ANDROID_LOG_DEBUG, "Layer 1 disable GFR"), 1u);

    game.visible = true;
    run({&game}, 1'100 * kMs);
    EXPECT_TRUE(lm->getLayerStatus(1)->gfrActive) << "eligible again at the next window";

    clock.advance(2'100 * kMs);
    lm->cleanupInactiveLayers(clock.now());
    EXPECT_FALSE(lm->getLayerStatus(1)->gfrActive);
    lm->cleanupInactiveLayers(clock.now() + 1'000 * kMs);
    EXPECT_EQ(logs.count("Pelyx.GFRMonitor", ANDROID_LOG_DEBUG, "GFR: Unregistered layer 1"), 1u);
}

TEST_F(GfrWiring, ConfigurationPushesReachTheMonitor) {
    Producer game{1, k60Hz};
    startRescue(game);
    FeatureManager* features = FeatureManager::getInstance();
    features->setCallbackHintValue(4189, "com.app1:golden=1.0", 0, 0, {1});
    EXPECT_TRUE(lm->getLayerStatus(1)->gfrActive) << "still enabled: tunables updated in place";
    features->setCallbackHintValue(4189, "com.app1:x", 0, 0, {0});
    auto status = lm->getLayerStatus(1);
    EXPECT_FALSE(status->gfrEnabled);
    EXPECT_FALSE(status->gfrActive);
    EXPECT_EQ(logs.count("Pelyx.GFRMonitor", ANDROID_LOG_DEBUG, "Layer 1 disable GFR"), 1u);
    run({&game}, 1'100 * kMs);
    EXPECT_FALSE(lm->getLayerStatus(1)->gfrActive) << "not wanted any more";
}

TEST_F(GfrWiring, StopStopsTheMonitor) {
    Producer game{1, k60Hz};
    startRescue(game);
    lm->stop();
    EXPECT_EQ(logs.count("Pelyx.GFRMonitor", ANDROID_LOG_DEBUG, "GFRMonitor stopped"), 1u);
}

TEST_F(GfrWiring, OnlyGamesAtTheDisplayRateWithAKnownWeightAreRescued) {
    FeatureManager* features = FeatureManager::getInstance();
    for (const char* pkg : {"com.app2", "com.app3"}) {
        perfd_stub::setGame(pkg, true);
        features->setCallbackHintValue(4189, std::string(pkg) + ":golden=0.8", 0, 0, {1});
    }
    perfd_stub::setGameWeight("com.app2", -1); // the service knows no weight
    perfd_stub::setGameWeight("com.app3", 3);
    Producer noWeight{2, k60Hz}, halfRate{3, 33'333'333};
    noWeight.uid = 10'002;
    halfRate.uid = 10'003;
    run({&noWeight, &halfRate}, 700 * kMs);
    ASSERT_TRUE(drainBoostThread());
    run({&noWeight, &halfRate}, 2'200 * kMs);
    ASSERT_TRUE(lm->getLayerStatus(2)->gfrEnabled);
    ASSERT_TRUE(lm->getLayerStatus(3)->gfrEnabled);
    EXPECT_FALSE(lm->getLayerStatus(2)->gfrActive);
    EXPECT_FALSE(lm->getLayerStatus(3)->gfrActive) << "fps mode 30 on a 60 Hz display";
}

class GfrWiringWithTargetFps : public GfrWiring {
protected:
    void SetUp() override {
        perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
        GfrWiring::SetUp();
    }
};

TEST_F(GfrWiringWithTargetFps, TheMonitorGetsDroppedFramesAndOnlyAPacedRate) {
    // A 90 fps target above the game's 60: set, but not paced.
    FeatureManager::getInstance()->setCallbackHintValue(4171, "com.app1", 9000, 0, {});
    Producer game{1, k60Hz};
    startRescue(game);
    ASSERT_FALSE(lm->getLayerStatus(1)->targetFpsActive);
    ASSERT_FLOAT_EQ(lm->getLayerStatus(1)->targetFps, 90.0f);
    sp<LayerGFRState> s = GFRMonitorTestPeer::state(1);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->mFramePeriod, k60Hz) << "checks keep the vsync period while nothing is paced";
    EXPECT_EQ(s->mFrameDropWindow, 0u) << "a latch every vsync drops nothing";
    clock.set(game.next - game.period + 3 * k60Hz); // a latch three vsyncs after the last
    queue(game);
    EXPECT_EQ(s->mFrameDropWindow, 0b11u);
}
