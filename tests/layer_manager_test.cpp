// Registry behaviour with no boost thread (a service without callback registration), so that
// no posted clean-up runs between the steps of a test.
#include <gtest/gtest.h>

#include "PerfdControl.h"
#include "layers/LayerManager.h"
#include "layers/QueueTimes.h"
#include "platform/Properties.h"
#include "support/RegistryDriver.h"

using namespace android;
using namespace pelyx_test;

namespace {
using Registry = RegistryTest;
} // namespace

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

// The highest fps mode the service hears is never a layer's without one: then it is "null".
TEST_F(Registry, ALayerWithoutAnFpsModeIsNeverTheHighest) {
    Producer a{1, k60Hz}, b{2, k60Hz};
    run({&a}, 2'200 * kMs);
    run({&b}, 600 * kMs); // tracked, with no mode yet
    lm->cleanupInactiveLayers(clock.now() + 500 * kMs);
    lm->cleanupInactiveLayers(clock.now() + 1'600 * kMs);
    ASSERT_TRUE(!tracked(1) && tracked(2));
    const perfd_stub::Call last = perfd_stub::calls().back();
    EXPECT_EQ(last.pkg + " " + std::to_string(last.args.at(1)), "null -1");
}

// 23 fps is the least a candidate needs: 1e9 / 43 478 261 ns rounds to it in float.
TEST_F(Registry, TwentyFpsIsNeverPromotedTwentyThreeIs) {
    Producer twenty{2, 50 * kMs}, least{3, 43'478'261};
    run({&twenty, &least}, 5'000 * kMs);
    EXPECT_FALSE(tracked(2));
    EXPECT_TRUE(tracked(3));
    EXPECT_EQ(lm->candidateCount(), 1u);
}

TEST_F(Registry, ElevenFreshCandidatesForceTheOldestOutAndRefuseNewOnes) {
    for (int32_t id = 1; id <= 12; id++) {
        Producer p{id, k60Hz};
        queue(p);
        clock.advance(kMs);
        if (id == 10) {
            lm->cleanupCandidates(clock.now());
            ASSERT_FALSE(lm->isCandidateLimitReached()) << "ten is within the limit";
        }
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

// Past four tracked layers the fifth promotion evicts; an invisible layer goes before any other,
// even before unfocused ones.
TEST_F(Registry, PastFourLayersAnInvisibleOneGoesFirst) {
    Producer a{1, k60Hz}, b{2, k60Hz}, c{3, k60Hz}, d{4, k60Hz}, hidden{5, k60Hz};
    a.focused = b.focused = c.focused = d.focused = false;
    hidden.visible = false;
    run({&hidden, &a, &b, &c, &d}, 600 * kMs); // hidden is promoted first, d last
    EXPECT_TRUE(tracked(1) && tracked(2) && tracked(3) && tracked(4));
    EXPECT_FALSE(tracked(5));
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

TEST_F(Registry, AQueueRevivesALayerMarkedForRemoval) {
    Producer p{1, k60Hz};
    run({&p}, 600 * kMs);
    lm->cleanupInactiveLayers(clock.now() + 1'200 * kMs);
    ASSERT_FALSE(lm->getLayerStatus(1)->active);
    clock.advance(1'300 * kMs);
    queue(p);
    EXPECT_TRUE(lm->getLayerStatus(1)->active);
    lm->cleanupInactiveLayers(clock.now() + 500 * kMs); // past the old deadline
    EXPECT_TRUE(tracked(1));
}

TEST(QueueTimes, OldestFirstAndOnlyTheNewest128) {
    QueueTimes times;
    for (int64_t t = 1; t <= 3; t++) times.push_back(t);
    times.pop_front();
    for (int64_t t = 4; t <= 6; t++) times.push_back(t); // wraps round, then grows
    EXPECT_EQ(times.front(), 2);
    for (int64_t t = 7; t <= 200; t++) times.push_back(t);
    EXPECT_EQ(times.size(), 128u);
    EXPECT_EQ(times.front(), 200 - 127);
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

