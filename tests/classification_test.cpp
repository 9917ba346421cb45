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

// Backtracking ECMAScript engine on the same grammar. Only safe on short names: it recurses per
// character and goes quadratic on near misses.
std::string ecmaPackageName(std::string name) {
    static const std::regex sSurfaceView(R"((?:\w*\s*SurfaceView\[)([^/]+).*#\d+)",
                                         std::regex::ECMAScript);
    static const std::regex sInputMethod(R"(InputMethod#\d+)", std::regex::ECMAScript);
    if (name.compare(0, 4, "VRI-") == 0) name.erase(0, 4);
    std::smatch match;
    if (std::regex_match(name, match, sSurfaceView) && match[1].matched) return match[1].str();
    const size_t slash = name.find('/');
    if (slash != std::string::npos) return name.substr(0, slash);
    if (std::regex_match(name, sInputMethod)) return "UnknownKeyboard";
    return "";
}

bool ecmaSurfaceViewMatches(const std::string& name) {
    static const std::regex sSurfaceView(R"((?:\w*\s*SurfaceView\[)([^/]+).*#\d+)",
                                         std::regex::ECMAScript);
    return std::regex_match(name, sSurfaceView);
}

std::string printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            char buf[8];
            snprintf(buf, sizeof(buf), "\\x%02x", c);
            out += buf;
        }
    }
    return out;
}

const std::vector<std::string>& handPickedNames() {
    static const std::vector<std::string> sNames = {
            "SurfaceView[com.pkg/com.pkg.Activity]#123",
            "SurfaceView[com.foo/com.foo.Main](BLAST)#45",
            "VRI-com.a/com.a.B#1",
            "VRI-SurfaceView[com.v/com.v.A]#7",
            "VRI-",
            "VRI-VRI-com.z/x#1",
            "com.x/com.x.Y#0",
            "InputMethod#12",
            "InputMethod#",
            "InputMethod#12a",
            "InputMethod#1/2",
            "VRI-InputMethod#3",
            " InputMethod#3",
            "StatusBar#0",
            "",
            "/",
            "/leading#1",
            "SurfaceView[com.pkg/com.pkg.Activity]",
            "SurfaceView[com.pkg/com.pkg.Activity]#",
            "SurfaceView[com.pkg/com.pkg.Activity]#x1",
            "SurfaceView[com.pkg/com.pkg.Activity]#12 ",
            "SurfaceView[com.pkg]#12",
            "SurfaceView[]#12",
            "SurfaceView[/x]#12",
            "SurfaceView[#1",
            "SurfaceView[a#1",
            "Background for SurfaceView[com.pkg/com.pkg.Act]#9",
            "Bounds for - SurfaceView[com.pkg/com.pkg.Act]#9",
            "Background_for SurfaceView[com.pkg/com.pkg.Act]#9",
            "Foo \t\n SurfaceView[com.pkg/A]#9",
            "Foo\vSurfaceView[com.pkg/A]#9",
            "Foo\fSurfaceView[com.pkg/A]#9",
            "Foo\rSurfaceView[com.pkg/A]#9",
            "\xc2\xa0SurfaceView[com.pkg/A]#9",
            "SurfaceView[com.pkg/A\n]#9",
            "SurfaceView[com.pkg/A\r]#9",
            "SurfaceView[com.pkg/A\xe2\x80\xa8]#9",
            "SurfaceView[com.p\nkg/A]#9",
            "SurfaceView[com.p\rkg/A]#9",
            "SurfaceView[com.\xe6\xb8\xb8\xe6\x88\x8f/A]#9",
            "SurfaceView[\xff\xfe/A]#9",
            "SurfaceView[SurfaceView[com.nested/A]#1]#2",
            "SurfaceView[[com.b]]/x#3",
            "SurfaceView[com.pkg#5/A]#9",
            "SurfaceView[com.pkg]/A#9#x",
            "SurfaceView[com.pkg/A]#9#10",
            "surfaceview[com.pkg/A]#9",
            "SurfaceView(com.pkg/A)#9",
            "SurfaceView [com.pkg/A]#9",
            "xSurfaceView[com.pkg/A]#9",
            "x.SurfaceView[com.pkg/A]#9",
            "com.app/SurfaceView[com.pkg/A]#9",
            "com.app SurfaceView[com.pkg/A]#9",
            "com.android.systemui/com.android.systemui.ImageWallpaper#0",
            "Wallpaper BBQ wrapper#0",
            "Display 0 name=\"Built-in Screen\"#0",
            "com.a/b/c#1",
            "no hash at all",
            "#",
            "#12",
            std::string("SurfaceView[com.nul\0/A]#9", 25),
            std::string("com.nul\0pkg/A#1", 15),
            "SurfaceView[com.pkg/A]#\xd9\xa3", // an Arabic-Indic digit is not \d
            "SurfaceView[com.pkg/A]#\xef\xbc\x91", // nor is a full-width one
    };
    return sNames;
}

// Names built from the tokens that matter to the grammar; half of them start the way a
// SurfaceView name starts so that the capture and the tail are exercised, not just rejections.
std::vector<std::string> randomNames(size_t count) {
    static const std::vector<std::string> kTokens = {
            "SurfaceView[", "SurfaceView", "View[", "[", "]", "/", "#", "#1", "0", "42",
            "com.a", "x_y", "VRI-", "InputMethod", "InputMethod#", " ", "\t", "\n", "\r",
            "\v", "\f", "(BLAST)", "\xc3\xa9", "\xe2\x80\xa8", "\xff", "\x80", "\xa0", ".",
            "-", "$", "\\", "*"};
    static const std::vector<std::string> kHeads = {"", "VRI-", "Bg", "Bg ", "a_1\t", " ", "\v"};
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<size_t> token(0, kTokens.size() - 1);
    std::uniform_int_distribution<size_t> head(0, kHeads.size() - 1);
    std::uniform_int_distribution<int> length(0, 12);
    std::bernoulli_distribution coin(0.5);
    std::vector<std::string> names;
    names.reserve(count);
    while (names.size() < count) {
        std::string name;
        if (coin(rng)) name = kHeads[head(rng)] + "SurfaceView[";
        for (int i = length(rng); i > 0; --i) name += kTokens[token(rng)];
        if (coin(rng)) name += "#" + std::to_string(rng() % 1000);
        if (name.size() < 200) names.push_back(std::move(name));
    }
    return names;
}

} // namespace

TEST(PackageName, AgreesWithEcmaScriptOnRealisticNames) {
    for (const std::string& name : handPickedNames()) {
        EXPECT_EQ(packageOf(name), ecmaPackageName(name)) << "name: " << printable(name);
    }
}

TEST(PackageName, AgreesWithEcmaScriptOnGeneratedNames) {
    size_t surfaceViewMatches = 0;
    for (const std::string& name : randomNames(4000)) {
        const std::string expected = ecmaPackageName(name);
        ASSERT_EQ(packageOf(name), expected) << "name: " << printable(name);
        surfaceViewMatches += ecmaSurfaceViewMatches(
                name.compare(0, 4, "VRI-") == 0 ? name.substr(4) : name);
    }
    // The corpus is only worth something if the capture path is taken often.
    EXPECT_GT(surfaceViewMatches, 400u);
}

TEST(PackageName, ExtractsPackageFromEachForm) {
    EXPECT_EQ(packageOf("VRI-com.a/com.a.B#1"), "com.a");
    EXPECT_EQ(packageOf("SurfaceView[com.pkg/com.pkg.Activity]#123"), "com.pkg");
    EXPECT_EQ(packageOf("SurfaceView[com.foo/com.foo.Main](BLAST)#45"), "com.foo");
    EXPECT_EQ(packageOf("Background SurfaceView[com.bg/com.bg.A]#2"), "com.bg");
    // Only one word may precede the marker; otherwise the '/' split decides.
    EXPECT_EQ(packageOf("Background for SurfaceView[com.bg/com.bg.A]#2"),
              "Background for SurfaceView[com.bg");
    EXPECT_EQ(packageOf("com.x/com.x.Y#0"), "com.x");
    EXPECT_EQ(packageOf("InputMethod#12"), "UnknownKeyboard");
    EXPECT_EQ(packageOf("VRI-InputMethod#12"), "UnknownKeyboard");
    // A SurfaceView name without a '/' keeps everything up to the last '#<digits>'.
    EXPECT_EQ(packageOf("SurfaceView[com.pkg]#12"), "com.pkg]");
    // Failing the SurfaceView form falls back to the text before the first '/'.
    EXPECT_EQ(packageOf("SurfaceView[com.pkg/A]"), "SurfaceView[com.pkg");
    // '.' stops at line breaks, so the tail cannot span one and the '/' split takes over.
    EXPECT_EQ(packageOf("SurfaceView[com.pkg/A\n]#9"), "SurfaceView[com.pkg");
    EXPECT_EQ(packageOf("SurfaceView[com.pkg/A\r]#9"), "SurfaceView[com.pkg");
    // ... but the package part may hold one, and '\v' counts as leading space.
    EXPECT_EQ(packageOf("SurfaceView[com.p\nkg/A]#9"), "com.p\nkg");
    EXPECT_EQ(packageOf("Foo\vSurfaceView[com.pkg/A]#9"), "com.pkg");
    // Bytes that are not UTF-8 are still matched.
    EXPECT_EQ(packageOf("SurfaceView[\xff\xfe/A]#9"), "\xff\xfe");

    EXPECT_EQ(packageOf(""), "");
    EXPECT_EQ(packageOf("VRI-"), "");
    EXPECT_EQ(packageOf("StatusBar#0"), "");
    EXPECT_EQ(packageOf("InputMethod#"), "");
    EXPECT_EQ(packageOf("InputMethod#1a"), "");
    EXPECT_EQ(packageOf(" InputMethod#1"), "");
}

// App-chosen names of a megabyte must not crash, recurse or take long. The bound is about ten
// times the slowest case measured under ASan or TSan (about 70 ms, the megabyte capture).
TEST(PackageName, HostileNamesStayCheap) {
    const size_t kMiB = 1 << 20;
    std::string repeated;
    while (repeated.size() < kMiB) repeated += "SurfaceView[";
    const std::string plain(kMiB, 'a');
    const std::string captureAll = "SurfaceView[" + std::string(kMiB, 'p') + "#1";
    const std::string nearMiss = "SurfaceView[" + std::string(kMiB, '#') + "#";
    const std::string slashAtEnd = plain + "/x#1";

    struct Case {
        const char* what;
        const std::string& name;
        std::string expected;
    };
    const Case cases[] = {
            {"plain", plain, ""},
            {"repeated SurfaceView[", repeated, ""},
            {"repeated SurfaceView[ with a tail", repeated + "#1", repeated.substr(12)},
            {"megabyte capture", captureAll, std::string(kMiB, 'p')},
            {"near miss", nearMiss, ""},
            {"slash at the end", slashAtEnd, plain},
    };
    for (const Case& c : cases) {
        const auto start = std::chrono::steady_clock::now();
        const std::string package = packageOf(c.name);
        const auto elapsedMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::steady_clock::now() - start)
                                       .count();
        EXPECT_TRUE(package == c.expected) << c.what << ": got " << package.size() << " bytes";
        EXPECT_LT(elapsedMs, 700) << c.what;
    }
}

TEST(LayerSceneTag, TagsMiniGamesInsideTheirHostApps) {
    PerfProxy* proxy = PerfProxy::getInstance();
    EXPECT_EQ(proxy->getLayerSceneTag("com.ss.android.ugc.aweme", "SurfaceView[minigame]#1"),
              "minigame");
    EXPECT_EQ(proxy->getLayerSceneTag("com.ss.android.ugc.aweme", "SurfaceView[MiniGame]#1"), "");
    EXPECT_EQ(proxy->getLayerSceneTag("com.ss.android.ugc.aweme", "AppBrandUI SurfaceView#1"),
              "");
    EXPECT_EQ(proxy->getLayerSceneTag("com.tencent.mm",
                                      "SurfaceView[com.tencent.mm/AppBrandUI1]#4"),
              "minigame");
    EXPECT_EQ(proxy->getLayerSceneTag("com.tencent.mm", "com.tencent.mm/AppBrandUI1#4"), "");
    EXPECT_EQ(proxy->getLayerSceneTag("com.tencent.mm", "SurfaceView[com.tencent.mm/Main]#4"), "");
    EXPECT_EQ(proxy->getLayerSceneTag("com.tencent.mm", "minigame SurfaceView#1"), "");
    EXPECT_EQ(proxy->getLayerSceneTag("com.other", "AppBrandUI SurfaceView minigame#1"), "");
    EXPECT_EQ(proxy->getLayerSceneTag("", "minigame"), "");
}

TEST(FpsMode, MapsEachBandIncludingItsUpperBound) {
    const float kInf = std::numeric_limits<float>::infinity();
    const auto above = [&](float bound) { return std::nextafter(bound, kInf); };
    struct Band {
        float upTo;
        int mode;
        int nextMode;
    };
    const Band bands[] = {{33, 30, 45},   {48, 45, 60},   {63, 60, 75},   {78, 75, 90},
                          {95, 90, 120},  {123, 120, 144}, {147, 144, 165}, {168, 165, 185},
                          {210, 185, 240}, {260, 240, -1}};
    for (const Band& band : bands) {
        EXPECT_EQ(PerfProxy::getFpsMode(band.upTo), band.mode) << band.upTo;
        EXPECT_EQ(PerfProxy::getFpsMode(above(band.upTo)), band.nextMode) << band.upTo;
    }
    EXPECT_EQ(PerfProxy::getFpsMode(18.0f), 18);
    EXPECT_EQ(PerfProxy::getFpsMode(above(18.0f)), 30);
    EXPECT_EQ(PerfProxy::getFpsMode(18.2f), 30);
    EXPECT_EQ(PerfProxy::getFpsMode(180.0f), 185);
    EXPECT_EQ(PerfProxy::getFpsMode(260.01f), -1);
    EXPECT_EQ(PerfProxy::getFpsMode(kInf), -1);
}

TEST(FpsMode, RoundsLowRatesHalfAwayFromZero) {
    EXPECT_EQ(PerfProxy::getFpsMode(17.5f), 18);
    EXPECT_EQ(PerfProxy::getFpsMode(17.49f), 17);
    EXPECT_EQ(PerfProxy::getFpsMode(2.5f), 3);
    EXPECT_EQ(PerfProxy::getFpsMode(0.5f), 1);
    EXPECT_EQ(PerfProxy::getFpsMode(0.3f), 0);
    EXPECT_EQ(PerfProxy::getFpsMode(std::numeric_limits<float>::denorm_min()), 0);
}

TEST(FpsMode, RefusesNonPositiveAndNaN) {
    EXPECT_EQ(PerfProxy::getFpsMode(0.0f), -1);
    EXPECT_EQ(PerfProxy::getFpsMode(-0.0f), -1);
    EXPECT_EQ(PerfProxy::getFpsMode(-0.5f), -1);
    EXPECT_EQ(PerfProxy::getFpsMode(-60.0f), -1);
    EXPECT_EQ(PerfProxy::getFpsMode(-std::numeric_limits<float>::infinity()), -1);
    EXPECT_EQ(PerfProxy::getFpsMode(std::numeric_limits<float>::quiet_NaN()), -1);
    EXPECT_EQ(PerfProxy::getFpsMode(-std::numeric_limits<float>::quiet_NaN()), -1);
}

TEST(VsyncMode, EachRangeTakesItsFirstValueAndStopsBeforeItsEnd) {
    struct Range {
        int64_t first;
        int64_t end;
        int mode;
    };
    const Range ranges[] = {{15'000'001, 18'000'000, 60}, {12'500'001, 14'900'000, 75},
                            {10'500'001, 11'700'000, 90}, {8'000'001, 9'000'000, 120},
                            {6'800'001, 7'700'000, 144},  {5'800'001, 6'500'000, 165},
                            {4'800'001, 5'600'000, 185},  {3'800'001, 4'600'000, 240}};
    for (const Range& r : ranges) {
        EXPECT_EQ(PerfProxy::setVsyncMode(r.first - 1), 0) << r.first;
        EXPECT_EQ(PerfProxy::setVsyncMode(r.first), r.mode) << r.first;
        EXPECT_EQ(PerfProxy::setVsyncMode(r.end - 1), r.mode) << r.end;
        EXPECT_EQ(PerfProxy::setVsyncMode(r.end), 0) << r.end;
    }
}

TEST(VsyncMode, MapsPanelPeriods) {
    EXPECT_EQ(PerfProxy::setVsyncMode(16'666'667), 60);
    EXPECT_EQ(PerfProxy::setVsyncMode(15'000'000), 0);
    EXPECT_EQ(PerfProxy::setVsyncMode(13'333'333), 75);
    EXPECT_EQ(PerfProxy::setVsyncMode(11'111'111), 90);
    EXPECT_EQ(PerfProxy::setVsyncMode(8'333'333), 120);
    EXPECT_EQ(PerfProxy::setVsyncMode(6'944'444), 144);
    EXPECT_EQ(PerfProxy::setVsyncMode(6'060'606), 165);
    EXPECT_EQ(PerfProxy::setVsyncMode(5'405'405), 185);
    EXPECT_EQ(PerfProxy::setVsyncMode(4'166'667), 240);
    EXPECT_EQ(PerfProxy::setVsyncMode(33'333'333), 0);
    EXPECT_EQ(PerfProxy::setVsyncMode(0), 0);
    EXPECT_EQ(PerfProxy::setVsyncMode(-16'666'667), 0);
    EXPECT_EQ(PerfProxy::setVsyncMode(std::numeric_limits<int64_t>::max()), 0);
    EXPECT_EQ(PerfProxy::setVsyncMode(std::numeric_limits<int64_t>::min()), 0);
}

TEST(NumericString, AcceptsSignedDecimals) {
    for (const char* text : {"0", "60", "-1", "1.", ".5", "-1.5", "-.5", "007", "123456789012"}) {
        EXPECT_TRUE(PerfProxy::isNumericString(text)) << text;
    }
}

TEST(NumericString, RefusesEverythingElse) {
    for (const char* text : {"", "-", ".", "-.", "1.2.3", "..1", "12a", "a12", "--1", "1-", "+1",
                             " 1", "1 ", "1e3", "0x10", "\xd9\xa3"}) {
        EXPECT_FALSE(PerfProxy::isNumericString(text)) << text;
    }
    EXPECT_FALSE(PerfProxy::isNumericString(std::string("1\0", 2)));
}

class GameQueries : public ::testing::Test {
protected:
    void SetUp() override {
        perfd_stub::reset();
        PerfProxy::setDebuggable(true, false);
    }

    // The HAL version is read once, when the proxy is created.
    PerfProxy* proxyWithHal(double version) {
        perfd_stub::setHalVersion(version);
        PerfProxy* proxy = PerfProxy::getInstance();
        perfd_stub::clearCalls();
        mLog.clear();
        return proxy;
    }

    size_t debugLines(const std::string& message) const {
        return mLog.count("Pelyx", ANDROID_LOG_DEBUG, message);
    }

    LogCapture mLog;
};

TEST_F(GameQueries, GameAppIsExactlyAnswerTwo) {
    PerfProxy* proxy = proxyWithHal(2.2);
    perfd_stub::setGame("com.game", true);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "com.one", 1);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "com.three", 3);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "com.err", -1);

    EXPECT_TRUE(proxy->isGameApp("com.game"));
    EXPECT_FALSE(proxy->isGameApp("com.plain"));
    EXPECT_FALSE(proxy->isGameApp("com.one"));
    EXPECT_FALSE(proxy->isGameApp("com.three"));
    EXPECT_FALSE(proxy->isGameApp("com.err"));

    const auto calls = perfd_stub::calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0].fn, "perf_get_feedback");
    EXPECT_EQ(calls[0].pkg, "com.game");
    EXPECT_EQ(calls[0].ints, std::vector<int>{perfd_stub::kGameQuery});
    EXPECT_EQ(debugLines("isGameApp:1 [com.game]"), 1u);
    EXPECT_EQ(debugLines("isGameApp:0 [com.plain]"), 1u);
    EXPECT_EQ(debugLines("isGameApp:0 [com.three]"), 1u);
}

TEST_F(GameQueries, EmptyPackageIsNoGameWithoutAsking) {
    PerfProxy* proxy = proxyWithHal(2.2);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "", 2);
    EXPECT_FALSE(proxy->isGameApp(""));
    EXPECT_EQ(perfd_stub::countCalls("perf_get_feedback"), 0u);
    EXPECT_EQ(debugLines("isGameApp:0 []"), 1u);
}

TEST_F(GameQueries, GameLayerAsksForTheLayersPackage) {
    PerfProxy* proxy = proxyWithHal(2.2);
    perfd_stub::setGame("com.game", true);
    const std::string layer = "SurfaceView[com.game/com.game.Unity]#3";

    EXPECT_TRUE(proxy->isGameLayer(layer));
    EXPECT_FALSE(proxy->isGameLayer("com.plain/com.plain.Main#2"));

    const auto calls = perfd_stub::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].pkg, "com.game");
    EXPECT_EQ(calls[1].pkg, "com.plain");

    std::vector<std::string> messages;
    for (const auto& line : mLog.lines()) {
        if (line.tag == "Pelyx" && line.priority == ANDROID_LOG_DEBUG) {
            messages.push_back(line.message);
        }
    }
    const std::vector<std::string> expected = {
            "isGameApp:1 [com.game]", "isGameLayer:1 [" + layer + "]",
            "isGameApp:0 [com.plain]", "isGameLayer:0 [com.plain/com.plain.Main#2]"};
    EXPECT_EQ(messages, expected);
}

TEST_F(GameQueries, LayerWithoutPackageIsNoGame) {
    PerfProxy* proxy = proxyWithHal(2.2);
    perfd_stub::setFeedback(perfd_stub::kGameQuery, "", 2);
    EXPECT_FALSE(proxy->isGameLayer("Wallpaper BBQ wrapper#0"));
    EXPECT_EQ(perfd_stub::countCalls("perf_get_feedback"), 0u);
    EXPECT_EQ(debugLines("isGameApp:0 []"), 1u);
    EXPECT_EQ(debugLines("isGameLayer:0 [Wallpaper BBQ wrapper#0]"), 1u);
}

TEST_F(GameQueries, WeightUsesHintUpToHal22) {
    PerfProxy* proxy = proxyWithHal(2.2);
    perfd_stub::setGameWeight("com.game", 7);
    perfd_stub::setGameWeight("com.err", -1);

    EXPECT_EQ(proxy->getGameWeight("com.game"), 7);
    EXPECT_EQ(proxy->getGameWeight("com.err"), -1);

    const auto calls = perfd_stub::calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].fn, "perf_hint");
    EXPECT_EQ(calls[0].pkg, "com.game");
    EXPECT_EQ(calls[0].ints, (std::vector<int>{perfd_stub::kGameQuery, 0, 1}));
    EXPECT_EQ(perfd_stub::countCalls("perf_get_feedback_extn"), 0u);
    EXPECT_EQ(debugLines("GameWeight:7 [com.game]"), 1u);
    EXPECT_EQ(debugLines("GameWeight:-1 [com.err]"), 1u);
}

TEST_F(GameQueries, WeightUsesFeedbackExtnAboveHal22) {
    PerfProxy* proxy = proxyWithHal(2.3);
    ASSERT_GT(proxy->halVersion(), 2.2);
    perfd_stub::setGameWeight("com.game", 9);

    EXPECT_EQ(proxy->getGameWeight("com.game"), 9);

    const auto calls = perfd_stub::calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].fn, "perf_get_feedback_extn");
    EXPECT_EQ(calls[0].pkg, "com.game");
    EXPECT_EQ(calls[0].ints, (std::vector<int>{perfd_stub::kGameQuery, 2}));
    EXPECT_EQ(calls[0].args, (std::vector<int>{1, 0}));
    EXPECT_EQ(debugLines("GameWeight:9 [com.game]"), 1u);
}

TEST_F(GameQueries, EmptyPackageHasNoWeight) {
    PerfProxy* proxy = proxyWithHal(3.0);
    perfd_stub::setGameWeight("", 5);
    EXPECT_EQ(proxy->getGameWeight(""), -1);
    EXPECT_TRUE(perfd_stub::calls().empty());
    EXPECT_EQ(debugLines("GameWeight:-1 []"), 1u);
}
