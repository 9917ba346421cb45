#include <gtest/gtest.h>

#include "config/FeatureManager.h"
#include "support/LogCapture.h"

using namespace android;
using pelyx_test::LogCapture;

TEST(GfrTunables, AcceptsEveryKeyAtItsRangeEdgesAndKeepsTheRest) {
    GfrTunables t;
    t.updateTime = 5;
    ASSERT_TRUE(FeatureManager::parseGFRTunables(
            "flag=2_jank=1.1;1.3;1.8;2.5_baseFreq=100;200;1_dynamic=1_lowerBoost=-3_histJank=0_"
            "golden=1.3_minDelay=0.5_kFactor=0_garbage_Golden=9_unknown=x_",
            &t));
    EXPECT_EQ(t.flag, 2);
    EXPECT_EQ(t.jankThresholds, (std::vector<float>{1.1f, 1.3f, 1.8f, 2.5f}));
    EXPECT_EQ(t.baseFreq, (std::vector<int32_t>{100, 200, 1}));
    EXPECT_TRUE(t.dynamic && t.lowerBoost && !t.histJank);
    EXPECT_FLOAT_EQ(t.golden, 1.3f);
    EXPECT_FLOAT_EQ(t.minDelay, 0.5f);
    EXPECT_FLOAT_EQ(t.kFactor, 0.0f);
    EXPECT_EQ(t.updateTime, 5);
}

// All or nothing: a refused text leaves the record as it was and says why in one line.
TEST(GfrTunables, RefusesWithOneLineAndLeavesTheRecord) {
    const std::pair<const char*, const char*> rows[] = {
            {"unknown=1_other=2", "no valid tunable found in 'unknown=1_other=2'"},
            {"", "no valid tunable found in ''"},
            {"golden=", "empty value for key 'golden'"},
            {"golden=1.31", "golden=1.31vsync out of range [0.2, 1.3]"},
            {"golden=0.19", "golden=0.19vsync out of range [0.2, 1.3]"},
            {"minDelay=1.6", "minDelay=1.60vsync out of range [0.5, 1.5]"},
            {"kFactor=-0.1", "kFactor=-0.10 out of range [0.0, 5.0]"},
            {"flag=3", "invalid flag=3"},
            {"flag=-1", "invalid flag=-1"},
            {"jank=1.0;1.5", "first jank threshold 1.00 must be > 1.0"},
            {"jank=1.1;1.1", "jank thresholds not strictly increasing"},
            {"jank=;", "empty jank thresholds"},
            {"baseFreq=300;500;1000;2000", "baseFreq must have 1 to 3 values"},
            {"baseFreq=0", "baseFreq value must be > 0"},
            {"golden=abc", "failed to parse 'golden=abc': stof"},
            {"flag=99999999999", "failed to parse 'flag=99999999999': stoi"},
            {"golden=0.8_kFactor=5.1", "kFactor=5.10 out of range [0.0, 5.0]"},
            {"baseFreq=1;2_jank=1.5;1.2", "jank thresholds not strictly increasing"},
    };
    for (const auto& [text, message] : rows) {
        LogCapture logs;
        GfrTunables out;
        out.golden = 0.9f;
        EXPECT_FALSE(FeatureManager::parseGFRTunables(text, &out)) << text;
        EXPECT_FLOAT_EQ(out.golden, 0.9f) << text;
        EXPECT_EQ(out.baseFreq.size(), 3u) << text;
        EXPECT_EQ(out.jankThresholds.size(), 3u) << text;
        ASSERT_EQ(logs.lines().size(), 1u) << text;
        EXPECT_EQ(logs.lines()[0].message, std::string("parseGFRTunables: ") + message);
        EXPECT_EQ(logs.lines()[0].priority, ANDROID_LOG_ERROR);
    }
}
