#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "PerfdControl.h"
#include "layers/LayerInfo.h"
#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "touch/InGameTracker.h"

using android::InGameTracker;
using android::LayerInfo;
using android::PerfProxy;

// The package is what SurfaceView[...] names, else what precedes the first '/'; a bare
// InputMethod#<digits> is the keyboard.
TEST(PackageName, EdgeCasesOfTheLayerNameGrammar) {
    const std::pair<std::string, std::string> cases[] = {
            {"SurfaceView[com.pkg/com.pkg.Activity]#123", "com.pkg"},
            {"VRI-SurfaceView[com.v/com.v.A]#7", "com.v"},
            {"Background SurfaceView[com.bg/com.bg.A]#2", "com.bg"},
            // Only one word may precede the marker; otherwise the '/' split decides.
            {"Background for SurfaceView[com.bg/A]#2", "Background for SurfaceView[com.bg"},
            {"InputMethod#12", "UnknownKeyboard"},
            {"InputMethod#", ""},
            {"InputMethod#12a", ""},
            {"InputMethod#1/2", "InputMethod#1"},
            {"SurfaceView[com.pkg]#12", "com.pkg]"}, // up to the last '#<digits>'
            {"SurfaceView[SurfaceView[com.nested/A]#1]#2", "SurfaceView[com.nested"},
            {"SurfaceView[com.pkg/A]#9#10", "com.pkg"},
            // '\v' is leading space; bytes are not decoded; only ASCII digits count.
            {"Foo\vSurfaceView[com.pkg/A]#9", "com.pkg"},
            {"SurfaceView[\xff\xfe/A]#9", "\xff\xfe"}, // not UTF-8, still matched
            {"SurfaceView[com.pkg/A]#\xd9\xa3", "SurfaceView[com.pkg"}, // not an ASCII digit
            {std::string("SurfaceView[com.nul\0/A]#9", 25), std::string("com.nul\0", 8)},
            {"", ""},
    };
    for (const auto& [name, expected] : cases) {
        EXPECT_EQ(PerfProxy::getInstance()->getPackageName(name), expected) << ::testing::PrintToString(name);
    }
}

// No more than the first 4 KiB of a name is read: the package and scene tag of a longer name are
// those of its first 4 KiB, whatever follows.
TEST(PackageName, OnlyTheFirstFourKiBOfANameCount) {
    constexpr size_t kMax = PerfProxy::kMaxLayerNameBytes;
    static_assert(kMax == 4096);
    PerfProxy* perf = PerfProxy::getInstance();
    const std::string x(kMax - 1, 'x');
    EXPECT_EQ(perf->getPackageName(x + "/"), x);
    EXPECT_EQ(perf->getPackageName(x + "x/"), "");
    EXPECT_EQ(perf->getPackageName("com.long/" + std::string(16 << 20, 'a') + "#1"), "com.long");
    // Its end is out of sight, so a long SurfaceView name is split at its '/'.
    EXPECT_EQ(perf->getPackageName("SurfaceView[com.sv/" + std::string(kMax, 'p') + "#1"),
              "SurfaceView[com.sv");
    const std::string aweme = "com.ss.android.ugc.aweme";
    EXPECT_EQ(perf->getLayerSceneTag(aweme, std::string(kMax - 8, 'x') + "minigame"), "minigame");
    EXPECT_EQ(perf->getLayerSceneTag(aweme, std::string(kMax - 7, 'x') + "minigame"), "");
}

// The registry never reads past the first 4 KiB of a name, from its first buffer to promotion:
// here the name runs into a page that cannot be read, with no terminating NUL before it.
TEST(PackageName, TheRegistryReadsNoFurtherThanTheBound) {
    constexpr size_t kMax = PerfProxy::kMaxLayerNameBytes;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t pages = (kMax + page - 1) / page + 1;
    void* region = mmap(nullptr, pages * page, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(region, MAP_FAILED);
    char* guard = static_cast<char*>(region) + (pages - 1) * page;
    ASSERT_EQ(mprotect(guard, page, PROT_NONE), 0);
    char* name = guard - kMax;
    const std::string head = "com.tencent.mm/AppBrandUI SurfaceView ";
    std::memset(name, 'a', kMax);
    std::memcpy(name, head.data(), head.size());

    android::LayerManager* lm = android::LayerManager::getInstance();
    lm->init(false, 1080, 2400);
    for (int64_t frame = 1; frame <= 40; frame++) {
        lm->onBufferIncrement(name, 1, 1000, 10000, frame * 16'666'667, false, 0);
    }
    const auto status = lm->getLayerStatus(1);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->packageName, "com.tencent.mm");
    EXPECT_EQ(status->sceneTag, "minigame");
}

TEST(LayerSceneTag, TagsMiniGamesInsideTheirHostApps) {
    const char* kAweme = "com.ss.android.ugc.aweme";
    const char* kMm = "com.tencent.mm";
    const std::vector<std::vector<std::string>> cases = {
            {kAweme, "SurfaceView[minigame]#1", "minigame"},
            {kAweme, "SurfaceView[MiniGame]#1", ""},
            {kAweme, "AppBrandUI SurfaceView#1", ""},
            {kMm, "SurfaceView[com.tencent.mm/AppBrandUI1]#4", "minigame"},
            {kMm, "com.tencent.mm/AppBrandUI1#4", ""},
            {kMm, "minigame SurfaceView#1", ""},
            {"com.other", "AppBrandUI SurfaceView minigame#1", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(PerfProxy::getInstance()->getLayerSceneTag(c[0], c[1]), c[2]) << c[0] << c[1];
    }
}

TEST(FpsMode, EachBandIncludesItsUpperBound) {
    const float kInf = std::numeric_limits<float>::infinity();
    const float kNaN = std::numeric_limits<float>::quiet_NaN();
    // Each upper bound, its mode and the mode just above it.
    const std::vector<std::vector<float>> bands = {
            {18, 18, 30},   {33, 30, 45},   {48, 45, 60},    {63, 60, 75},    {78, 75, 90},
            {95, 90, 120},  {123, 120, 144}, {147, 144, 165}, {168, 165, 185}, {210, 185, 240},
            {260, 240, -1}};
    for (const auto& b : bands) {
        EXPECT_EQ(PerfProxy::getFpsMode(b[0]), b[1]) << b[0];
        EXPECT_EQ(PerfProxy::getFpsMode(std::nextafter(b[0], kInf)), b[2]) << b[0];
    }
    // Low rates round half away from zero; nothing positive and finite is refused below 260.
    const std::pair<float, int> values[] = {
            {17.5f, 18}, {17.49f, 17}, {2.5f, 3}, {0.5f, 1}, {0.3f, 0}, {180.0f, 185},
            {std::numeric_limits<float>::denorm_min(), 0}, {0.0f, -1}, {-0.0f, -1},
            {-0.5f, -1}, {-kInf, -1}, {kInf, -1}, {kNaN, -1}, {-kNaN, -1}};
    for (const auto& [fps, mode] : values) EXPECT_EQ(PerfProxy::getFpsMode(fps), mode) << fps;
}

TEST(VsyncMode, EachRangeTakesItsFirstValueAndStopsBeforeItsEnd) {
    const int64_t ranges[][3] = {{15'000'001, 18'000'000, 60}, {12'500'001, 14'900'000, 75},
                                 {10'500'001, 11'700'000, 90}, {8'000'001, 9'000'000, 120},
                                 {6'800'001, 7'700'000, 144},  {5'800'001, 6'500'000, 165},
                                 {4'800'001, 5'600'000, 185},  {3'800'001, 4'600'000, 240}};
    for (const auto& r : ranges) {
        EXPECT_EQ(PerfProxy::setVsyncMode(r[0] - 1), 0) << r[0];
        EXPECT_EQ(PerfProxy::setVsyncMode(r[0]), r[2]) << r[0];
        EXPECT_EQ(PerfProxy::setVsyncMode(r[1] - 1), r[2]) << r[1];
        EXPECT_EQ(PerfProxy::setVsyncMode(r[1]), 0) << r[1];
    }
    for (int64_t period : {int64_t{0}, int64_t{-16'666'667}, std::numeric_limits<int64_t>::min(),
                           std::numeric_limits<int64_t>::max()}) {
        EXPECT_EQ(PerfProxy::setVsyncMode(period), 0) << period;
    }
}

TEST(NumericString, AcceptsSignedDecimalsOnly) {
    for (const char* text : {"0", "60", "-1", "1.", ".5", "-1.5", "-.5", "007", "123456789012"}) {
        EXPECT_TRUE(PerfProxy::isNumericString(text)) << text;
    }
    for (const char* text : {"", "-", ".", "-.", "1.2.3", "..1", "12a", "a12", "--1", "1-", "+1",
                             " 1", "1 ", "1e3", "0x10", "\xd9\xa3"}) {
        EXPECT_FALSE(PerfProxy::isNumericString(text)) << text;
    }
    EXPECT_FALSE(PerfProxy::isNumericString(std::string("1\0", 2)));
}

// The service's answers are asked for only with a package; the weight's call depends on the HAL.
TEST(GameQueries, GameIsAnswerTwoAndWeightUsesHintUpToHal22) {
    perfd_stub::setHalVersion(2.2);
    perfd_stub::setGame("com.game", true);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "com.one", 1);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "", 2);
    perfd_stub::setGameWeight("com.game", 7);
    perfd_stub::setGameWeight("", 5);
    PerfProxy* proxy = PerfProxy::getInstance();
    perfd_stub::clearCalls();
    EXPECT_TRUE(proxy->isGameApp("com.game"));
    EXPECT_FALSE(proxy->isGameApp("com.one"));
    EXPECT_FALSE(proxy->isGameApp(""));
    EXPECT_TRUE(proxy->isGameLayer("SurfaceView[com.game/com.game.Unity]#3"));
    EXPECT_FALSE(proxy->isGameLayer("Wallpaper BBQ wrapper#0"));
    EXPECT_EQ(proxy->getGameWeight("com.game"), 7);
    EXPECT_EQ(proxy->getGameWeight(""), -1);
    EXPECT_EQ(perfd_stub::countCalls("perf_get_feedback"), 3u);
    EXPECT_EQ(perfd_stub::countCalls("perf_hint"), 1u);
}

TEST(GameQueries, AboveHal22TheWeightAsksTheExtension) {
    perfd_stub::setHalVersion(2.3);
    perfd_stub::setGameWeight("com.game", 7);
    perfd_stub::clearCalls();
    EXPECT_EQ(PerfProxy::getInstance()->getGameWeight("com.game"), 7);
    ASSERT_EQ(perfd_stub::countCalls("perf_get_feedback_extn"), 1u);
    EXPECT_EQ(perfd_stub::calls().back().args, (std::vector<int>{1, 0}));
}

TEST(StableFps, AModeOnlyFromAFullRingWithTimeInIt) {
    LayerInfo::StableFpsTracker ring;
    ring.resize(3);
    ring.push(16'666'667);
    ring.push(16'666'667);
    EXPECT_EQ(ring.getFpsMode(), -1) << "not full";
    ring.push(16'666'667);
    EXPECT_EQ(ring.getFpsMode(), 60);
    for (int i = 0; i < 3; i++) ring.push(0);
    EXPECT_EQ(ring.getFpsMode(), -1) << "frames with no time between them";
}

namespace {
// Queues the intervals (cyclically) on a new layer until its first one-second window closes.
struct FpsFeed {
    LayerInfo layer{1, "com.game/com.game.Main#1", "com.game", 1, 1};
    int64_t now = 1'000'000'000;
    int intervals = 0;
    explicit FpsFeed(const std::vector<int64_t>& pattern) {
        layer.mLastQueueTime = now;
        layer.updateFps();
        play(pattern);
    }
    // One more window of the pattern.
    void play(const std::vector<int64_t>& pattern) {
        intervals = 0;
        for (bool closed = false; !closed && intervals < 1000; intervals++) {
            now += pattern[intervals % pattern.size()];
            layer.mLastQueueTime = now;
            closed = layer.updateFps();
        }
    }
};
} // namespace

TEST(LayerFps, WindowClosesAfterMoreThanOneSecond) {
    FpsFeed feed({10'000'000}); // 100 intervals make exactly one second: not yet
    EXPECT_EQ(feed.intervals, 101);
    EXPECT_NEAR(feed.layer.mFps, 100.0f, 0.01f);
    EXPECT_EQ(feed.layer.mFpsMode, 120);
}

// The mode changes only when the last 30 intervals are steady (deviation below the larger of
// 2 ms and a fifth of their mean) and their rate gives the same mode as the window's average.
TEST(LayerFps, ModeNeedsASteadyRingOfThirtyIntervals) {
    std::vector<int64_t> ringOfMixedBeats(60, 8'000'000); // average 89.8 fps, the last 20 at 90
    ringOfMixedBeats.insert(ringOfMixedBeats.end(), 10, 30'000'000);
    ringOfMixedBeats.insert(ringOfMixedBeats.end(), 20, 11'111'111);
    const struct {
        const char* what;
        std::vector<int64_t> pattern;
        int mode;
    } rows[] = {
            {"steady 60", {16'666'667}, 60},
            {"60 with 3 ms jitter", {13'666'667, 19'666'667}, 60},
            {"60 with 4.2 ms jitter", {12'466'667, 20'866'667}, -1},
            {"240 with 1.5 ms jitter", {2'666'667, 5'666'667}, 240},
            {"last 30 unsteady", ringOfMixedBeats, -1},
    };
    for (const auto& row : rows) {
        FpsFeed feed(row.pattern);
        EXPECT_EQ(feed.layer.mFpsMode, row.mode) << row.what;
    }
    // Past every band (333 fps here) the mode is given up, steady beat or not.
    FpsFeed leaving({16'666'667});
    leaving.play({500'000, 5'500'000});
    EXPECT_EQ(leaving.layer.mFpsMode, -1);
}

// The app's own frame count per window of a second, and the running interval of touch MOVEs
// that come faster than frames (seeded with 10 ms counting as one sample).
TEST(InGameTracker, FrameWindowAndTouchInterval) {
    InGameTracker tracker;
    const int64_t t0 = 1'000'000'000;
    for (int i = 0; i < 63; i++) tracker.queueBuffer(t0 + i * 15'000'000);
    tracker.queueBuffer(t0 + 999'999'999); // the window's last instant: 64 frames
    tracker.queueBuffer(t0 + 1'100'000'000);
    EXPECT_EQ(tracker.getFpsMode(), 75);
    EXPECT_EQ(tracker.getFrameInterval(), 13'333'333);

    const int64_t t1 = t0 + 2'000'000'000; // 300 frames: no mode, the interval stays
    for (int i = 0; i < 300; i++) tracker.queueBuffer(t1 + i * 3'000'000);
    tracker.queueBuffer(t1 + 1'500'000'000);
    EXPECT_EQ(tracker.getFpsMode(), -1);
    EXPECT_EQ(tracker.getFrameInterval(), 13'333'333);

    const int64_t t2 = t1 + 2'000'000'000;
    const struct {
        int64_t at;
        int64_t touchInterval;
    } moves[] = {{t2, 10'000'000},
                 {t2 + 4'000'000, 7'000'000},
                 {t2 + 8'000'000, 6'000'000},
                 {t2 + 8'000'000 + 13'333'333, 6'000'000}, // a full frame: starts over
                 {t2 + 12'000'000 + 13'333'333, 5'000'000}};
    for (const auto& move : moves) {
        tracker.trackMoveEvent(move.at);
        EXPECT_EQ(tracker.getTouchInterval(), move.touchInterval) << move.at - t2;
    }

    // A reset forgets everything, the frames of the window in progress too.
    const int64_t t3 = t2 + 2'000'000'000;
    for (int i = 0; i < 60; i++) tracker.queueBuffer(t3 + i * 15'000'000);
    tracker.reset();
    EXPECT_EQ(tracker.getFrameInterval(), -1);
    EXPECT_EQ(tracker.getTouchInterval(), 10'000'000);
    tracker.queueBuffer(t3 + 2'000'000'000);
    EXPECT_EQ(tracker.getFpsMode(), -1) << "a new window, not the end of the old one";
    for (int i = 1; i < 63; i++) tracker.queueBuffer(t3 + 2'000'000'000 + i * 15'000'000);
    tracker.queueBuffer(t3 + 3'100'000'000);
    EXPECT_EQ(tracker.getFpsMode(), 60) << "63 frames, its first one included";
    tracker.trackMoveEvent(t3 + 4'000'000'000);
    tracker.trackMoveEvent(t3 + 4'004'000'000);
    EXPECT_EQ(tracker.getTouchInterval(), 7'000'000) << "the seed counts as one sample again";
}
