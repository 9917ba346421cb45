// Headroom arithmetic and the fixed and dynamic algorithms, driven with explicit periods and
// frame times: nothing here waits or reads a clock.

#include <gtest/gtest.h>

#include "PerfdControl.h"
#include "phr/LayerPHRState.h"
#include "phr/PHRMonitor.h"
#include "support/LogCapture.h"

using namespace android;
using pelyx_test::LogCapture;

namespace {

constexpr const char* kTag = "Pelyx.PHRMonitor";
constexpr int64_t kP60 = 16'666'666;
constexpr int64_t kP120 = 8'333'333;
constexpr int64_t kMs = 1'000'000;

// A 120 Hz layer at base 4 166 666 with the high-fps ceiling 1.8 x P.
sp<LayerPHRState> highFpsLayer() {
    sp<LayerPHRState> s = new LayerPHRState(7, "game");
    EXPECT_TRUE(s->updateHeadRoom(0.0f, 0.5f, kP120, 120, 1.8f));
    EXPECT_EQ(s->baseHeadroom(), 4'166'666);
    return s;
}

void frames(LayerPHRState& s, int n, double ratio, int64_t period, int32_t fps) {
    for (int i = 0; i < n; i++) {
        s.updateDynamicHeadroom(static_cast<int64_t>(ratio * static_cast<double>(period)), period,
                                fps, 1.8f);
    }
}

} // namespace

TEST(PhrBaseHeadroom, RatesPeriodsAndTheVsyncGuard) {
    perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
    LogCapture logs;
    PHRMonitor* m = PHRMonitor::getInstance();
    ASSERT_TRUE(m->init());
    m->setVsyncInfo(kP60, 60);

    // Rate 0 for the current class: nothing derived, nothing logged.
    m->registerLayer(1, "a", 0.0f, 0.7f);
    sp<LayerPHRState> a = m->getLayerState(1);
    EXPECT_EQ(a->baseHeadroom(), 0);
    EXPECT_EQ(a->mHeadroom.load(), -1);
    EXPECT_EQ(logs.countContaining(kTag, "set headroom"), 0u);

    m->updateHeadRoom(1, 0.5f, -1.0f); // mid-interval: kept as is
    EXPECT_EQ(a->baseHeadroom(), 8'333'333);
    EXPECT_EQ(a->mHeadroom.load(), 8'333'333);
    EXPECT_EQ(a->maxHeadroom(), static_cast<int64_t>(0.9f * static_cast<float>(kP60)));
    EXPECT_FLOAT_EQ(a->highFpsPhrMinRate(), 0.7f); // a negative rate leaves it alone
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Layer 1 set headroom: 8333333"), 1u);

    m->updateHeadRoom(1, 1.0f, -1.0f); // on a vsync multiple: 1.5 ms past it
    EXPECT_EQ(a->baseHeadroom(), kP60 + 1'500'000);
    EXPECT_EQ(a->maxHeadroom(), kP60 + 1'500'000); // the ceiling is never below base
    m->updateHeadRoom(1, 0.95f, -1.0f);            // 0.83 ms short of one: 1.5 ms short
    EXPECT_EQ(a->baseHeadroom(), kP60 - 1'500'000);

    // The same period with another fps is ignored, fps included.
    m->setVsyncInfo(kP60, 90);
    EXPECT_EQ(m->displayFps(), 60);
    // 120 Hz: every layer is recomputed with its high-fps rate and the 1.8 ceiling...
    m->registerLayer(2, "b", 0.0f, 0.0f);
    m->setVsyncInfo(kP120, 120);
    EXPECT_EQ(a->baseHeadroom(), static_cast<int64_t>(0.7f * static_cast<float>(kP120)));
    EXPECT_EQ(a->maxHeadroom(), static_cast<int64_t>(1.8f * static_cast<float>(kP120)));
    // ...but a zero rate leaves the figures exactly as they were.
    sp<LayerPHRState> b = m->getLayerState(2);
    EXPECT_EQ(b->mHeadroom.load(), -1);
    EXPECT_EQ(b->baseHeadroom(), 0);
}

TEST(PhrBaseHeadroom, UnknownPeriodDerivesNothing) {
    sp<LayerPHRState> s = new LayerPHRState(1, "a");
    EXPECT_FALSE(s->updateHeadRoom(0.5f, 0.5f, -1, 60, 0.9f));
    EXPECT_EQ(s->mHeadroom.load(), -1);
    EXPECT_FLOAT_EQ(s->phrMinRate(), 0.5f);
}

TEST(PhrPresetStep, SnapsClearOfVsyncAndStaysWithinBounds) {
    sp<LayerPHRState> s = highFpsLayer();
    const int64_t t = kP120 / 10;
    s->updatePresetHeadroom(false, 2 * kMs, kP120);
    EXPECT_EQ(s->mHeadroom.load(), 6'166'666); // far from a multiple: no snap
    s->updatePresetHeadroom(false, 2 * kMs, kP120);
    EXPECT_EQ(s->mHeadroom.load(), kP120 + t); // 8 166 666 is just short of P: t past it
    s->updatePresetHeadroom(true, kMs / 10, kP120);
    EXPECT_EQ(s->mHeadroom.load(), kP120 - t); // 9 066 666 is just past P: t before it

    for (int i = 0; i < 10; i++) s->updatePresetHeadroom(false, 2 * kMs, kP120);
    EXPECT_EQ(s->mHeadroom.load(), s->maxHeadroom());
    for (int i = 0; i < 10; i++) s->updatePresetHeadroom(true, 2 * kMs, kP120);
    EXPECT_EQ(s->mHeadroom.load(), s->baseHeadroom());
}

TEST(PhrFixedAlgorithm, TwoMillisecondBoundsAreInclusive) {
    sp<LayerPHRState> s = highFpsLayer();
    const int64_t base = s->baseHeadroom();
    for (int64_t frame : {kP120 + 2 * kMs, kP120 - 2 * kMs, kP120}) {
        s->updateFixedHeadroom(frame, kP120);
        EXPECT_EQ(s->mHeadroom.load(), base) << frame;
    }
    s->updateFixedHeadroom(kP120 + 2 * kMs + 1, kP120);
    EXPECT_EQ(s->mHeadroom.load(), base + kMs);
    s->updateFixedHeadroom(kP120 - 2 * kMs - 1, kP120);
    EXPECT_EQ(s->mHeadroom.load(), base);
}

TEST(PhrDynamicAlgorithm, RiseHoldAndResetAfterACleanWindow) {
    sp<LayerPHRState> s = highFpsLayer();
    const int64_t base = s->baseHeadroom();
    frames(*s, 14, 1.6, kP120, 120); // the window is not full yet
    EXPECT_EQ(s->mHeadroom.load(), base);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 0);
    frames(*s, 1, 1.6, kP120, 120);
    EXPECT_EQ(s->mHeadroom.load(), base + 2 * kMs);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 2);
    EXPECT_EQ(s->frameWeightWindowSum(), 45);
    EXPECT_EQ(s->maxHeadroom(), static_cast<int64_t>(1.8f * static_cast<float>(kP120)));
    EXPECT_EQ(s->maxHeadroomHold(), 50);

    // On-time frames: heavy frames stay in the window for 14 more frames (count back to 1
    // each time), then the count runs up to 51 and the clean window restores base at once.
    for (int i = 0; i < 14; i++) {
        frames(*s, 1, 1.0, kP120, 120);
        EXPECT_EQ(s->heavyHeadroomFrameCount(), 2) << i;
    }
    frames(*s, 48, 1.0, kP120, 120);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 50);
    EXPECT_EQ(s->mHeadroom.load(), s->maxHeadroom());
    frames(*s, 1, 1.0, kP120, 120);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 0);
    EXPECT_EQ(s->mHeadroom.load(), base);
    EXPECT_EQ(s->weightWindowSize(), 0u);
}

TEST(PhrDynamicAlgorithm, DecaysSlowlyWhenTheWindowIsNotClean) {
    sp<LayerPHRState> s = highFpsLayer();
    frames(*s, 15, 1.3, kP120, 120);                  // sum 30: lift, ceiling 1.8 P
    frames(*s, 64, 0.5, kP120, 120);                  // light frames: count reaches 51
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 0);       // not clean (sum 0): decay from here
    const int64_t top = s->mHeadroom.load();
    frames(*s, 1, 0.5, kP120, 120);
    EXPECT_EQ(s->mHeadroom.load(), top - kMs / 10);
    frames(*s, 400, 0.5, kP120, 120);
    EXPECT_EQ(s->mHeadroom.load(), s->baseHeadroom());

    // A single heavy frame in the window with a sum of 3 lifts again.
    frames(*s, 12, 1.0, kP120, 120);
    frames(*s, 1, 1.25, kP120, 120);
    EXPECT_EQ(s->heavyHeadroomFrameCount(), 2);
}

TEST(PhrDynamicAlgorithm, CeilingFollowsTheLoadOnlyAtHighFps) {
    // 60 Hz: even the heaviest window leaves the 0.9 P ceiling alone.
    sp<LayerPHRState> low = new LayerPHRState(1, "a");
    ASSERT_TRUE(low->updateHeadRoom(0.5f, 0.5f, kP60, 60, 0.9f));
    const int64_t ceiling = low->maxHeadroom();
    frames(*low, 40, 2.0, kP60, 60);
    EXPECT_EQ(low->maxHeadroom(), ceiling);
    EXPECT_EQ(low->mHeadroom.load(), ceiling);
    EXPECT_EQ(low->maxHeadroomHold(), 0);

    // 120 Hz: a moderately heavy window (sum below 30) sets 1.3 P, a very heavy one 1.8 P,
    // which windows below 30 then keep for 50 frames.
    const int64_t moderate = static_cast<int64_t>(static_cast<double>(kP120) * 1.3);
    const int64_t heavy = static_cast<int64_t>(1.8f * static_cast<float>(kP120));
    sp<LayerPHRState> s = highFpsLayer();
    frames(*s, 14, 1.0, kP120, 120);
    frames(*s, 1, 1.3, kP120, 120); // sum 16
    EXPECT_EQ(s->maxHeadroom(), moderate);
    frames(*s, 15, 3.0, kP120, 120);
    EXPECT_EQ(s->maxHeadroom(), heavy);
    EXPECT_EQ(s->maxHeadroomHold(), 50);
    s->resetAdaptivePhrState(); // sum 0; the ceiling and its hold stay
    EXPECT_EQ(s->maxHeadroom(), heavy);
    for (int i = 0; i < 50; i++) s->updateMaxHeadroom(kP120, 1.8f);
    EXPECT_EQ(s->maxHeadroom(), heavy);
    s->updateMaxHeadroom(kP120, 1.8f);
    EXPECT_EQ(s->maxHeadroom(), moderate);
}
