#include "SweepRank.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>
#include <tuple>

namespace pelyx_sim {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Means of the values that are numbers, NaN when none is.
struct Mean {
    double sum = 0;
    int n = 0;
    void add(double v) {
        if (!std::isnan(v)) sum += v, ++n;
    }
    double value() const { return n == 0 ? kNaN : sum / n; }
};

} // namespace

SweepMetrics combineFigures(const std::vector<SweepMetrics>& parts) {
    SweepMetrics m;
    Mean p50, p95, fps, hold, cpu;
    for (const SweepMetrics& s : parts) {
        m.late += s.late, m.lateVsyncs += s.lateVsyncs;
        for (int level = 0; level < 3; ++level) m.boosts[level] += s.boosts[level];
        p50.add(s.p50Ms), p95.add(s.p95Ms), fps.add(s.presentedFps), hold.add(s.holdP99Ms), cpu.add(s.libraryCpuMsPerS);
    }
    m.p50Ms = p50.value(), m.p95Ms = p95.value(), m.presentedFps = fps.value(), m.holdP99Ms = hold.value();
    m.libraryCpuMsPerS = cpu.value();
    return m;
}

std::vector<RankedSetting> rankSettings(const std::vector<SettingFigures>& settings,
                                        const std::vector<SweepMetrics>& baseline, const std::vector<size_t>& entries) {
    std::vector<RankedSetting> ranked;
    for (size_t s = 0; s < settings.size(); ++s) {
        RankedSetting r;
        r.setting = s;
        r.failed = settings[s].failed;
        r.error = settings[s].error;
        std::vector<SweepMetrics> parts;
        for (size_t e : entries) {
            const SweepMetrics& m = settings[s].perEntry[e];
            parts.push_back(m);
            if (std::isnan(m.p50Ms)) {
                ++r.missingP50;
            } else {
                r.p50Sum += m.p50Ms;
            }
            if (m.late > baseline[e].late) r.worseOn.push_back(e);
        }
        r.total = combineFigures(parts);
        ranked.push_back(r);
    }
    for (RankedSetting& r : ranked) {
        r.nonDominated = !r.failed;
        for (const RankedSetting& other : ranked) {
            if (!r.failed && !other.failed && dominates(other.total, r.total)) r.nonDominated = false;
        }
    }
    auto key = [](const RankedSetting& r) {
        return std::make_tuple(r.failed, !r.worseOn.empty(), r.total.late, r.missingP50, r.p50Sum, r.total.boostTotal(),
                               r.setting);
    };
    std::sort(ranked.begin(), ranked.end(),
              [&](const RankedSetting& a, const RankedSetting& b) { return key(a) < key(b); });
    return ranked;
}

void printRanking(const std::vector<RankedSetting>& ranked, const std::vector<std::string>& labels,
                  std::ostream& out) {
    auto f = [](const char* format, double v) {
        if (std::isnan(v)) return std::string("-");
        char text[32];
        snprintf(text, sizeof(text), format, v);
        return std::string(text);
    };
    char line[640];
    snprintf(line, sizeof(line), "%-5s %-2s %8s %8s %6s %7s %6s %-12s %8s %7s %5s  %s\n", "rank", "", "p50 ms",
             "p95 ms", "janks", "vsyncs", "fps", "boosts", "hold p99", "cpu/s", "worse", "setting");
    out << line;
    int rank = 0;
    for (const RankedSetting& r : ranked) {
        const SweepMetrics& m = r.total;
        if (r.failed) {
            snprintf(line, sizeof(line), "%-5s %-2s %s  %s  (%s)\n", "-", "", "failed:", r.error.c_str(),
                     labels[r.setting].c_str());
            out << line;
            continue;
        }
        const std::string boosts = std::to_string(m.boosts[0]) + "/" + std::to_string(m.boosts[1]) + "/" +
                std::to_string(m.boosts[2]);
        snprintf(line, sizeof(line), "%-5d %-2s %8s %8s %6d %7d %6s %-12s %8s %7s %5s  %s\n", ++rank,
                 r.nonDominated ? "*" : "", f("%.1f", m.p50Ms).c_str(), f("%.1f", m.p95Ms).c_str(), m.late,
                 m.lateVsyncs, f("%.1f", m.presentedFps).c_str(), boosts.c_str(), f("%.1f", m.holdP99Ms).c_str(),
                 f("%.2f", m.libraryCpuMsPerS).c_str(), r.worseOn.empty() ? "" : std::to_string(r.worseOn.size()).c_str(),
                 labels[r.setting].c_str());
        out << line;
    }
}

} // namespace pelyx_sim
