#include <gtest/gtest.h>

#include "config/FeatureManager.h"
#include "support/LogCapture.h"

using namespace android;
using pelyx_test::LogCapture;

namespace {
constexpr const char* kTag = "Pelyx.FeatureManager";

bool sameTunables(const GfrTunables& a, const GfrTunables& b) {
    return a.flag == b.flag && a.jankThresholds == b.jankThresholds && a.baseFreq == b.baseFreq &&
           a.dynamic == b.dynamic && a.lowerBoost == b.lowerBoost && a.golden == b.golden &&
           a.minDelay == b.minDelay && a.kFactor == b.kFactor && a.histJank == b.histJank &&
           a.updateTime == b.updateTime;
}

// Expects the text to be refused with exactly this error line and *out untouched.
void expectRefused(const std::string& text, const std::string& message) {
    LogCapture logs;
    GfrTunables start;
    start.golden = 0.9f;
    start.updateTime = 77;
    GfrTunables out = start;
    EXPECT_FALSE(FeatureManager::parseGFRTunables(text, &out)) << text;
    EXPECT_TRUE(sameTunables(out, start)) << text;
    EXPECT_EQ(logs.count(kTag, ANDROID_LOG_ERROR, message), 1u) << text;
    EXPECT_EQ(logs.lines().size(), 1u) << text;
}
} // namespace

TEST(GfrTunables, Defaults) {
    GfrTunables t;
    EXPECT_EQ(t.flag, 0);
    EXPECT_EQ(t.jankThresholds, (std::vector<float>{1.2f, 1.6f, 2.0f}));
    EXPECT_EQ(t.baseFreq, (std::vector<int32_t>{300, 500, 2000}));
    EXPECT_FALSE(t.dynamic || t.lowerBoost || t.histJank);
    EXPECT_FLOAT_EQ(t.golden, 0.6f);
    EXPECT_FLOAT_EQ(t.minDelay, 1.0f);
    EXPECT_FLOAT_EQ(t.kFactor, 1.0f);
    EXPECT_EQ(t.updateTime, 0);
}

TEST(GfrTunables, AcceptsEveryKeyAndKeepsAbsentOnes) {
    GfrTunables t;
    t.updateTime = 5;
    ASSERT_TRUE(FeatureManager::parseGFRTunables(
            "flag=2_jank=1.1;1.3;1.8;2.5_baseFreq=100;200_dynamic=1_lowerBoost=-3_histJank=0_"
            "golden=1.3_minDelay=0.5_kFactor=0",
            &t));
    EXPECT_EQ(t.flag, 2);
    EXPECT_EQ(t.jankThresholds, (std::vector<float>{1.1f, 1.3f, 1.8f, 2.5f}));
    EXPECT_EQ(t.baseFreq, (std::vector<int32_t>{100, 200}));
    EXPECT_TRUE(t.dynamic);
    EXPECT_TRUE(t.lowerBoost);
    EXPECT_FALSE(t.histJank);
    EXPECT_FLOAT_EQ(t.golden, 1.3f);
    EXPECT_FLOAT_EQ(t.minDelay, 0.5f);
    EXPECT_FLOAT_EQ(t.kFactor, 0.0f);
    EXPECT_EQ(t.updateTime, 5);

    GfrTunables partial;
    ASSERT_TRUE(FeatureManager::parseGFRTunables("golden=0.8", &partial));
    EXPECT_FLOAT_EQ(partial.golden, 0.8f);
    EXPECT_EQ(partial.baseFreq.size(), 3u);
}

TEST(GfrTunables, SkipsItemsWithoutEqualsAndUnknownKeys) {
    GfrTunables t;
    ASSERT_TRUE(FeatureManager::parseGFRTunables("golden=0.8_garbage_Golden=9_kFactor=2_", &t));
    EXPECT_FLOAT_EQ(t.golden, 0.8f);
    EXPECT_FLOAT_EQ(t.kFactor, 2.0f);
}

TEST(GfrTunables, RefusesWithExactMessages) {
    expectRefused("unknown=1_other=2", "parseGFRTunables: no valid tunable found in 'unknown=1_other=2'");
    expectRefused("", "parseGFRTunables: no valid tunable found in ''");
    expectRefused("golden=", "parseGFRTunables: empty value for key 'golden'");
    expectRefused("golden=1.31", "parseGFRTunables: golden=1.31vsync out of range [0.2, 1.3]");
    expectRefused("golden=0.19", "parseGFRTunables: golden=0.19vsync out of range [0.2, 1.3]");
    expectRefused("minDelay=1.6", "parseGFRTunables: minDelay=1.60vsync out of range [0.5, 1.5]");
    expectRefused("kFactor=-0.1", "parseGFRTunables: kFactor=-0.10 out of range [0.0, 5.0]");
    expectRefused("flag=-1", "parseGFRTunables: invalid flag=-1");
    expectRefused("flag=3", "parseGFRTunables: invalid flag=3");
    expectRefused("jank=1.0;1.5", "parseGFRTunables: first jank threshold 1.00 must be > 1.0");
    expectRefused("jank=1.1;1.1", "parseGFRTunables: jank thresholds not strictly increasing");
    expectRefused("jank=;", "parseGFRTunables: empty jank thresholds");
    expectRefused("baseFreq=300;500;1000;2000", "parseGFRTunables: baseFreq must have 1 to 3 values");
    expectRefused("baseFreq=0", "parseGFRTunables: baseFreq value must be > 0");
    expectRefused("golden=abc", "parseGFRTunables: failed to parse 'golden=abc': stof");
    expectRefused("flag=99999999999", "parseGFRTunables: failed to parse 'flag=99999999999': stoi");
    expectRefused("jank=1.5;x", "parseGFRTunables: failed to parse 'jank=1.5;x': stof");
}

TEST(GfrTunables, ValidItemThenInvalidLeavesRecordUntouched) {
    expectRefused("golden=0.8_kFactor=9", "parseGFRTunables: kFactor=9.00 out of range [0.0, 5.0]");
    expectRefused("baseFreq=1;2_jank=1.5;1.2",
                  "parseGFRTunables: jank thresholds not strictly increasing");
}
