#pragma once

// Small measures the simulator reports: percentiles, the rate class of a frame rate, janks
// from present times, and the boost device's records counted by level. Plain functions and
// single-owner classes: no locking here.

#include <cstdint>
#include <vector>

namespace pelyx_sim {

// Percentile p (0..100) by linear interpolation between the closest ranks; NaN when empty.
double percentile(std::vector<double> values, double p);

// The display-like class of a frame rate, as the library classifies layers (the same table:
// up to 18 fps rounded, then 30, 45, 60, 75, 90, 120, 144, 165, 185, 240, above 260 none = -1).
int rateClass(double fps);

// How many vsyncs a frame may stay on screen before the next one counts as late: one at the
// display rate, two for 30 fps on 60 Hz or for 45 fps on 60 Hz (whose frames alternate).
int allowedVsyncs(double refreshHz, double cadenceFps);

// Counts the presents of one layer that missed their vsync: a present more than the allowed
// number of vsyncs after the previous one. Owned by the compositor thread.
class JankCounter {
public:
    // Returns whether this present was late. The first present is never late.
    bool onPresent(int64_t presentNs, int64_t vsyncPeriodNs, int allowed);
    int janks() const { return mJanks; }

private:
    int64_t mLastPresentNs = -1;
    int mJanks = 0;
};

// One record written to the boost device: {level, headroom, frequency}.
struct BoostRecord {
    int64_t timeNs = 0;
    int32_t level = 0;
    int32_t headroom = 0;
    int32_t frequency = 0;
};

struct BoostCounts {
    int level1 = 0;
    int level2 = 0;
    int level3 = 0;
    int withdrawn = 0;  // level-0 records that ended a boost (a level 1 to 3 before them)
    int other = 0;      // records with a level outside 0..3

    int total() const { return level1 + level2 + level3; }
};

BoostCounts tallyBoosts(const std::vector<BoostRecord>& records);

} // namespace pelyx_sim
