#include "Stats.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace pelyx_sim {

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
    std::sort(values.begin(), values.end());
    const double rank = std::clamp(p, 0.0, 100.0) / 100.0 * static_cast<double>(values.size() - 1);
    const size_t lo = static_cast<size_t>(std::floor(rank));
    const size_t hi = std::min(lo + 1, values.size() - 1);
    return values[lo] + (values[hi] - values[lo]) * (rank - static_cast<double>(lo));
}

int rateClass(double fps) {
    if (!(fps > 0)) return -1;
    if (fps <= 18) return static_cast<int>(std::lround(fps));
    static constexpr struct {
        double upTo;
        int mode;
    } kClasses[] = {{33, 30},  {48, 45},   {63, 60},   {78, 75},   {95, 90},
                    {123, 120}, {147, 144}, {168, 165}, {210, 185}, {260, 240}};
    for (const auto& c : kClasses) {
        if (fps <= c.upTo) return c.mode;
    }
    return -1;
}

int allowedVsyncs(double refreshHz, double cadenceFps) {
    if (!(cadenceFps > 0) || cadenceFps >= refreshHz) return 1;
    // A little slack so that 30 fps on a 60 Hz display allows exactly two.
    return std::max(1, static_cast<int>(std::ceil(refreshHz / cadenceFps - 0.05)));
}

bool JankCounter::onPresent(int64_t presentNs, int64_t vsyncPeriodNs, int allowed) {
    const int64_t last = mLastPresentNs;
    mLastPresentNs = presentNs;
    if (last < 0 || vsyncPeriodNs <= 0) return false;
    const int64_t gaps = (presentNs - last + vsyncPeriodNs / 2) / vsyncPeriodNs;
    if (gaps <= allowed) return false;
    ++mJanks;
    return true;
}

BoostCounts tallyBoosts(const std::vector<BoostRecord>& records) {
    BoostCounts counts;
    bool boosted = false;
    for (const BoostRecord& r : records) {
        switch (r.level) {
            case 0:
                if (boosted) ++counts.withdrawn;
                boosted = false;
                break;
            case 1:
                ++counts.level1;
                boosted = true;
                break;
            case 2:
                ++counts.level2;
                boosted = true;
                break;
            case 3:
                ++counts.level3;
                boosted = true;
                break;
            default:
                ++counts.other;
                break;
        }
    }
    return counts;
}

} // namespace pelyx_sim
