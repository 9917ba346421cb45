#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "PerfdControl.h"
#include "perf/PerfProxy.h"
#include "support/LogCapture.h"

using android::PerfProxy;
using pelyx_test::LogCapture;

namespace {

std::string packageOf(const std::string& layerName) {
    return PerfProxy::getInstance()->getPackageName(layerName);
}

// The same grammar on a backtracking ECMAScript engine: safe on short names only.
std::string ecmaPackageName(std::string name, bool* surfaceView = nullptr) {
    static const std::regex sSurfaceView(R"((?:\w*\s*SurfaceView\[)([^/]+).*#\d+)");
    static const std::regex sInputMethod(R"(InputMethod#\d+)");
    if (name.compare(0, 4, "VRI-") == 0) name.erase(0, 4);
    std::smatch match;
    const bool matched = std::regex_match(name, match, sSurfaceView);
    if (surfaceView) *surfaceView = matched;
    if (matched) return match[1].str();
    const size_t slash = name.find('/');
    if (slash != std::string::npos) return name.substr(0, slash);
    return std::regex_match(name, sInputMethod) ? "UnknownKeyboard" : "";
}

} // namespace

TEST(PackageName, EdgeCasesMatchTheEcmaScriptGrammar) {
    const std::pair<std::string, std::string> cases[] = {
            {"SurfaceView[com.pkg/com.pkg.Activity]#123", "com.pkg"},
            {"SurfaceView[com.foo/com.foo.Main](BLAST)#45", "com.foo"},
            {"VRI-com.a/com.a.B#1", "com.a"},
            {"VRI-SurfaceView[com.v/com.v.A]#7", "com.v"},
            {"Background SurfaceView[com.bg/com.bg.A]#2", "com.bg"},
            // Only one word may precede the marker; otherwise the '/' split decides.
            {"Background for SurfaceView[com.bg/A]#2", "Background for SurfaceView[com.bg"},
            {"InputMethod#12", "UnknownKeyboard"},
            {"VRI-InputMethod#3", "UnknownKeyboard"},
            {"InputMethod#", ""},
            {"InputMethod#12a", ""},
            {" InputMethod#3", ""},
            {"InputMethod#1/2", "InputMethod#1"},
            {"SurfaceView[com.pkg]#12", "com.pkg]"}, // up to the last '#<digits>'
            {"SurfaceView[com.pkg/A]", "SurfaceView[com.pkg"},
            {"SurfaceView[com.pkg/A]#x1", "SurfaceView[com.pkg"},
            {"SurfaceView[]#12", "]"},
            {"SurfaceView[/x]#12", "SurfaceView["},
            {"SurfaceView[SurfaceView[com.nested/A]#1]#2", "SurfaceView[com.nested"},
            {"SurfaceView[com.pkg/A]#9#10", "com.pkg"},
            // '.' stops at line breaks, the package part takes them, '\v' is leading space.
            {"SurfaceView[com.pkg/A\n]#9", "SurfaceView[com.pkg"},
            {"SurfaceView[com.pkg/A\r]#9", "SurfaceView[com.pkg"},
            {"SurfaceView[com.p\nkg/A]#9", "com.p\nkg"},
            {"Foo\vSurfaceView[com.pkg/A]#9", "com.pkg"},
            {"\xc2\xa0SurfaceView[com.pkg/A]#9", "\xc2\xa0SurfaceView[com.pkg"},
            {"SurfaceView[\xff\xfe/A]#9", "\xff\xfe"}, // not UTF-8, still matched
            {"SurfaceView[com.pkg/A]#\xd9\xa3", "SurfaceView[com.pkg"}, // not an ASCII digit
            {"surfaceview[com.pkg/A]#9", "surfaceview[com.pkg"},
            {"x.SurfaceView[com.pkg/A]#9", "x.SurfaceView[com.pkg"},
            {std::string("SurfaceView[com.nul\0/A]#9", 25), std::string("com.nul\0", 8)},
            {"StatusBar#0", ""},
            {"VRI-", ""},
            {"", ""},
    };
    for (const auto& [name, expected] : cases) {
        EXPECT_EQ(packageOf(name), expected) << ::testing::PrintToString(name);
        EXPECT_EQ(ecmaPackageName(name), expected) << ::testing::PrintToString(name);
    }
}

TEST(PackageName, AgreesWithEcmaScriptOnGeneratedNames) {
    // Tokens that matter to the grammar; half the names start like a SurfaceView name.
    const std::vector<std::string> tokens = {
            "SurfaceView[", "SurfaceView", "[", "]", "/", "#", "#1", "0", "42", "com.a", "x_y",
            "VRI-", "InputMethod#", " ", "\t", "\n", "\r", "\v", "\f", "(BLAST)", "\xc3\xa9",
            "\xe2\x80\xa8", "\xff", "\xa0", ".", "-", "\\", "*"};
    const std::vector<std::string> heads = {"", "VRI-", "Bg", "Bg ", "a_1\t", " ", "\v"};
    std::mt19937 rng(20240611);
    size_t surfaceViewMatches = 0;
    for (int n = 0; n < 4000; n++) {
        std::string name = rng() % 2 ? heads[rng() % heads.size()] + "SurfaceView[" : "";
        for (int i = rng() % 13; i > 0; --i) name += tokens[rng() % tokens.size()];
        if (rng() % 2) name += "#" + std::to_string(rng() % 1000);
        bool matched = false;
        ASSERT_EQ(packageOf(name), ecmaPackageName(name, &matched))
                << ::testing::PrintToString(name);
        surfaceViewMatches += matched;
    }
    EXPECT_GT(surfaceViewMatches, 400u) << "the capture path must be taken often";
}

// App-chosen names of a megabyte stay cheap: about ten times the slowest sanitizer timing.
TEST(PackageName, HostileNamesStayCheap) {
    const size_t kMiB = 1 << 20;
    std::string repeated;
    while (repeated.size() < kMiB) repeated += "SurfaceView[";
    const std::string plain(kMiB, 'a');
    const std::pair<std::string, std::string> cases[] = {
            {plain, ""},
            {repeated, ""},
            {repeated + "#1", repeated.substr(12)},
            {"SurfaceView[" + std::string(kMiB, 'p') + "#1", std::string(kMiB, 'p')},
            {"SurfaceView[" + std::string(kMiB, '#') + "#", ""},
            {plain + "/x#1", plain},
    };
    for (const auto& [name, expected] : cases) {
        const auto start = std::chrono::steady_clock::now();
        const std::string package = packageOf(name);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(700));
        EXPECT_TRUE(package == expected) << name.substr(0, 24) << ": " << package.size();
    }
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

class GameQueries : public ::testing::Test {
protected:
    // The HAL version is read once, when the proxy is created.
    PerfProxy* proxyWithHal(double version) {
        perfd_stub::reset();
        PerfProxy::setDebuggable(true, false);
        perfd_stub::setHalVersion(version);
        perfd_stub::setFeedback(perfd_stub::kGameQuery, "", 2);
        perfd_stub::setGameWeight("", 5);
        PerfProxy* proxy = PerfProxy::getInstance();
        perfd_stub::clearCalls();
        return proxy;
    }
    // The calls made, each as its function, package and scalar arguments.
    std::vector<std::string> calls() const {
        std::vector<std::string> out;
        for (const auto& c : perfd_stub::calls()) {
            out.push_back(c.fn + " " + c.pkg + ::testing::PrintToString(c.ints) +
                          ::testing::PrintToString(c.args));
        }
        return out;
    }
    std::vector<std::string> debugLines() const {
        std::vector<std::string> out;
        for (const auto& line : mLog.lines()) {
            if (line.tag == "Pelyx" && line.priority == ANDROID_LOG_DEBUG) {
                out.push_back(line.message);
            }
        }
        return out;
    }
    LogCapture mLog;
};

TEST_F(GameQueries, GameIsExactlyAnswerTwoAndWeightUsesHintUpToHal22) {
    PerfProxy* proxy = proxyWithHal(2.2);
    perfd_stub::setGame("com.game", true);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "com.one", 1);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "com.three", 3);
    perfd_stub::setGameWeight("com.game", 7);
    mLog.clear();

    EXPECT_TRUE(proxy->isGameApp("com.game"));
    EXPECT_FALSE(proxy->isGameApp("com.one"));
    EXPECT_FALSE(proxy->isGameApp("com.three"));
    EXPECT_FALSE(proxy->isGameApp("")); // not asked
    EXPECT_TRUE(proxy->isGameLayer("SurfaceView[com.game/com.game.Unity]#3"));
    EXPECT_FALSE(proxy->isGameLayer("Wallpaper BBQ wrapper#0")); // no package: not asked
    EXPECT_EQ(proxy->getGameWeight("com.game"), 7);
    EXPECT_EQ(proxy->getGameWeight(""), -1); // not asked
    EXPECT_EQ(calls(), (std::vector<std::string>{"perf_get_feedback com.game{ 5633 }{}",
                                                 "perf_get_feedback com.one{ 5633 }{}",
                                                 "perf_get_feedback com.three{ 5633 }{}",
                                                 "perf_get_feedback com.game{ 5633 }{}",
                                                 "perf_hint com.game{ 5633, 0, 1 }{}"}));
    EXPECT_EQ(debugLines(), (std::vector<std::string>{
                                    "isGameApp:1 [com.game]", "isGameApp:0 [com.one]",
                                    "isGameApp:0 [com.three]", "isGameApp:0 []",
                                    "isGameApp:1 [com.game]",
                                    "isGameLayer:1 [SurfaceView[com.game/com.game.Unity]#3]",
                                    "isGameApp:0 []", "isGameLayer:0 [Wallpaper BBQ wrapper#0]",
                                    "GameWeight:7 [com.game]", "GameWeight:-1 []"}));
}

TEST_F(GameQueries, WeightUsesFeedbackExtnAboveHal22) {
    PerfProxy* proxy = proxyWithHal(2.3);
    perfd_stub::setGameWeight("com.game", 9);
    mLog.clear();
    EXPECT_EQ(proxy->getGameWeight("com.game"), 9);
    EXPECT_EQ(proxy->getGameWeight(""), -1);
    EXPECT_EQ(calls(),
              std::vector<std::string>{"perf_get_feedback_extn com.game{ 5633, 2 }{ 1, 0 }"});
    EXPECT_EQ(debugLines(),
              (std::vector<std::string>{"GameWeight:9 [com.game]", "GameWeight:-1 []"}));
}
