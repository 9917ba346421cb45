#include <gtest/gtest.h>

#include <climits>

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
constexpr const char* kNotInitialized = "LayerManager not initialized";

// Hints arrive the way the service sends them: through the callback registered with the client.
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

    void push(int hintId, const std::string& text, int value, int value2 = 0,
              const std::vector<int>& values = {}) {
        ASSERT_EQ(perfd_stub::pushHint(hintId, text, value, value2, values), 0);
    }
    size_t announcements() const {
        return logs.count("Pelyx.LayerManager", ANDROID_LOG_ERROR, kNotInitialized);
    }
    float targetFps(const std::string& pkg, bool useGlobal = false) const {
        auto config = fm->getTfpsConfig(pkg, useGlobal);
        return config ? config->targetFps : -1.0f;
    }

    LogCapture logs;
    ManualClock clock;
    FeatureManager* fm = nullptr;
};
} // namespace

TEST_F(AppConfig, TargetFpsHintDecoding) {
    push(4171, "60", 9999); // numeric text: global entry, value ignored
    EXPECT_FLOAT_EQ(targetFps(""), 60.0f);
    push(4171, "com.game", 4500); // hundredths
    EXPECT_FLOAT_EQ(targetFps("com.game"), 45.0f);
    EXPECT_FLOAT_EQ(targetFps(""), -1.0f) << "a per-app update drops the global entry";
    push(4171, "vn-core-thermalCallbackHandler", 3000); // the thermal handler speaks globally
    EXPECT_FLOAT_EQ(targetFps(""), 30.0f);
    EXPECT_FLOAT_EQ(targetFps("com.game"), -1.0f) << "a global update empties the table";
    EXPECT_EQ(announcements(), 3u);

    push(4171, "com.game", 4500);
    push(4171, "com.game", 0); // zero only removes
    EXPECT_FALSE(fm->isTfpsConfigured());
    EXPECT_EQ(announcements(), 5u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "pkg = com.game, targetFps = 0.000000"), 1u);
}

TEST_F(AppConfig, TargetFpsAbove240IsRefusedWithoutAnnouncement) {
    push(4171, "com.game", 4500);
    logs.clear();
    push(4171, "com.game", 24100);
    push(4171, "-1", 0);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Invalid target fps found: 241.00"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Invalid target fps found: -1.00"), 1u);
    EXPECT_EQ(announcements(), 0u);
    EXPECT_FLOAT_EQ(targetFps("com.game"), 45.0f);
}

TEST_F(AppConfig, LookupsFallBackToGlobalOnlyWhenAsked) {
    push(4171, "90", 0);
    EXPECT_FLOAT_EQ(targetFps("x", true), 90.0f);
    EXPECT_FLOAT_EQ(targetFps("x", false), -1.0f);
    push(4171, "x", 6000);
    EXPECT_FLOAT_EQ(targetFps("x", true), 60.0f);
    EXPECT_FLOAT_EQ(targetFps("y", true), -1.0f);
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
    EXPECT_FLOAT_EQ(targetFps("b"), -1.0f);
    for (const char* pkg : {"a", "c", "d", "e"}) EXPECT_GT(targetFps(pkg), 0.0f) << pkg;

    // The same rule holds for the headroom table (feature 2); a tie goes to the first key.
    for (const char* pkg : {"t", "s", "r", "q", "p"}) push(4187, pkg, 0, 0, {0, 80, 1, 120});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "Feature(2) LRU remove [q]"), 1u);
}

TEST_F(AppConfig, HeadroomRatesTakeSecondAndFourthValues) {
    push(4187, "com.game", 0, 0, {7, 80, 9, 120});
    ASSERT_TRUE(fm->getPhrConfig("com.game", false).has_value());
    EXPECT_FLOAT_EQ(fm->getPhrConfig("com.game", false)->highFpsPhrMinRate, 1.2f);

    push(4187, "com.game", 0, 0, {}); // removes, and is still announced
    EXPECT_FALSE(fm->getPhrConfig("com.game", false).has_value());
    EXPECT_EQ(announcements(), 2u);
}

TEST(AppConfigQuickTouchOff, HeadroomHintRefusedButAnnounced) {
    LogCapture logs;
    perfd_stub::setProp("vendor.perf.pelyx.debug", "1");
    FeatureManager* fm = FeatureManager::getInstance();
    fm->setCallbackHintValue(4187, "com.game", 0, 0, {0, 80, 0, 120});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG, "set PhrMinRate fail, Quick Touch disable!"), 1u);
    EXPECT_EQ(logs.count("Pelyx.LayerManager", ANDROID_LOG_ERROR, kNotInitialized), 1u);
    EXPECT_FALSE(fm->getPhrConfig("com.game", true).has_value());
    EXPECT_FALSE(fm->getTfpsConfig("com.game", true).has_value()) << "target fps is off too";
}

TEST_F(AppConfig, GfrFlagAndRemoval) {
    push(4189, "com.game:golden=0.8", 0, 0, {1});
    auto tunables = fm->getGFRTunables("com.game", false);
    ASSERT_TRUE(tunables.has_value());
    EXPECT_EQ(tunables->flag, 1);
    EXPECT_FLOAT_EQ(tunables->golden, 0.8f);
    EXPECT_EQ(tunables->updateTime, clock.now());

    push(4189, "com.game:golden=0.9", 0, 0, {3});
    push(4189, "com.game:golden=0.9", 0, 0, {-1});
    push(4189, "com.game:golden=0.9", 0, 0, {});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Invalid gfrFlag: 3"), 1u);
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Invalid gfrFlag: -1"), 1u);
    push(4189, "com.game:golden=0.7_kFactor=9", 0, 0, {2});
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, "Invalid GFR tunables: golden=0.7_kFactor=9"), 1u);
    EXPECT_EQ(fm->getGFRTunables("com.game", false)->flag, 1);
    EXPECT_FLOAT_EQ(fm->getGFRTunables("com.game", false)->golden, 0.8f);
    EXPECT_EQ(announcements(), 1u);

    // An update starts from the app's current entry.
    push(4189, "com.game:kFactor=2", 0, 0, {2});
    tunables = fm->getGFRTunables("com.game", false);
    EXPECT_EQ(tunables->flag, 2);
    EXPECT_FLOAT_EQ(tunables->golden, 0.8f);
    EXPECT_FLOAT_EQ(tunables->kFactor, 2.0f);

    push(4189, "com.game:anything", 0, 0, {0});
    EXPECT_FALSE(fm->getGFRTunables("com.game", false).has_value());
    EXPECT_EQ(announcements(), 3u);
}

TEST_F(AppConfig, GfrGlobalJankThresholds) {
    for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
                 {"1.5;1.4", "Invalid GFR jank thresholds: 1.5;1.4. Must be strictly increasing."},
                 {"1.0;1.4", "Invalid GFR jank thresholds: 1.0;1.4. Must be > 1 vsync."},
                 {"1.5;x", "Invalid parameters for GFR jank thresholds: 1.5;x"}}) {
        push(4189, text, 0, 0, {1});
        EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, message), 1u);
    }
    EXPECT_FALSE(fm->getGFRTunables("", false).has_value());
    EXPECT_EQ(announcements(), 0u);

    push(4189, "1.5;2;3;4", 0, 0, {1});
    auto tunables = fm->getGFRTunables("", false);
    ASSERT_TRUE(tunables.has_value());
    EXPECT_EQ(tunables->jankThresholds, (std::vector<float>{1.5f, 2.0f, 3.0f}));
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_DEBUG,
                         "pkg= GFRProp: flag=1 jankThresholds=1.50;2.00;3.00"), 1u);

    push(4189, "", 0, 0, {2}); // empty list keeps the thresholds
    tunables = fm->getGFRTunables("", false);
    EXPECT_EQ(tunables->flag, 2);
    EXPECT_EQ(tunables->jankThresholds.size(), 3u);
    EXPECT_TRUE(fm->getGFRTunables("com.any", true).has_value());
    EXPECT_EQ(announcements(), 2u);
}

TEST_F(AppConfig, HostileHintsAreDroppedQuietly) {
    push(4171, "60", 0);
    logs.clear();
    for (int id : {0, -1, 4170, 4172, 4188, 4190, 4191, 4193, INT_MAX, INT_MIN}) {
        push(id, "com.game", 4500, 0, {1});
    }
    EXPECT_TRUE(logs.lines().empty());
    EXPECT_FLOAT_EQ(targetFps(""), 60.0f);

    std::string hostile(1 << 20, '"');
    hostile[10] = '\n';
    push(4171, hostile, INT_MAX);
    push(4187, hostile, 0, 0, std::vector<int>(100000, INT_MIN));
    push(4189, hostile + ":" + hostile, 0, 0, {1, INT_MAX});
    push(4171, std::string(5000, '9'), 0); // numeric text far beyond any float
    EXPECT_FLOAT_EQ(targetFps(""), 60.0f);
    EXPECT_FALSE(fm->getGFRTunables(hostile, false).has_value());
    EXPECT_FALSE(fm->getPhrConfig(hostile, false).has_value());
}
