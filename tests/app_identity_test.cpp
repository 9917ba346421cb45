// App identity of tracked layers: classification, its per-uid cache and eviction.
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

    // Promotes a producer and waits until its app has been classified.
    void promote(Producer& p) {
        run({&p}, 600 * kMs);
        ASSERT_TRUE(tracked(p.id));
        ASSERT_TRUE(drainBoostThread());
    }

    size_t gameQueries() { return perfd_stub::countCalls("perf_get_feedback"); }
};
} // namespace

TEST_F(AppIdentity, ClassifiedOnTheBoostThreadAndCachedPerUid) {
    perfd_stub::setGame("com.app1", true);
    perfd_stub::setGameWeight("com.app1", 7);
    Producer first{1, k60Hz};
    promote(first);
    auto status = lm->getLayerStatus(1);
    EXPECT_TRUE(status->isGame);
    EXPECT_EQ(status->gameWeight, 7);
    auto app = lm->getAppInfo(first.uid);
    ASSERT_TRUE(app.has_value());
    EXPECT_EQ(app->packageName, "com.app1");
    EXPECT_TRUE(app->isGame);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "game layer checker: [com.app1/com.app1.Main#1] layer 1, isGame 1, weight 7"),
              1u);

    // A second layer of the same uid takes the cached identity at once, with no query.
    const size_t queries = gameQueries();
    Producer second{2, k60Hz};
    second.uid = first.uid;
    second.layerName = "SurfaceView[com.app1/com.app1.Main]#2";
    run({&first, &second}, 600 * kMs);
    status = lm->getLayerStatus(2);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->isGame);
    EXPECT_EQ(status->gameWeight, 7);
    ASSERT_TRUE(drainBoostThread());
    EXPECT_EQ(gameQueries(), queries);

    // A package-less name of that uid borrows the cached package; the line saying so is a
    // debug line, silent while the debug switch is off.
    PerfProxy::setDebuggable(false, false);
    Producer third{3, k60Hz};
    third.uid = first.uid;
    third.layerName = "GameSurface#3";
    queue(third);
    EXPECT_EQ(lm->candidateCount(), 1u);
    EXPECT_EQ(logs.countContaining(kTag, "get pkg from AppInfo cache"), 0u);
}

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
