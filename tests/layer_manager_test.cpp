// Registry behaviour with no boost thread (a service without callback registration), so that
// no posted clean-up runs between the steps of a test.
#include <gtest/gtest.h>

#include "layers/LayerManager.h"
#include "platform/Properties.h"
#include "support/RegistryDriver.h"

using namespace android;
using namespace pelyx_test;

namespace {
using Registry = RegistryTest;
} // namespace

TEST_F(Registry, PromotesAfterHalfASecondAtThirtyFps) {
    Producer thirty{1, 33'333'333};
    run({&thirty}, 450 * kMs);
    EXPECT_FALSE(tracked(1));
    EXPECT_EQ(lm->candidateCount(), 1u);
    run({&thirty}, 100 * kMs);
    EXPECT_TRUE(tracked(1));
    EXPECT_EQ(lm->candidateCount(), 0u);
    EXPECT_EQ(lm->trackedLayerCount(), 1);
    EXPECT_EQ(logs.countContaining(kTag, "Add new layer to full tracking: [com.app1/com.app1.Main#1] "
                                         "layer 1"), 1u);
}

TEST_F(Registry, TwentyFpsIsNeverPromoted) {
    Producer twenty{2, 50 * kMs};
    run({&twenty}, 5'000 * kMs);
    EXPECT_FALSE(tracked(2));
    EXPECT_EQ(lm->candidateCount(), 1u);
}

TEST_F(Registry, NamesWithoutPackageAndBadIdsAreIgnored) {
    lm->onBufferIncrement("Wallpaper#0", 3, 1, 1, clock.now(), false, 0);
    lm->onBufferIncrement("com.a/com.a.B#0", 0, 1, 1, clock.now(), false, 0);
    lm->onBufferIncrement("com.a/com.a.B#0", -4, 1, 1, clock.now(), false, 0);
    EXPECT_EQ(lm->candidateCount(), 0u);
}

TEST_F(Registry, SteadySixtyReachesModeSixtyOnceTheRingIsFull) {
    Producer sixty{1, k60Hz};
    run({&sixty}, 520 * kMs); // promoted: the candidate's half-second window
    ASSERT_TRUE(tracked(1));
    EXPECT_EQ(lm->getLayerStatus(1)->fpsMode, -1);
    run({&sixty}, 990 * kMs); // the layer's first one-second window is not complete yet
    EXPECT_EQ(lm->getLayerStatus(1)->fpsMode, -1);
    EXPECT_TRUE(fpsModeEvents().empty());
    run({&sixty}, 40 * kMs);
    auto status = lm->getLayerStatus(1);
    EXPECT_EQ(status->fpsMode, 60);
    EXPECT_NEAR(status->fps, 60.0f, 0.1f);
    EXPECT_EQ(lm->maxFpsMode(), 60);
    ASSERT_EQ(fpsModeEvents().size(), 1u);
    EXPECT_EQ(fpsModeEvents()[0], (std::vector<int>{0, 60}));
    EXPECT_EQ(logs.countContaining(kTag, "Stable FPS shift detected for layer 1: 60.00 (mode -> 60)"),
              1u);
}

TEST_F(Registry, DropToThirtyChangesModeOnlyWhenTheRingIsSteady) {
    Producer game{1, k60Hz};
    run({&game}, 2'000 * kMs);
    ASSERT_EQ(lm->getLayerStatus(1)->fpsMode, 60);
    game.period = 33'333'333;
    // The window that straddles the drop mixes intervals: not steady, no shift.
    run({&game}, 1'000 * kMs);
    EXPECT_EQ(lm->getLayerStatus(1)->fpsMode, 60);
    run({&game}, 2'100 * kMs);
    EXPECT_EQ(lm->getLayerStatus(1)->fpsMode, 30);
    const auto events = fpsModeEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1], (std::vector<int>{0, 30}));
}

TEST_F(Registry, JitteryRateKeepsItsMode) {
    Producer game{1, k60Hz};
    run({&game}, 2'000 * kMs);
    ASSERT_EQ(lm->getLayerStatus(1)->fpsMode, 60);
    // Alternating 25 ms and 41 ms: about 30 fps on average but never steady.
    for (int i = 0; i < 200; i++) {
        game.period = (i % 2) ? 41 * kMs : 25 * kMs;
        run({&game}, game.period);
    }
    EXPECT_EQ(lm->getLayerStatus(1)->fpsMode, 60);
}

TEST_F(Registry, SilentLayerIsMarkedThenRemovedASecondLater) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    ASSERT_TRUE(tracked(1));
    const int64_t lastQueue = clock.now() - k60Hz;
    lm->cleanupInactiveLayers(lastQueue + 1'000 * kMs); // exactly 1 s: still active
    EXPECT_TRUE(lm->getLayerStatus(1)->active);
    lm->cleanupInactiveLayers(lastQueue + 1'200 * kMs);
    auto status = lm->getLayerStatus(1);
    ASSERT_TRUE(status.has_value());
    EXPECT_FALSE(status->active);
    EXPECT_EQ(status->removalDeadline, lastQueue + 2'200 * kMs);
    EXPECT_EQ(logs.countContaining(kTag, "Layer 1 [com.app1/com.app1.Main#1] marked for removal"), 1u);
    lm->cleanupInactiveLayers(lastQueue + 2'199 * kMs);
    EXPECT_TRUE(tracked(1));
    lm->cleanupInactiveLayers(lastQueue + 2'200 * kMs);
    EXPECT_FALSE(tracked(1));
    EXPECT_EQ(lm->trackedLayerCount(), 0);
    EXPECT_EQ(logs.countContaining(kTag, "Unregistered layer 1: [com.app1/com.app1.Main#1]"), 1u);
}

TEST_F(Registry, ABufferRevivesAnInactiveLayer) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    clock.advance(1'200 * kMs);
    lm->cleanupInactiveLayers(clock.now());
    ASSERT_FALSE(lm->getLayerStatus(1)->active);
    queue(p);
    EXPECT_TRUE(lm->getLayerStatus(1)->active);
    EXPECT_EQ(lm->getLayerStatus(1)->removalDeadline, 0);
    lm->cleanupInactiveLayers(clock.now() + 1'000 * kMs);
    EXPECT_TRUE(tracked(1));
}

TEST_F(Registry, PeriodicCleanupRunsOnVsyncEveryOneAndAHalfSeconds) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    const int64_t t0 = clock.now();
    lm->onVsync(t0); // first vsync only starts the period
    lm->onVsync(t0 + 3'000 * kMs);
    EXPECT_FALSE(lm->getLayerStatus(1)->active);
    lm->onVsync(t0 + 4'000 * kMs); // within 1.5 s of the last check
    lm->onVsync(t0 + 4'500 * kMs); // exactly 1.5 s is not past it
    EXPECT_TRUE(tracked(1));
    lm->onVsync(t0 + 4'500 * kMs + 1);
    EXPECT_FALSE(tracked(1));
}

TEST_F(Registry, LatchCountIsTrustedOnlyAfterTwoQuietMilliseconds) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    ASSERT_TRUE(tracked(1));
    p.latch = false;
    for (int i = 0; i < 4; i++) queue(p);
    const Rect bounds{0, 0, 1080, 2400};
    ASSERT_EQ(lm->getLayerStatus(1)->pendingBuffers, 4);

    clock.advance(2 * kMs); // 2 ms after the last queue: the local count wins
    lm->onBufferDecrement(p.name(), 1, 0, bounds, true, true);
    EXPECT_EQ(lm->getLayerStatus(1)->pendingBuffers, 3);
    EXPECT_EQ(lm->getLayerStatus(1)->queuedTimes, 3u);

    clock.advance(1); // more than 2 ms: the compositor's count wins
    lm->onBufferDecrement(p.name(), 1, 1, bounds, true, true);
    EXPECT_EQ(lm->getLayerStatus(1)->pendingBuffers, 1);
    EXPECT_EQ(lm->getLayerStatus(1)->queuedTimes, 1u);

    lm->onBufferDecrement(p.name(), 1, 0, bounds, true, true);
    lm->onBufferDecrement(p.name(), 1, 2, bounds, true, true); // local count below 1: take theirs
    EXPECT_EQ(lm->getLayerStatus(1)->pendingBuffers, 2);
}

TEST_F(Registry, TimeToPresentCountsPendingBuffersAndTheNextVsync) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    const int64_t latchedAt = p.next - p.period; // the last frame was latched as it was queued
    clock.set(latchedAt + 5 * kMs);
    p.latch = false;
    queue(p);
    EXPECT_EQ(lm->getLayerStatus(1)->timeToPresent, k60Hz - 5 * kMs);
    queue(p); // one already pending: a whole period more
    EXPECT_EQ(lm->getLayerStatus(1)->timeToPresent, 2 * k60Hz - 5 * kMs);
}

TEST_F(Registry, FifthLayerEvictsUnfocusedThenLowestModeAndWarnsOncePerCrossing) {
    Producer a{1, k60Hz}, b{2, k60Hz}, c{3, 33'333'333}, d{4, k60Hz};
    a.uid = 10'001; b.uid = 10'002; c.uid = 10'003; d.uid = 10'004;
    b.focused = false;
    run({&a, &b, &c, &d}, 2'200 * kMs);
    ASSERT_EQ(lm->trackedLayerCount(), 4);
    ASSERT_EQ(lm->getLayerStatus(3)->fpsMode, 30);

    Producer e{5, k60Hz};
    e.uid = 10'005;
    run({&a, &b, &c, &d, &e}, 600 * kMs);
    EXPECT_FALSE(tracked(2)) << "the unfocused layer goes first";
    EXPECT_TRUE(tracked(5));
    EXPECT_TRUE(lm->isActiveLimitReached());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_WARN, "Active layer count reached maximum tracking limit."), 1u);

    // While the limit holds, a sixth busy layer stays a candidate.
    Producer f{6, k60Hz};
    f.uid = 10'006;
    run({&a, &c, &d, &e, &f}, 1'000 * kMs);
    EXPECT_FALSE(tracked(6));
    EXPECT_EQ(lm->trackedLayerCount(), 4);

    // The limit clears once layers and candidates together fit again.
    run({&a, &d}, 3'500 * kMs);
    lm->cleanupCandidates(clock.now());
    lm->cleanupInactiveLayers(clock.now());
    EXPECT_FALSE(lm->isActiveLimitReached());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_INFO,
                         "Active layer count dropped back within the tracking limit."), 1u);

    // A new crossing: all focused now, so the lowest fps mode goes; the new layer has none yet.
    Producer g{7, k60Hz}, h{8, k60Hz}, i{9, 33'333'333};
    g.uid = 10'007; h.uid = 10'008; i.uid = 10'009;
    run({&a, &d, &g, &h}, 2'200 * kMs);
    ASSERT_EQ(lm->trackedLayerCount(), 4);
    run({&a, &d, &g, &h, &i}, 600 * kMs);
    EXPECT_FALSE(tracked(9));
    EXPECT_EQ(lm->trackedLayerCount(), 4);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_WARN, "Active layer count reached maximum tracking limit."), 2u);
}

TEST_F(Registry, InvisibleAndLowRateLayersAreSpareAndGoBeforeBusyOnes) {
    Producer a{1, k60Hz}, b{2, k60Hz}, c{3, k60Hz}, d{4, k60Hz}, e{5, k60Hz};
    a.uid = 10'001; b.uid = 10'002; c.uid = 10'003; d.uid = 10'004; e.uid = 10'005;
    c.visible = false;
    run({&a, &b, &c, &d}, 2'200 * kMs);
    run({&a, &b, &c, &d, &e}, 600 * kMs);
    EXPECT_FALSE(tracked(3));
    EXPECT_TRUE(tracked(5));
    EXPECT_FALSE(lm->isActiveLimitReached()) << "dropping spare layers alone is no crossing";
}

TEST_F(Registry, ElevenFreshCandidatesForceTheOldestOutAndRefuseNewOnes) {
    for (int32_t id = 1; id <= 12; id++) {
        Producer p{id, k60Hz};
        queue(p);
        clock.advance(kMs);
    }
    // The twelfth saw eleven before it: the two oldest were forced out.
    EXPECT_EQ(lm->candidateCount(), 10u);
    EXPECT_TRUE(lm->isCandidateLimitReached());
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Force remove candidate layer [1]"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Force remove candidate layer [2]"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_WARN,
                         "Candidate layer count reached maximum tracking limit."), 1u);

    Producer late{20, k60Hz};
    queue(late);
    EXPECT_EQ(lm->candidateCount(), 10u) << "refused while the limit holds";

    // Let five go stale; the limit clears only at five or fewer.
    clock.advance(1'000 * kMs);
    for (int32_t id = 3; id <= 7; id++) {
        Producer p{id, k60Hz};
        queue(p);
    }
    clock.advance(1'500 * kMs);
    lm->cleanupCandidates(clock.now());
    EXPECT_EQ(lm->candidateCount(), 5u);
    EXPECT_FALSE(lm->isCandidateLimitReached());
    queue(late);
    EXPECT_EQ(lm->candidateCount(), 6u);
}

TEST_F(Registry, ResetEventIsSentOnceWhenTheLastModedLayerGoes) {
    Producer a{1, k60Hz}, b{2, 33'333'333};
    b.uid = 10'002;
    run({&a, &b}, 2'200 * kMs);
    ASSERT_EQ(lm->maxFpsMode(), 60);
    clock.advance(1'500 * kMs);
    lm->cleanupInactiveLayers(clock.now());
    clock.advance(1'000 * kMs);
    perfd_stub::clearCalls();
    lm->cleanupInactiveLayers(clock.now());
    EXPECT_EQ(lm->trackedLayerCount(), 0);
    const auto events = fpsModeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], (std::vector<int>{0, -1}));
    EXPECT_EQ(perfd_stub::calls().back().pkg, "null");
    EXPECT_EQ(lm->maxFpsMode(), -1);
}

TEST_F(Registry, VsyncPeriodWithoutModeIsStoredAndRefused) {
    lm->setVsyncPeriod(15'000'000);
    EXPECT_EQ(lm->vsyncPeriod(), 15'000'000);
    EXPECT_EQ(lm->vsyncMode(), 0);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Unexpected vsync received: 15000000"), 1u);
    lm->setVsyncPeriod(8'333'333);
    EXPECT_EQ(lm->vsyncMode(), 120);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "vsync: 8333333"), 1u);
    lm->setVsyncPeriod(8'333'333);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "vsync: 8333333"), 1u);
}

TEST_F(Registry, StopForgetsEverything) {
    Producer p{1, k60Hz}, q{2, k60Hz};
    run({&p}, 600 * kMs);
    queue(q);
    lm->stop();
    EXPECT_FALSE(lm->isInitialized());
    EXPECT_EQ(lm->trackedLayerCount(), 0);
    EXPECT_EQ(lm->candidateCount(), 0u);
    EXPECT_FALSE(tracked(1));
}

TEST_F(Registry, AliveAppCheckFiresAfterFourMatchingWindows) {
    FeatureManager* fm = FeatureManager::getInstance();
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    fm->setCallbackHintValue(4192, "com.app1", 0, 0, {});
    perfd_stub::clearCalls();
    run({&p}, 3'600 * kMs); // three windows: not yet
    EXPECT_EQ(perfd_stub::countCalls("perf_event") - fpsModeEvents().size(), 0u);
    run({&p}, 1'100 * kMs);
    size_t resumes = 0;
    for (const auto& call : perfd_stub::calls()) {
        if (call.fn == "perf_event" && call.ints.at(0) == 4099) {
            resumes++;
            EXPECT_EQ(call.pkg, "com.app1");
        }
    }
    EXPECT_EQ(resumes, 1u);
    EXPECT_EQ(fm->getCheckingAliveApp(), "");
}

TEST_F(Registry, AliveAppCheckGivesUpAfterThreeMisses) {
    FeatureManager* fm = FeatureManager::getInstance();
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    fm->setCallbackHintValue(4192, "com.gone", 0, 0, {});
    run({&p}, 3'100 * kMs);
    EXPECT_EQ(fm->getCheckingAliveApp(), "");
    EXPECT_EQ(logs.count("Pelyx.FeatureManager", ANDROID_LOG_DEBUG,
                         "The checked app is no longer alive. Cancel check"), 1u);
    for (const auto& call : perfd_stub::calls()) {
        if (call.fn == "perf_event") {
            EXPECT_NE(call.ints.at(0), 4099);
        }
    }
}

TEST_F(Registry, NamesWithoutPackageAreJudgedOncePerLayerUntilTheNameChanges) {
    Producer p{5, k60Hz};
    p.layerName = std::string(1 << 20, 'x'); // an app's 1 MiB name with no package in it
    run({&p}, 600 * kMs);
    EXPECT_EQ(lm->candidateCount(), 0u);

    // The same layer renamed to something with a package is looked at again.
    p.layerName = "com.app5/com.app5.Main#5";
    queue(p);
    EXPECT_EQ(lm->candidateCount(), 1u);

    // A name that differs only past the part that is remembered is not: a compositor layer keeps
    // its name for life, so the verdict is kept per id.
    Producer q{6, k60Hz};
    q.layerName = std::string(300, 'y');
    queue(q);
    q.layerName = std::string(300, 'y') + "/x#6";
    queue(q);
    EXPECT_EQ(lm->candidateCount(), 1u) << "a layer keeps its name; only the first bytes are compared";
    Producer r{7, k60Hz};
    r.layerName = "short";
    queue(r);
    r.layerName = "short/x#7";
    queue(r);
    EXPECT_EQ(lm->candidateCount(), 2u);
}
