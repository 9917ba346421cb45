// App identity of tracked layers: eviction from the per-uid cache (the scenario goldens
// show classification and the cache at work).
#include <gtest/gtest.h>

#include "layers/LayerManager.h"
#include "support/RegistryDriver.h"

using namespace android;
using namespace pelyx_test;

namespace {

class AppIdentity : public RegistryTest {
protected:
    void SetUp() override {
        perfd_stub::setProp("vendor.perf.phr.enable", "1");
        perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
        RegistryTest::SetUp();
    }
};
} // namespace

TEST_F(AppIdentity, AFifthLayerEvictsANonGameBeforeAGame) {
    for (const char* pkg : {"com.app1", "com.app2", "com.app4"}) perfd_stub::setGame(pkg, true);
    Producer a{1, k60Hz}, b{2, k60Hz}, c{3, k60Hz}, d{4, k60Hz}, e{5, k60Hz};
    b.uid = 10'002; c.uid = 10'003; d.uid = 10'004; e.uid = 10'005;
    run({&a, &b, &c, &d}, 700 * kMs);
    ASSERT_TRUE(drainBoostThread());
    run({&a, &b, &c, &d}, 1'500 * kMs);
    ASSERT_FALSE(lm->getLayerStatus(3)->isGame);
    run({&a, &b, &c, &d, &e}, 600 * kMs);
    // All focused: the non-games go first, the newcomer (no mode yet) before layer 3.
    EXPECT_FALSE(tracked(5));
    EXPECT_TRUE(tracked(1) && tracked(2) && tracked(4)) << "no game is evicted";
}
