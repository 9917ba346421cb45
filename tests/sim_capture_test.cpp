// Captures for the simulator's replay mode, and the work times its apps draw from a model or
// a capture.

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "Capture.h"
#include "Scenario.h"
#include "WorkSource.h"

namespace pelyx_sim {
namespace {

Capture parse(const std::string& text) {
    std::istringstream in(text);
    return parseCapture(in, "test.csv");
}

std::string errorOf(const std::string& text) {
    try {
        parse(text);
    } catch (const CaptureError& e) {
        return e.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return "";
}

TEST(SimCapture, SplitsQuotedFields) {
    EXPECT_EQ(splitCsv("a,b,c"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(splitCsv("\"x, y\",2"), (std::vector<std::string>{"x, y", "2"}));
    EXPECT_EQ(splitCsv("\"say \"\"hi\"\"\",,  3 "), (std::vector<std::string>{"say \"hi\"", "", "3"}));
    EXPECT_EQ(splitCsv(""), (std::vector<std::string>{""}));
}

TEST(SimCapture, ReadsTheIntervalColumnPastMetadataAndQuotes) {
    const Capture c = parse(
            "\xEF\xBB\xBF//GameName=x.exe\r\n"
            "// another note\r\n"
            "\r\n"
            "Application,Comment,MsBetweenPresents,Dropped\r\n"
            "game.exe,\"a, quoted, comment\",16.5,0\r\n"
            "game.exe,,0,1\r\n"
            "game.exe,,33.25,0\r\n");
    EXPECT_EQ(c.application, "game.exe");
    EXPECT_EQ(c.intervalsMs, (std::vector<double>{16.5, 0, 33.25}));
    EXPECT_EQ(c.medianMs(), 16.5);
    EXPECT_EQ(c.maxMs(), 33.25);
    EXPECT_NEAR(c.rate(), 1000.0 / 16.5, 1e-9);
}

TEST(SimCapture, BadInputSaysWhereAndWhy) {
    EXPECT_EQ(errorOf("Application,MsInPresentAPI\nx,1\n"), "test.csv:1: no MsBetweenPresents column in the header");
    EXPECT_EQ(errorOf("A,MsBetweenPresents\nx,16\nx,abc\n"), "test.csv:3: bad MsBetweenPresents value \"abc\"");
    EXPECT_EQ(errorOf("A,MsBetweenPresents\nx,-4\n"), "test.csv:2: bad MsBetweenPresents value \"-4\"");
    EXPECT_EQ(errorOf("A,MsBetweenPresents\nx,nan\n"), "test.csv:2: bad MsBetweenPresents value \"nan\"");
    EXPECT_EQ(errorOf("A,MsBetweenPresents\nx,\n"), "test.csv:2: bad MsBetweenPresents value \"\"");
    EXPECT_EQ(errorOf("A,B,MsBetweenPresents\nx,1\n"), "test.csv:2: the row has no MsBetweenPresents field");
    EXPECT_EQ(errorOf("A,MsBetweenPresents\n"), "test.csv: no frames");
    EXPECT_EQ(errorOf("//only metadata\n"), "test.csv: no header row");
    EXPECT_EQ(errorOf(""), "test.csv: no header row");
}

TEST(SimCapture, MissingFileIsNamed) {
    try {
        readCapture("/nonexistent/dir/cap.csv");
        FAIL();
    } catch (const CaptureError& e) {
        EXPECT_EQ(std::string(e.what()), "/nonexistent/dir/cap.csv: cannot open: No such file or directory");
    }
}

struct Shipped {
    const char* file;
    size_t frames;
    double medianMs;
    double p99Ms;
    double maxMs;
};

// The figures the captures' README gives for each file.
TEST(SimCapture, ShippedCapturesMatchTheirDescription) {
    const std::vector<Shipped> shipped = {
            {"ocat-metro-exodus-100fps.csv", 2502, 10.20, 12.65, 17.9},
            {"presentmon-far-cry-new-dawn-80fps-stutter.csv", 1171, 12.54, 16.83, 80.1},
            {"capframex-resident-evil-2-290fps.csv", 7285, 3.43, 3.86, 8.2},
            {"presentmon-csgo-120fps.csv", 4265, 8.41, 10.57, 14.6},
    };
    for (const Shipped& s : shipped) {
        const Capture c = readCapture(std::string(PELYX_SIM_SOURCE_DIR) + "/captures/" + s.file);
        EXPECT_EQ(c.intervalsMs.size(), s.frames) << s.file;
        EXPECT_NEAR(c.medianMs(), s.medianMs, 0.006) << s.file;
        EXPECT_NEAR(c.p99Ms(), s.p99Ms, 0.02) << s.file;
        EXPECT_NEAR(c.maxMs(), s.maxMs, 0.06) << s.file;
        EXPECT_FALSE(c.application.empty()) << s.file;
    }
}

WorkModel model(double meanMs) {
    WorkModel m;
    m.meanMs = meanMs;
    return m;
}

constexpr int64_t kMs = 1'000'000;

TEST(SimWork, ReplayPlaysEachIntervalOnceThenEnds) {
    WorkModel m = model(5);
    m.gpuMs = 2;
    m.replayMs = std::make_shared<const std::vector<double>>(std::vector<double>{10, 0, 12.5});
    WorkSource w(m, 1);
    EXPECT_TRUE(w.replaying());
    EXPECT_EQ(w.replayLength(), 3u);
    std::optional<FrameWork> f = w.next(0);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->cpuNs, 10 * kMs);
    EXPECT_EQ(f->gpuNs, 2 * kMs);
    EXPECT_EQ(w.next(0)->cpuNs, 50'000) << "a zero interval still takes a little time";
    EXPECT_EQ(w.next(0)->cpuNs, 12'500'000);
    EXPECT_EQ(w.replayed(), 3u);
    EXPECT_FALSE(w.next(0));
    EXPECT_FALSE(w.next(0));
}

TEST(SimWork, HeavyFramesComeInBurstsOnTheirSchedule) {
    WorkModel m = model(8);
    m.heavyMs = 40;
    m.heavyGpuMs = 30;
    m.gpuMs = 4;
    m.heavyEveryS = 1.0;
    m.heavyFromS = 2.0;
    m.heavyBurst = 2;
    WorkSource w(m, 1);
    auto at = [&](double s) { return *w.next(static_cast<int64_t>(s * 1e9)); };
    EXPECT_FALSE(at(0.5).heavy);
    EXPECT_FALSE(at(1.99).heavy);
    FrameWork first = at(2.0);
    EXPECT_TRUE(first.heavy);
    EXPECT_EQ(first.cpuNs, 40 * kMs);
    EXPECT_EQ(first.gpuNs, 30 * kMs);
    EXPECT_TRUE(at(2.01).heavy);
    FrameWork after = at(2.02);
    EXPECT_FALSE(after.heavy);
    EXPECT_EQ(after.cpuNs, 8 * kMs);
    EXPECT_EQ(after.gpuNs, 4 * kMs);
    EXPECT_FALSE(at(2.9).heavy);
    // A pause longer than the period starts one burst, not one per missed period.
    EXPECT_TRUE(at(5.5).heavy);
    EXPECT_TRUE(at(5.51).heavy);
    EXPECT_FALSE(at(5.52).heavy);
    EXPECT_TRUE(at(6.0).heavy);
}

TEST(SimWork, JitterSpreadsAroundTheMeanAndRepeatsWithTheSeed) {
    WorkModel m = model(10);
    m.jitterMs = 2;
    WorkSource a(m, 42), b(m, 42), c(m, 43);
    double sum = 0, sumSquares = 0;
    bool differs = false;
    const int n = 4000;
    for (int i = 0; i < n; ++i) {
        const double ms = static_cast<double>(a.next(0)->cpuNs) / kMs;
        EXPECT_EQ(static_cast<double>(b.next(0)->cpuNs) / kMs, ms);
        differs = differs || static_cast<double>(c.next(0)->cpuNs) / kMs != ms;
        EXPECT_GT(ms, 0);
        sum += ms;
        sumSquares += ms * ms;
    }
    const double mean = sum / n;
    EXPECT_NEAR(mean, 10.0, 0.2);
    EXPECT_NEAR(std::sqrt(sumSquares / n - mean * mean), 2.0, 0.2);
    EXPECT_TRUE(differs);
}

TEST(SimWork, WideJitterNeverGivesNegativeWork) {
    WorkModel m = model(1);
    m.jitterMs = 50;
    WorkSource w(m, 7);
    for (int i = 0; i < 2000; ++i) {
        const int64_t ns = w.next(0)->cpuNs;
        EXPECT_GE(ns, 50'000);
        EXPECT_LE(ns, 204 * kMs);
    }
}

} // namespace
} // namespace pelyx_sim
