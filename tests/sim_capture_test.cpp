#include <gtest/gtest.h>

#include <algorithm>
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
    const std::vector<std::pair<std::string, std::string>> cases = {
            {"Application,MsInPresentAPI\nx,1\n", "test.csv:1: no MsBetweenPresents column in the header"},
            {"A,MsBetweenPresents\nx,16\nx,abc\n", "test.csv:3: bad MsBetweenPresents value \"abc\""},
            {"A,MsBetweenPresents\nx,-4\n", "test.csv:2: bad MsBetweenPresents value \"-4\""},
            {"A,MsBetweenPresents\nx,nan\n", "test.csv:2: bad MsBetweenPresents value \"nan\""},
            {"A,B,MsBetweenPresents\nx,1\n", "test.csv:2: the row has no MsBetweenPresents field"},
            {"A,MsBetweenPresents\n", "test.csv: no frames"},
            {"//only metadata\n", "test.csv: no header row"}};
    for (const auto& [text, message] : cases) EXPECT_EQ(errorOf(text), message);
    EXPECT_THROW(readCapture("/nonexistent/dir/cap.csv"), CaptureError);
}

TEST(SimCapture, ReadsAndroidFrameDataAndAnyNamedColumn) {
    // SurfaceFlinger's latency dump: present intervals; a frame not yet shown is skipped.
    const Capture sf = parse("16666666\n0 0 0\n10 1000000000 5\n20 1016666666 6\n30 1050000000 7\n"
                             "40 9223372036854775807 0\n");
    EXPECT_EQ(sf.format, "SurfaceFlinger latency");
    ASSERT_EQ(sf.intervalsMs.size(), 2u);
    EXPECT_NEAR(sf.intervalsMs[1], 33.333, 0.001);
    // gfxinfo framestats: the first section's frames without flags, by intended vsync.
    const Capture gfx = parse("Stats since: 1ns\n---PROFILEDATA---\nFlags,IntendedVsync,Vsync,\n"
                              "0,100000000,100000000,\n1,111111111,1,\n0,122222222,1,\n0,144444444,1,\n"
                              "---PROFILEDATA---\n---PROFILEDATA---\nFlags,IntendedVsync,\n0,900000000,\n");
    EXPECT_EQ(gfx.format, "gfxinfo framestats");
    ASSERT_EQ(gfx.intervalsMs.size(), 2u);
    EXPECT_NEAR(gfx.intervalsMs[0], 22.222, 0.001);
    std::istringstream column("t,frame_ms\n0,8.5\n1,9\n");
    EXPECT_EQ(parseCapture(column, "x.csv", "frame_ms").intervalsMs, (std::vector<double>{8.5, 9}));

    const std::string dir = std::string(PELYX_SIM_SOURCE_DIR) + "/captures/";
    EXPECT_EQ(readCapture(dir + "dumpsys-surfaceflinger-latency-sample.txt").intervalsMs.size(), 149u);
    EXPECT_EQ(readCapture(dir + "dumpsys-gfxinfo-framestats-sample.txt").intervalsMs.size(), 118u);
    const Capture named = readCapture(dir + "presentmon-csgo-120fps.csv:MsBetweenDisplayChange");
    EXPECT_EQ(named.format, "CSV column");
    EXPECT_EQ(named.intervalsMs.size(), 4265u);
}

TEST(SimCapture, TruncatedOrGarbledAndroidDataSaysWhereAndWhy) {
    const std::vector<std::pair<std::string, std::string>> cases = {
            {"16666666\n1 2 3\n4 5\n", "test.csv:3: expected three times in ns"},
            {"16666666\n1 2 3\n4 five 6\n", "test.csv:3: expected three times in ns"},
            {"16666666\n1 2000 3\n4 1000 6\n", "test.csv:3: actual present time goes back"},
            {"0\n1 2 3\n", "test.csv:1: refresh period must be above 0"},
            {"16666666\n", "test.csv: no frames"},
            {"---PROFILEDATA---\nFlags,IntendedVsync,\n0,1,\n0,2,\n", "test.csv: truncated: no closing ---PROFILEDATA---"},
            {"---PROFILEDATA---\nFlags,Vsync,\n0,1,\n---PROFILEDATA---\n", "test.csv:2: no Flags and IntendedVsync columns"},
            {"---PROFILEDATA---\nFlags,IntendedVsync,\n0,x,\n---PROFILEDATA---\n", "test.csv:3: bad frame row"},
    };
    for (const auto& [text, message] : cases) EXPECT_EQ(errorOf(text).rfind(message, 0), 0u) << errorOf(text);
    std::istringstream column("t,frame_ms\n0,8.5\n");
    EXPECT_THROW(parseCapture(column, "x.csv", "frametime"), CaptureError);
    try {
        readCapture(std::string(PELYX_SIM_SOURCE_DIR) + "/captures/presentmon-csgo-120fps.csv:NoSuchColumn");
        ADD_FAILURE() << "accepted a missing column";
    } catch (const CaptureError& e) {
        EXPECT_NE(std::string(e.what()).find(":1: no NoSuchColumn column in the header"), std::string::npos) << e.what();
    }
}

struct Shipped {
    const char* file;
    size_t frames;
    double medianMs, p99Ms, maxMs;
};

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
    EXPECT_TRUE(f->cpuNs == 10 * kMs && f->gpuNs == 2 * kMs);
    EXPECT_EQ(w.next(0)->cpuNs, 50'000) << "a zero interval still takes a little time";
    EXPECT_EQ(w.next(0)->cpuNs, 12'500'000);
    EXPECT_EQ(w.replayed(), 3u);
    EXPECT_FALSE(w.next(0));
}

TEST(SimWork, HeavyFramesComeInBurstsOnTheirSchedule) {
    WorkModel m = model(8);
    m.heavyMs = 40, m.heavyGpuMs = 30, m.gpuMs = 4, m.heavyEveryS = 1.0, m.heavyFromS = 2.0, m.heavyBurst = 2;
    WorkSource w(m, 1);
    auto at = [&](double s) { return *w.next(static_cast<int64_t>(s * 1e9)); };
    EXPECT_FALSE(at(1.99).heavy);
    const FrameWork first = at(2.0);
    EXPECT_TRUE(first.heavy && first.cpuNs == 40 * kMs && first.gpuNs == 30 * kMs);
    EXPECT_TRUE(at(2.01).heavy);
    const FrameWork after = at(2.02);
    EXPECT_TRUE(!after.heavy && after.cpuNs == 8 * kMs && after.gpuNs == 4 * kMs);
    EXPECT_FALSE(at(2.9).heavy);
    // A pause longer than the period starts one burst, not one per missed period.
    for (double t : {5.5, 5.51, 5.52, 6.0}) EXPECT_EQ(at(t).heavy, t != 5.52) << t;
}

TEST(SimWork, JitterSpreadsAroundTheMeanRepeatsWithTheSeedAndStaysPositive) {
    WorkModel m = model(10);
    m.jitterMs = 2;
    WorkSource a(m, 42), b(m, 42), c(m, 43);
    std::vector<double> ms;
    bool differs = false;
    for (int i = 0; i < 4000; ++i) {
        ms.push_back(static_cast<double>(a.next(0)->cpuNs) / kMs);
        EXPECT_EQ(static_cast<double>(b.next(0)->cpuNs) / kMs, ms.back());
        differs = differs || static_cast<double>(c.next(0)->cpuNs) / kMs != ms.back();
    }
    std::sort(ms.begin(), ms.end());
    EXPECT_NEAR(ms[2000], 10.0, 0.2);
    EXPECT_NEAR(ms[3364] - ms[2000], 2.0, 0.25) << "the 84th percentile is one deviation above the median";
    EXPECT_TRUE(differs);

    m = model(1);
    m.jitterMs = 50;
    WorkSource wide(m, 7);
    for (int i = 0; i < 2000; ++i) EXPECT_GE(wide.next(0)->cpuNs, 50'000) << "wide jitter never gives negative work";
}

} // namespace
} // namespace pelyx_sim
