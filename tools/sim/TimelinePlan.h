#pragma once

// The scenario's timeline unrolled into single timed actions (repeats expanded, gestures turned
// into their touch events), and what the pushed configuration means for the simulator's own
// bookkeeping. Plain values and single-owner classes; the timeline thread uses them.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Scenario.h"

namespace pelyx_sim {

// Motion-event action codes.
constexpr int kActionDown = 0;
constexpr int kActionUp = 1;
constexpr int kActionMove = 2;

struct TimedAction {
    int64_t atNs = 0;  // from the run's start
    EventKind kind = EventKind::Hint;
    HintEvent hint;
    PropertyEvent property;
    std::string layer;  // touch: the layer's label
    int action = kActionDown;
};

// Sorted by time; actions at the same time keep the scenario's order.
std::vector<TimedAction> planTimeline(const Scenario& scenario);

// The target rates and frame-rescue entries the service has pushed, kept with the library's
// table rules (a package entry drops the global one; a global entry replaces all; a game falls
// back to the global entry), so that the simulator knows which target a layer runs under and
// which layers frame rescue may boost. Only hints the library accepted should be fed in.
class ServiceConfig {
public:
    void onHint(const HintEvent& hint);

    // 0 when no target applies.
    double targetFor(const std::string& package, bool game) const;
    bool frameRescueFor(const std::string& package, bool game) const;

    static bool isNumeric(const std::string& text);

private:
    std::map<std::string, double> mTargets;  // "" is the global entry
    std::map<std::string, bool> mFrameRescue;
};

} // namespace pelyx_sim
