// Headroom arithmetic and the preset steps on explicit periods.

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
    const int64_t p61 = 16'393'442; // 61 fps is already the high class: its rate and ceiling
    m->setVsyncInfo(p61, 61);
    EXPECT_EQ(a->baseHeadroom(), static_cast<int64_t>(0.7f * static_cast<float>(p61)));
    EXPECT_EQ(a->maxHeadroom(), static_cast<int64_t>(1.8f * static_cast<float>(p61)));

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
    sp<LayerPHRState> s = new LayerPHRState(7, "game"); // 120 Hz, base 4 166 666
    ASSERT_TRUE(s->updateHeadRoom(0.0f, 0.5f, kP120, 120, 1.8f));
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
