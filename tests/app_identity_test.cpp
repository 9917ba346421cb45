// App identity of tracked layers and the reactions to configuration pushes.
#include <gtest/gtest.h>

#include "config/FeatureManager.h"
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
        features = FeatureManager::getInstance();
    }

    // Promotes a producer and waits until its app has been classified.
    void promote(Producer& p) {
        run({&p}, 600 * kMs);
        ASSERT_TRUE(tracked(p.id));
        ASSERT_TRUE(drainBoostThread());
    }

    size_t gameQueries() { return perfd_stub::countCalls("perf_get_feedback"); }

    FeatureManager* features = nullptr;
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

TEST_F(AppIdentity, EleventhAppEvictsTheLeastRecentlySeen) {
    for (int32_t id = 1; id <= 11; id++) {
        Producer p{id, k60Hz};
        p.uid = 10'000 + id;
        promote(p);
        clock.advance(2'100 * kMs); // silent: marked, then removed
        lm->cleanupInactiveLayers(clock.now());
        lm->cleanupInactiveLayers(clock.now() + 1'000 * kMs);
        ASSERT_FALSE(tracked(id));
    }
    EXPECT_EQ(lm->appInfoCount(), 10u);
    EXPECT_FALSE(lm->getAppInfo(10'001).has_value());
    EXPECT_TRUE(lm->getAppInfo(10'002).has_value());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Remove oldest app from mAppInfoMap: [com.app1]"), 1u);

    // The evicted app is classified again when it comes back.
    const size_t queries = gameQueries();
    Producer back{1, k60Hz};
    back.uid = 10'001;
    promote(back);
    EXPECT_GT(gameQueries(), queries);
    EXPECT_TRUE(lm->getAppInfo(10'001).has_value());
}

TEST_F(AppIdentity, LoadsPerAppSettingsWithGlobalFallbackForGames) {
    perfd_stub::setGame("com.app1", true);
    features->setCallbackHintValue(4171, "45", 0, 0, {});                 // global target
    features->setCallbackHintValue(4187, "com.app2", 0, 0, {0, 70, 0, 110});
    features->setCallbackHintValue(4189, "com.app2:golden=0.8", 0, 0, {1});
    Producer game{1, k60Hz};
    Producer app{2, k60Hz};
    app.uid = 10'002;
    promote(game);
    promote(app);
    auto g = lm->getLayerStatus(1);
    EXPECT_FLOAT_EQ(g->targetFps, 45.0f) << "a game falls back to the global entry";
    EXPECT_FALSE(g->gfrEnabled);
    auto a = lm->getLayerStatus(2);
    EXPECT_FLOAT_EQ(a->targetFps, 0.0f) << "other apps do not";
    EXPECT_TRUE(a->gfrEnabled);
    EXPECT_FALSE(a->phrConfigValid) << "headroom rates are loaded for games only";
}

TEST_F(AppIdentity, HostAppIsRescuedOnlyInItsMiniGameScene) {
    features->setCallbackHintValue(4189, "com.tencent.mm:golden=0.8", 0, 0, {1});
    Producer chat{1, k60Hz};
    chat.layerName = "com.tencent.mm/com.tencent.mm.ui.LauncherUI#1";
    Producer mini{2, k60Hz};
    mini.layerName = "SurfaceView[com.tencent.mm/com.tencent.mm.plugin.appbrand.ui.AppBrandUI]#2";
    run({&chat, &mini}, 600 * kMs);
    ASSERT_TRUE(drainBoostThread());
    EXPECT_FALSE(lm->getLayerStatus(1)->gfrEnabled);
    EXPECT_TRUE(lm->getLayerStatus(2)->gfrEnabled);

    // A later push keeps the carve-out.
    features->setCallbackHintValue(4189, "com.tencent.mm:golden=0.9", 0, 0, {2});
    EXPECT_FALSE(lm->getLayerStatus(1)->gfrEnabled);
    EXPECT_TRUE(lm->getLayerStatus(2)->gfrEnabled);
    features->setCallbackHintValue(4189, "com.tencent.mm:x", 0, 0, {0});
    EXPECT_FALSE(lm->getLayerStatus(2)->gfrEnabled);
}

TEST_F(AppIdentity, GlobalPushAppliesToTheFirstGameOrToNothing) {
    Producer app{1, k60Hz};
    promote(app);
    features->setCallbackHintValue(4171, "50", 0, 0, {});
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->targetFps, 0.0f);
    EXPECT_EQ(logs.countContaining(kTag, "blind mode"), 0u);
    EXPECT_EQ(logs.countContaining(kTag, "OnFeatureConfigChanged - TARGET_FPS"), 0u);

    perfd_stub::setGame("com.app2", true);
    Producer game{2, k60Hz};
    game.uid = 10'002;
    run({&app, &game}, 600 * kMs);
    ASSERT_TRUE(drainBoostThread());
    features->setCallbackHintValue(4171, "40", 0, 0, {});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Feature config blind mode select com.app2"), 1u);
    EXPECT_FLOAT_EQ(lm->getLayerStatus(2)->targetFps, 40.0f);
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->targetFps, 0.0f);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "OnFeatureConfigChanged - TARGET_FPS: targetFps=40.00, pkgName=com.app2"), 1u);
}

TEST_F(AppIdentity, HeadroomRateChangesOfAHundredthOrLessAreIgnored) {
    perfd_stub::setGame("com.app1", true);
    Producer game{1, k60Hz};
    promote(game);
    features->setCallbackHintValue(4187, "com.app1", 0, 0, {0, 80, 0, 120});
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->phrMinRate, 0.80f);
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->highFpsPhrMinRate, 1.20f);
    features->setCallbackHintValue(4187, "com.app1", 0, 0, {0, 81, 0, 150});
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->phrMinRate, 0.80f) << "a 60 Hz display compares the normal rate";
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->highFpsPhrMinRate, 1.20f);
    features->setCallbackHintValue(4187, "com.app1", 0, 0, {0, 82, 0, 150});
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->phrMinRate, 0.82f);
    EXPECT_FLOAT_EQ(lm->getLayerStatus(1)->highFpsPhrMinRate, 1.50f);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "OnFeatureConfigChanged - QUICK_TOUCH: set enabled=1, phrMinRate=0.82, "
                         "highFpsPhrMinRate=1.50, pkgName=com.app1"), 1u);
}

TEST_F(AppIdentity, EventOnlyFeatures) {
    features->setCallbackHintValue(4192, "com.x", 2, 0, {});
    EXPECT_TRUE(lm->isActvStable());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "OnFeatureConfigChanged - ACTV_SWITCHING: mActvStable=true"), 1u);
    features->setCallbackHintValue(4192, "com.x", 1, 0, {});
    EXPECT_TRUE(lm->hasConcurrencyEvent());
    lm->onFeatureConfigChanged(static_cast<Feature>(42), "");
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Unknown feature"), 1u);
}
