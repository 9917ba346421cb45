// Frame rescue driven through the layer registry: which layers are rescued, and the drops and
// rate the monitor is told.
#include <gtest/gtest.h>


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

    FakeBoostDevice device;
};
} // namespace

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
