// Headroom arithmetic and the fixed and dynamic algorithms on explicit periods and frame times.

#include <gtest/gtest.h>

#include "PerfdControl.h"
#include "phr/LayerPHRState.h"
#include "phr/PHRMonitor.h"
#include "support/LogCapture.h"

using namespace android;

namespace {

constexpr int64_t kP60 = 16'666'666;
constexpr int64_t kP120 = 8'333'333;
constexpr int64_t kMs = 1'000'000;
const int64_t kHeavyCeiling = static_cast<int64_t>(1.8f * static_cast<float>(kP120));

// A 120 Hz layer at base 4 166 666 with the high-fps ceiling 1.8 x P.
sp<LayerPHRState> highFpsLayer() {
    sp<LayerPHRState> s = new LayerPHRState(7, "game");
    EXPECT_TRUE(s->updateHeadRoom(0.0f, 0.5f, kP120, 120, 1.8f));
    return s;
}

void frames(LayerPHRState& s, int n, double ratio, int64_t period = kP120, int32_t fps = 120) {
    for (int i = 0; i < n; i++) {
        s.updateDynamicHeadroom(static_cast<int64_t>(ratio * static_cast<double>(period)), period,
                                fps, 1.8f);
    }
}

} // namespace

TEST(PhrBaseHeadroom, RatesPeriodsAndTheVsyncGuard) {
    perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
    pelyx_test::LogCapture logs;
    PHRMonitor* m = PHRMonitor::getInstance();
    ASSERT_TRUE(m->init());
    m->setVsyncInfo(kP60, 60);

    m->registerLayer(1, "a", 0.0f, 0.7f); // rate 0: nothing derived, nothing logged
    sp<LayerPHRState> a = m->getLayerState(1);
    EXPECT_EQ(a->baseHeadroom(), 0);
    EXPECT_EQ(a->mHeadroom.load(), -1);
    EXPECT_EQ(logs.countContaining("Pelyx.PHRMonitor", "set headroom"), 0u);

    m->updateHeadRoom(1, 0.5f, -1.0f); // mid-interval: kept as is
    EXPECT_EQ(a->mHeadroom.load(), 8'333'333);
    EXPECT_EQ(a->maxHeadroom(), static_cast<int64_t>(0.9f * static_cast<float>(kP60)));
    EXPECT_EQ(logs.count("Pelyx.PHRMonitor", ANDROID_LOG_DEBUG, "Layer 1 set headroom: 8333333"),
              1u);
    m->updateHeadRoom(1, 1.0f, -1.0f); // on a vsync multiple: 1.5 ms past it
    EXPECT_EQ(a->baseHeadroom(), kP60 + 1'500'000);
    EXPECT_EQ(a->maxHeadroom(), kP60 + 1'500'000); // the ceiling is never below base
    m->updateHeadRoom(1, 0.95f, -1.0f);            // 0.83 ms short of one: 1.5 ms short
    EXPECT_EQ(a->baseHeadroom(), kP60 - 1'500'000);

    m->setVsyncInfo(kP60, 90); // same period, other fps: ignored
    EXPECT_EQ(m->displayFps(), 60);
    m->registerLayer(2, "b", 0.0f, 0.0f);
    m->setVsyncInfo(kP120, 120); // recomputed with the kept high-fps rate 0.7; a zero rate stays
    EXPECT_EQ(a->baseHeadroom(), static_cast<int64_t>(0.7f * static_cast<float>(kP120)));
    EXPECT_EQ(a->maxHeadroom(), kHeavyCeiling);
    EXPECT_EQ(m->getLayerState(2)->mHeadroom.load(), -1);

    // An unknown period is stored too: the base is then the 1.5 ms guard.
    for (int64_t unknown : {int64_t{-1}, int64_t{0}}) {
        m->setVsyncInfo(unknown, 60);
        EXPECT_EQ(m->vsyncPeriod(), unknown);
        EXPECT_EQ(a->baseHeadroom(), 1'500'000) << unknown;
    }
    EXPECT_EQ(logs.count("Pelyx.PHRMonitor", ANDROID_LOG_DEBUG, "Layer 1 set headroom: 1500000"),
              2u);
}

TEST(PhrPresetStep, SnapsClearOfVsyncAndStaysWithinBounds) {
    sp<LayerPHRState> s = highFpsLayer();
    const int64_t t = kP120 / 10;
    const struct { bool down; int64_t step, expected; } steps[] = {
            {false, 2 * kMs, 6'166'666},   // far from a multiple: no snap
            {false, 2 * kMs, kP120 + t},   // 8 166 666 is just short of P: t past it
            {true, kMs / 10, kP120 - t},   // 9 066 666 is just past P: t before it
            {false, kMs, kP120 + t},       // 8 500 000 is just past P: t past it
            {true, 1'500'000, kP120 - t}}; // 7 666 666 is just short of P: t before it
    for (const auto& c : steps) {
        s->updatePresetHeadroom(c.down, c.step, kP120);
        EXPECT_EQ(s->mHeadroom.load(), c.expected);
    }
    for (int i = 0; i < 10; i++) s->updatePresetHeadroom(false, 2 * kMs, kP120);
    EXPECT_EQ(s->mHeadroom.load(), s->maxHeadroom());
    for (int i = 0; i < 10; i++) s->updatePresetHeadroom(true, 2 * kMs, kP120);
    EXPECT_EQ(s->mHeadroom.load(), s->baseHeadroom());
}

TEST(PhrFixedAlgorithm, TwoMillisecondBoundsAreInclusive) {
    sp<LayerPHRState> s = highFpsLayer();
    const int64_t base = s->baseHeadroom();
    const struct { int64_t frame, expected; } cases[] = {
            {kP120 + 2 * kMs, base}, {kP120 - 2 * kMs, base}, {kP120 + 2 * kMs + 1, base + kMs},
            {kP120 + 2 * kMs, base + kMs}, {kP120 - 2 * kMs - 1, base}};
    for (const auto& c : cases) {
        s->updateFixedHeadroom(c.frame, kP120);
        EXPECT_EQ(s->mHeadroom.load(), c.expected) << c.frame - kP120;
    }
}

TEST(PhrDynamicAlgorithm, RiseHoldAndResetAfterACleanWindow) {
    sp<LayerPHRState> s = highFpsLayer();
    const int64_t base = s->baseHeadroom();
    frames(*s, 14, 1.6); // the window is not full yet
    EXPECT_EQ(s->mHeadroom.load(), base);
    frames(*s, 1, 1.6);
    EXPECT_EQ(s->mHeadroom.load(), base + 2 * kMs);
    EXPECT_EQ(s->frameWeightWindowSum(), 45);

    // Heavy frames stay in the window 14 more frames, then the count runs up to 51 and the
    // clean window restores base at once.
    frames(*s, 14, 1.0);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 2);
    frames(*s, 48, 1.0);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 50);
    EXPECT_EQ(s->mHeadroom.load(), s->maxHeadroom());
    frames(*s, 1, 1.0);
    EXPECT_EQ(s->mHeadroom.load(), base);
    EXPECT_EQ(s->weightWindowSize(), 0u);
}

TEST(PhrDynamicAlgorithm, DecaysSlowlyWhenTheWindowIsNotClean) {
    sp<LayerPHRState> s = highFpsLayer();
    frames(*s, 15, 1.3); // sum 30: lift, ceiling 1.8 P
    frames(*s, 64, 0.5); // light frames: count reaches 51, window not clean
    const int64_t top = s->mHeadroom.load();
    frames(*s, 1, 0.5);
    EXPECT_EQ(s->mHeadroom.load(), top - kMs / 10);
    frames(*s, 400, 0.5);
    EXPECT_EQ(s->mHeadroom.load(), s->baseHeadroom());
    frames(*s, 12, 1.0); // a single heavy frame with a sum of 3 lifts again
    frames(*s, 1, 1.25);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 2);
}

TEST(PhrDynamicAlgorithm, CeilingFollowsTheLoadOnlyAtHighFps) {
    sp<LayerPHRState> low = new LayerPHRState(1, "a");
    ASSERT_TRUE(low->updateHeadRoom(0.5f, 0.5f, kP60, 60, 0.9f));
    const int64_t ceiling = low->maxHeadroom();
    frames(*low, 40, 2.0, kP60, 60);
    EXPECT_EQ(low->maxHeadroom(), ceiling);
    EXPECT_EQ(low->mHeadroom.load(), ceiling);

    // 120 Hz: a sum below 30 sets 1.3 P, a very heavy window 1.8 P, kept for 50 frames.
    const int64_t moderate = static_cast<int64_t>(static_cast<double>(kP120) * 1.3);
    sp<LayerPHRState> s = highFpsLayer();
    frames(*s, 14, 1.0);
    frames(*s, 1, 1.3); // sum 16
    EXPECT_EQ(s->maxHeadroom(), moderate);
    frames(*s, 15, 3.0);
    s->resetAdaptivePhrState(); // sum 0; the ceiling and its hold stay
    for (int i = 0; i < 50; i++) s->updateMaxHeadroom(kP120, 1.8f);
    EXPECT_EQ(s->maxHeadroom(), kHeavyCeiling);
    s->updateMaxHeadroom(kP120, 1.8f);
    EXPECT_EQ(s->maxHeadroom(), moderate);
}
