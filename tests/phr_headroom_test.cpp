// Headroom arithmetic and the preset steps on explicit periods.

#include <gtest/gtest.h>

#include <utility>
#include <vector>

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

    // Low rates count like any other; zero turns the layer's headroom off.
    m->setVsyncInfo(kP60, 60);
    m->updateHeadRoom(1, 0.25f, 0.25f);
    EXPECT_EQ(a->baseHeadroom(), kP60 / 4);
    m->setVsyncInfo(kP120, 120);
    EXPECT_EQ(a->baseHeadroom(), kP120 / 4);
    const size_t logged = logs.countContaining("Pelyx.PHRMonitor", "set headroom");
    m->updateHeadRoom(1, 0.0f, 0.0f);
    m->setVsyncInfo(kP60, 60);
    EXPECT_EQ(logs.countContaining("Pelyx.PHRMonitor", "set headroom"), logged);
}

TEST(PhrPresetStep, SnapsClearOfVsyncAndStaysWithinBounds) {
    sp<LayerPHRState> s = new LayerPHRState(7, "game"); // 120 Hz, base 4 166 666
    ASSERT_TRUE(s->updateHeadRoom(0.0f, 0.5f, kP120, 120, 1.8f));
    const int64_t t = kP120 / 10;
    const struct { bool down; int64_t step, expected; } steps[] = {
            {false, 3'333'334, kP120 - t}, // 7 500 000 is exactly t short of P: kept
            {false, 666'666, kP120 + t},   // 8 166 666 is just short of P: t past it
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
    sp<LayerPHRState> hostile = new LayerPHRState(8, "hostile");
    ASSERT_TRUE(hostile->updateHeadRoom(1e12f, 0.0f, kP120, 60, 0.9f));
    EXPECT_NEAR(static_cast<double>(hostile->baseHeadroom()), 4e18, 2.0 * kP120) << "clamped";
    s->updatePresetHeadroom(false, 2 * kMs, 0); // no period: nothing to snap to
    EXPECT_EQ(s->mHeadroom.load(), s->baseHeadroom() + 2 * kMs);
    s->updatePresetHeadroom(true, kMs, 0);
    EXPECT_EQ(s->mHeadroom.load(), s->baseHeadroom() + kMs);
}

// Frame weights: below 0.8 of the period 0, below 1.2 one, below 1.5 two, else three. The
// 60 Hz base is half a period (8 333 333), the ceiling 0.9 of it (14 999 999).
TEST(PhrDynamicHeadroom, AHeavyWindowLiftsThenOnTimeFramesRestoreAndLightOnesDecay) {
    const int64_t base = kP60 / 2, lifted = base + 2 * kMs;
    const struct { std::vector<std::pair<int, float>> frames; int64_t expected; } cases[] = {
            {{{14, 0.5f}, {1, 1.5f}}, lifted},             // sum 3 with a three
            {{{13, 0.5f}, {2, 1.2f}}, lifted},             // two twos: 1.2 is heavy already
            {{{13, 0.5f}, {1, 1.3f}, {1, 1.0f}}, lifted},  // sum 3 with a two
            {{{14, 0.5f}, {1, 1.3f}}, base},               // sum 2: not heavy
            {{{14, 0.8f}, {1, 1.3f}}, lifted},             // 0.8 is on time already
            {{{14, 1.0f}, {1, 1.3f}}, lifted},             // fifteen weights, sum 16
            // The fifty frames count from the last window holding the heavy one (frame 29).
            {{{14, 0.5f}, {1, 1.5f}, {63, 0.5f}}, 14'999'999}, // the ceiling until frame 78
            {{{14, 0.5f}, {1, 1.5f}, {64, 0.5f}}, 14'899'999}, // then 0.1 ms a frame
            {{{14, 0.5f}, {1, 1.5f}, {62, 1.0f}}, 14'999'999},
            {{{13, 0.5f}, {1, 1.5f}, {1, 1.3f}, {62, 1.0f}}, 14'999'999}, // the two outlasts the three
            {{{14, 0.5f}, {1, 1.5f}, {15, 0.5f}, {60, 1.0f}}, base}, // the three gone: max 1
            {{{14, 0.5f}, {1, 1.5f}, {63, 1.0f}}, base},       // fifteen on time: base at once
            {{{14, 0.5f}, {1, 1.5f}, {64, 1.0f}}, base}};      // and a fresh start
    for (const auto& c : cases) {
        sp<LayerPHRState> s = new LayerPHRState(7, "game");
        ASSERT_TRUE(s->updateHeadRoom(0.5f, 0.0f, kP60, 60, 0.9f));
        int n = 0;
        for (const auto& [count, ratio] : c.frames) {
            for (int i = 0; i < count; i++, n++) {
                s->updateDynamicHeadroom(static_cast<int64_t>(ratio * kP60), kP60, 60, 1.8f);
            }
        }
        EXPECT_EQ(s->mHeadroom.load(), c.expected) << "after " << n << " frames";
    }
}

// At a high rate a window of weight 30 raises the ceiling to the high-fps rate; 50 heavy frames
// after the window falls below 30, the next one puts it back at 1.3 periods.
TEST(PhrDynamicHeadroom, AWindowOfThirtyRaisesTheCeilingForFiftyFrames) {
    sp<LayerPHRState> s = new LayerPHRState(7, "game");
    ASSERT_TRUE(s->updateHeadRoom(0.5f, 0.5f, kP120, 120, 1.3f));
    const auto frame = [&s](float ratio) {
        s->updateDynamicHeadroom(static_cast<int64_t>(ratio * kP120), kP120, 120, 1.8f);
    };
    for (int i = 0; i < 15; i++) frame(1.3f);
    EXPECT_EQ(s->maxHeadroom(), kHeavyCeiling);
    int kept = 0;
    for (; s->maxHeadroom() == kHeavyCeiling && kept < 100; kept++) {
        frame(kept % 15 == 14 ? 1.3f : 1.0f); // a two in every window keeps it heavy
    }
    EXPECT_EQ(kept, 51);
    EXPECT_EQ(s->maxHeadroom(), static_cast<int64_t>(1.3 * kP120));
}
