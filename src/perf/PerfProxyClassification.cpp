// Layer-name classification, game queries and refresh-mode tables of PerfProxy.

#define LOG_TAG "Pelyx"

#include <log/log.h>
#include <re2/re2.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "perf/PerfProxy.h"

namespace android {

namespace {

constexpr int kGameFeedbackRequest = 5633;
constexpr int kGameAnswer = 2;
constexpr double kFeedbackExtnMinHalVersion = 2.2;

constexpr char kViewRootPrefix[] = "VRI-";
constexpr char kSurfaceViewMarker[] = "SurfaceView[";
constexpr char kInputMethodPrefix[] = "InputMethod#";
constexpr char kUnknownKeyboard[] = "UnknownKeyboard";

// The SurfaceView layer-name grammar, "(?:\w*\s*SurfaceView\[)([^/]+).*#\d+" in ECMAScript terms,
// spelled so that RE2 matches exactly what an ECMAScript engine matches on bytes: '\s' there also
// takes '\v' (RE2's does not), '.' stops at '\r' as well as '\n', and a negated class such as
// [^/] takes line breaks in both. The text is Latin-1 so that any byte sequence an app picks is
// matchable; RE2 runs in linear time and bounded memory whatever the name's length or shape.
constexpr char kSurfaceViewPattern[] =
        "(?:[0-9A-Za-z_]*[\\t\\n\\v\\f\\r ]*SurfaceView\\[)([^/]+)[^\\n\\r]*#[0-9]+";

// DFA cache budget. The pattern is tiny; when a hostile name exhausts the cache RE2 falls back to
// its NFA, which is still linear, so a small budget bounds memory without risking wrong answers.
constexpr int64_t kSurfaceViewMaxMem = 1 << 20;

const RE2* surfaceViewExpression() {
    static const RE2* const sExpression = [] {
        RE2::Options options;
        options.set_encoding(RE2::Options::EncodingLatin1);
        options.set_max_mem(kSurfaceViewMaxMem);
        options.set_log_errors(false);
        auto* re = new RE2(kSurfaceViewPattern, options);
        if (!re->ok()) {
            ALOGE("Layer-name expression rejected: %s", re->error().c_str());
        }
        return re;
    }();
    return sExpression->ok() ? sExpression : nullptr;
}

bool isAsciiDigit(char c) {
    return c >= '0' && c <= '9';
}

// "InputMethod#" followed by one or more digits and nothing else.
bool isInputMethodName(re2::StringPiece name) {
    constexpr size_t kPrefixLength = sizeof(kInputMethodPrefix) - 1;
    if (name.size() <= kPrefixLength || !name.starts_with(kInputMethodPrefix)) {
        return false;
    }
    for (size_t i = kPrefixLength; i < name.size(); ++i) {
        if (!isAsciiDigit(name[i])) return false;
    }
    return true;
}

} // namespace

std::string_view PerfProxy::layerNameView(const char* name) {
    if (name == nullptr) return {};
    return std::string_view(name, strnlen(name, kMaxLayerNameBytes));
}

std::string PerfProxy::getPackageName(std::string_view layerName) {
    constexpr size_t kPrefixLength = sizeof(kViewRootPrefix) - 1;
    layerName = layerName.substr(0, kMaxLayerNameBytes);
    re2::StringPiece name(layerName.data(), layerName.size());
    if (name.starts_with(kViewRootPrefix)) name.remove_prefix(kPrefixLength);

    // Most layer names carry no SurfaceView marker; the literal is required by the expression, so
    // skipping the match for them changes no answer.
    if (name.find(kSurfaceViewMarker) != re2::StringPiece::npos) {
        if (const RE2* expression = surfaceViewExpression()) {
            // Without a capture RE2 decides with its DFA, at memory speed; tracking the capture
            // costs tens of times more, so it only runs on a name that matches.
            re2::StringPiece package;
            if (RE2::FullMatch(name, *expression) && RE2::FullMatch(name, *expression, &package)) {
                return std::string(package.data(), package.size());
            }
        }
    }

    const size_t slash = name.find('/');
    if (slash != re2::StringPiece::npos) {
        return std::string(name.data(), slash);
    }
    if (isInputMethodName(name)) {
        return kUnknownKeyboard;
    }
    return {};
}

std::string PerfProxy::getLayerSceneTag(const std::string& pkg, std::string_view layerName) {
    layerName = layerName.substr(0, kMaxLayerNameBytes);
    // Mini-games run inside these two host apps; only the layer name tells them apart.
    if (pkg == "com.ss.android.ugc.aweme") {
        if (layerName.find("minigame") != std::string_view::npos) return "minigame";
    } else if (pkg == "com.tencent.mm") {
        if (layerName.find("AppBrandUI") != std::string_view::npos &&
            layerName.find("SurfaceView") != std::string_view::npos) {
            return "minigame";
        }
    }
    return {};
}

bool PerfProxy::isGameApp(const std::string& pkg) {
    // A missing service call answers -1, which is not a game.
    const bool game =
            !pkg.empty() && perfGetFeedback(kGameFeedbackRequest, pkg.c_str()) == kGameAnswer;
    XLOGD("Pelyx", "isGameApp:%d [%s]", game, pkg.c_str());
    return game;
}

bool PerfProxy::isGameLayer(const std::string& layerName) {
    const bool game = isGameApp(getPackageName(layerName));
    XLOGD("Pelyx", "isGameLayer:%d [%s]", game, layerName.c_str());
    return game;
}

int PerfProxy::getGameWeight(const std::string& pkg) {
    int weight = -1;
    if (!pkg.empty()) {
        if (halVersion() > kFeedbackExtnMinHalVersion) {
            int args[2] = {1, 0};
            weight = perfGetFeedbackExtn(kGameFeedbackRequest, pkg.c_str(), 2, args);
        } else {
            weight = perfHint(kGameFeedbackRequest, pkg.c_str(), 0, 1);
        }
    }
    XLOGD("Pelyx", "GameWeight:%d [%s]", weight, pkg.c_str());
    return weight;
}

bool PerfProxy::isNumericString(const std::string& text) {
    // At least one digit is required, which is what refuses "", "-", "." and "-.".
    size_t i = (!text.empty() && text[0] == '-') ? 1 : 0;
    bool sawDigit = false;
    bool sawPoint = false;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '.') {
            if (sawPoint) return false;
            sawPoint = true;
        } else if (isAsciiDigit(c)) {
            sawDigit = true;
        } else {
            return false;
        }
    }
    return sawDigit;
}

int PerfProxy::getFpsMode(float fps) {
    if (std::isnan(fps) || fps <= 0.0f) return -1;
    // Low rates are reported as they are; the rest snap to the refresh modes a panel offers.
    if (fps <= 18.0f) return static_cast<int>(std::lround(fps));
    if (fps <= 33.0f) return 30;
    if (fps <= 48.0f) return 45;
    if (fps <= 63.0f) return 60;
    if (fps <= 78.0f) return 75;
    if (fps <= 95.0f) return 90;
    if (fps <= 123.0f) return 120;
    if (fps <= 147.0f) return 144;
    if (fps <= 168.0f) return 165;
    if (fps <= 210.0f) return 185; // deliberately not 180: the 185 mode covers 168..210
    if (fps <= 260.0f) return 240;
    return -1;
}

int PerfProxy::setVsyncMode(int64_t vsyncPeriodNs) {
    struct Range {
        int64_t firstNs; // included
        int64_t endNs;   // excluded
        int mode;
    };
    static constexpr Range kRanges[] = {
            {15'000'001, 18'000'000, 60},  {12'500'001, 14'900'000, 75},
            {10'500'001, 11'700'000, 90},  {8'000'001, 9'000'000, 120},
            {6'800'001, 7'700'000, 144},   {5'800'001, 6'500'000, 165},
            {4'800'001, 5'600'000, 185},   {3'800'001, 4'600'000, 240},
    };
    for (const Range& range : kRanges) {
        if (vsyncPeriodNs >= range.firstNs && vsyncPeriodNs < range.endNs) return range.mode;
    }
    return 0;
}

} // namespace android
