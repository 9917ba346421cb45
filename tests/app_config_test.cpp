#include <gtest/gtest.h>


#include "PerfdControl.h"
#include "config/FeatureManager.h"
#include "perf/PerfProxy.h"
#include "perf/TFPSCallback.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

using namespace android;
using aidl::vendor::tvo::hardware::perf2::TFPSCallback;
using pelyx_test::LogCapture;
using pelyx_test::ManualClock;

namespace {
constexpr const char* kTag = "Pelyx.FeatureManager";

// Hints arrive the way the service sends them: through the callback registered with the client.
// Each announcement reaches the registry, which is not running here and says so once.
class AppConfig : public testing::Test {
protected:
    void SetUp() override {
        perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
        perfd_stub::setProp("vendor.perf.phr.enable", "1");
        perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
        fm = FeatureManager::getInstance();
        ASSERT_EQ(PerfProxy::getInstance()->perfCallbackRegister(
                          ndk::SharedRefBase::make<TFPSCallback>(), 4), 0);
        logs.clear();
    }
    void push(int hintId, const std::string& text, int value, const std::vector<int>& values = {}) {
        ASSERT_EQ(perfd_stub::pushHint(hintId, text, value, 0, values), 0);
    }
    size_t announcements() const {
        return logs.count("Pelyx.LayerManager", ANDROID_LOG_ERROR, "LayerManager not initialized");
    }
    float fps(const std::string& pkg, bool useGlobal = false) const {
        auto config = fm->getTfpsConfig(pkg, useGlobal);
        return config ? config->targetFps : -1.0f;
    }
    LogCapture logs;
    ManualClock clock;
    FeatureManager* fm = nullptr;
};
} // namespace

// Numeric text is the global rate; a package's rate comes in hundredths; the thermal handler
// speaks globally. A global update empties the table, a per-app one drops the global entry.
TEST_F(AppConfig, TargetFpsHints) {
    const struct {
        const char* text;
        int value;
        const char* pkg;
        float global, app; // expected afterwards (-1: none)
    } rows[] = {
            {"60", 9999, "com.game", 60.0f, -1.0f},
            {"com.game", 4500, "com.game", -1.0f, 45.0f},
            {"vn-core-thermalCallbackHandler", 3000, "com.game", 30.0f, -1.0f},
            {"com.game", 24000, "com.game", -1.0f, 240.0f},
            {"com.game", 24100, "com.game", -1.0f, 240.0f}, // refused
            {"-1", 0, "com.game", -1.0f, 240.0f},           // refused
            {"com.game", 0, "com.game", -1.0f, -1.0f},      // zero only removes
    };
    for (const auto& row : rows) {
        push(4171, row.text, row.value);
        EXPECT_FLOAT_EQ(fps(""), row.global) << row.text << " " << row.value;
        EXPECT_FLOAT_EQ(fps(row.pkg), row.app) << row.text << " " << row.value;
    }
    EXPECT_FALSE(fm->isTfpsConfigured());
    EXPECT_EQ(announcements(), 5u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Invalid target fps found: 241.00"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Invalid target fps found: -1.00"), 1u);

    push(4171, "90", 0);
    EXPECT_FLOAT_EQ(fps("x", true), 90.0f);
    EXPECT_FLOAT_EQ(fps("x", false), -1.0f) << "the global entry only when asked";
}

TEST_F(AppConfig, FifthPackageEvictsLeastRecentlyUpdated) {
    for (const char* pkg : {"a", "b", "c", "d"}) {
        push(4171, pkg, 6000);
        clock.advance(1'000'000);
    }
    push(4171, "a", 3000); // refresh: "b" is now the oldest
    clock.advance(1'000'000);
    push(4171, "e", 4000);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Feature(4) LRU remove [b]"), 1u);
    EXPECT_FLOAT_EQ(fps("b"), -1.0f);
    for (const char* pkg : {"a", "c", "d", "e"}) EXPECT_GT(fps(pkg), 0.0f) << pkg;

    // The same rule holds for the headroom table (feature 2); a tie goes to the first key.
    for (const char* pkg : {"t", "s", "r", "q", "p"}) push(4187, pkg, 0, {0, 80, 1, 120});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Feature(2) LRU remove [q]"), 1u);
}

TEST_F(AppConfig, HeadroomRatesTakeSecondAndFourthValues) {
    push(4187, "com.game", 0, {7, 80, 9, 120});
    auto config = fm->getPhrConfig("com.game", false);
    ASSERT_TRUE(config.has_value());
    EXPECT_FLOAT_EQ(config->phrMinRate, 0.8f);
    EXPECT_FLOAT_EQ(config->highFpsPhrMinRate, 1.2f);
    push(4187, "com.game", 0, {}); // removes, and is still announced
    EXPECT_FALSE(fm->getPhrConfig("com.game", false).has_value());
    EXPECT_EQ(announcements(), 2u);
}

// The global entry's text is up to three jank thresholds, the first above 1 vsync, increasing.
TEST_F(AppConfig, FrameRescueGlobalJankThresholds) {
    for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
                 {"1.5;1.4", "Invalid GFR jank thresholds: 1.5;1.4. Must be strictly increasing."},
                 {"1.5;1.5", "Invalid GFR jank thresholds: 1.5;1.5. Must be strictly increasing."},
                 {"1.0;1.4", "Invalid GFR jank thresholds: 1.0;1.4. Must be > 1 vsync."},
                 {"1.5;x", "Invalid parameters for GFR jank thresholds: 1.5;x"}}) {
        push(4189, text, 0, {1});
        EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, message), 1u);
    }
    EXPECT_FALSE(fm->getGFRTunables("", false).has_value());

    push(4189, "1.5;2;3;4", 0, {1});
    auto t = fm->getGFRTunables("", false);
    ASSERT_TRUE(t.has_value());
    EXPECT_EQ(t->jankThresholds, (std::vector<float>{1.5f, 2.0f, 3.0f}));
    push(4189, "", 0, {2}); // an empty list keeps the thresholds
    t = fm->getGFRTunables("com.any", true);
    ASSERT_TRUE(t.has_value());
    EXPECT_EQ(t->flag, 2);
    EXPECT_EQ(t->jankThresholds.size(), 3u);
    EXPECT_EQ(announcements(), 2u);
}
