#pragma once

// The ranking of a sweep's settings over one or more entries (scenarios or captures), each
// against its baseline (the library disabled).
//
// The rule, best first:
//   1. a setting that failed on any entry comes last;
//   2. a setting that gives any entry more janks than the library disabled does ranks below
//      every setting that makes no entry worse;
//   3. then the fewest janks summed over the entries;
//   4. then the fewest entries without a touch-to-present figure, then the lowest p50 summed
//      over the entries that have one;
//   5. then the fewest boosts summed; then the sweep's own order of settings.
// Per entry the same rule applies to that entry alone; per game package to its entries.

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "Sweep.h"

namespace pelyx_sim {

// Figures of several runs (one setting's seeds, or its entries) as one: janks, late vsyncs and
// boosts summed; p50, p95, presented fps, hold p99 and CPU the mean of the runs that have them
// (NaN when none does).
SweepMetrics combineFigures(const std::vector<SweepMetrics>& parts);

// A setting's figures on each entry (combined over the seeds).
struct SettingFigures {
    std::vector<SweepMetrics> perEntry;
    bool failed = false;  // a run of it failed on one of the entries
    std::string error;    // the first failed run's
};

struct RankedSetting {
    size_t setting = 0;  // index into the figures ranked
    // Over the ranked entries: janks, late vsyncs and boosts summed; p50, p95, fps and hold p99
    // the mean of the entries with a figure.
    SweepMetrics total;
    int missingP50 = 0;
    double p50Sum = 0;
    std::vector<size_t> worseOn;  // indices into `entries`: janks above the baseline's
    bool failed = false;
    bool nonDominated = false;  // no other setting is better on p50, janks and boosts at once
    std::string error;
};

// Ranks `settings` on the entries listed in `entries` (indices into perEntry and `baseline`),
// best first, by the rule above.
std::vector<RankedSetting> rankSettings(const std::vector<SettingFigures>& settings,
                                        const std::vector<SweepMetrics>& baseline, const std::vector<size_t>& entries);

// The ranked settings as a table: one row each, `labels[setting]` in the last column.
void printRanking(const std::vector<RankedSetting>& ranked, const std::vector<std::string>& labels,
                  std::ostream& out);

} // namespace pelyx_sim
