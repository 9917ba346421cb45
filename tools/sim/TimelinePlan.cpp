#include "TimelinePlan.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace pelyx_sim {
namespace {

constexpr int kHintTargetFps = 4171;
constexpr int kHintFrameRescue = 4189;
constexpr const char* kThermalHandler = "vn-core-thermalCallbackHandler";

int64_t toNs(double s) {
    return static_cast<int64_t>(std::llround(s * 1e9));
}

void addTouch(const TimelineEvent& e, int64_t atNs, std::vector<TimedAction>* out) {
    TimedAction a;
    a.kind = EventKind::Touch;
    a.layer = e.touch.layer;
    a.atNs = atNs;
    a.action = kActionDown;
    out->push_back(a);
    const int64_t end = atNs + toNs(e.touch.durationS);
    if (e.touch.gesture == Gesture::Drag) {
        const int64_t step = toNs(e.touch.intervalMs / 1000.0);
        for (int64_t t = atNs + step; t < end; t += step) {
            a.atNs = t;
            a.action = kActionMove;
            out->push_back(a);
        }
    }
    a.atNs = end;
    a.action = kActionUp;
    out->push_back(a);
}

// A table update as the library makes it: a global entry replaces the whole table, a package
// entry drops the global one; `set` false only removes.
template <typename T>
void update(std::map<std::string, T>* table, const std::string& pkg, bool set, const T& value) {
    if (pkg.empty()) {
        table->clear();
    } else {
        table->erase("");
        table->erase(pkg);
    }
    if (set) (*table)[pkg] = value;
}

} // namespace

std::vector<TimedAction> planTimeline(const Scenario& s) {
    std::vector<TimedAction> actions;
    for (const TimelineEvent& e : s.timeline) {
        for (int i = 0; i < e.count; ++i) {
            const int64_t at = toNs(e.atS + i * e.repeatEveryS);
            if (e.kind == EventKind::Touch) {
                addTouch(e, at, &actions);
                continue;
            }
            TimedAction a;
            a.atNs = at;
            a.kind = e.kind;
            a.hint = e.hint;
            a.property = e.property;
            actions.push_back(a);
        }
    }
    std::stable_sort(actions.begin(), actions.end(),
                     [](const TimedAction& a, const TimedAction& b) { return a.atNs < b.atNs; });
    return actions;
}

bool ServiceConfig::isNumeric(const std::string& text) {
    size_t i = text.empty() || text[0] != '-' ? 0 : 1;
    bool digit = false;
    bool point = false;
    for (; i < text.size(); ++i) {
        if (text[i] >= '0' && text[i] <= '9') {
            digit = true;
        } else if (text[i] == '.' && !point) {
            point = true;
        } else {
            return false;
        }
    }
    return digit;
}

void ServiceConfig::onHint(const HintEvent& hint) {
    if (hint.id == kHintTargetFps) {
        std::string pkg = hint.text;
        double rate = hint.value / 100.0;
        if (isNumeric(hint.text)) {
            pkg.clear();
            rate = strtod(hint.text.c_str(), nullptr);
        } else if (hint.text == kThermalHandler) {
            pkg.clear();
        }
        if (rate < 0 || rate > 240) return;  // refused by the library
        update(&mTargets, pkg, rate > 0, rate);
    } else if (hint.id == kHintFrameRescue && !hint.values.empty()) {
        const size_t colon = hint.text.find(':');
        const std::string pkg = colon == std::string::npos ? "" : hint.text.substr(0, colon);
        const int flag = hint.values[0];
        if (flag < 0 || flag > 2) return;
        update(&mFrameRescue, pkg, flag != 0, true);
    }
}

double ServiceConfig::targetFor(const std::string& package, bool game) const {
    auto it = mTargets.find(package);
    if (it != mTargets.end()) return it->second;
    if (game) {
        it = mTargets.find("");
        if (it != mTargets.end()) return it->second;
    }
    return 0;
}

bool ServiceConfig::frameRescueFor(const std::string& package, bool game) const {
    return mFrameRescue.count(package) > 0 || (game && mFrameRescue.count("") > 0);
}

} // namespace pelyx_sim
