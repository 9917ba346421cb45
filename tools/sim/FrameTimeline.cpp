#include "FrameTimeline.h"

#include <algorithm>
#include <cmath>

namespace pelyx_sim {

// A wait for a free buffer longer than this means the queue was full.
constexpr int64_t kStuffedWaitNs = 500'000;
constexpr int64_t kStartSlackNs = 1'000'000;

const char* causeName(LateCause cause) {
    switch (cause) {
        case LateCause::OnTime: return "on_time";
        case LateCause::AppDeadline: return "app_deadline";
        case LateCause::GpuLate: return "gpu_late";
        case LateCause::Composition: return "composition";
        case LateCause::BufferStuffing: return "buffer_stuffing";
    }
    return "?";
}

int64_t VsyncGrid::firstTickAtOrAfter(int64_t t) const {
    if (t <= originNs) return originNs;
    return originNs + (t - originNs + periodNs - 1) / periodNs * periodNs;
}

FrameVerdict judgeFrame(const Frame& frame, int64_t readyNs, int64_t presentNs, const VsyncGrid& grid,
                        const std::set<int64_t>& lateTicks) {
    FrameVerdict v;
    const int64_t period = grid.periodNs;
    // Whole vsyncs of frame time, with a little slack for a rate measured as 59.9 fps.
    // The first latch a frame time after the start (less a little for the app's wake-up after
    // a tick), wherever between two ticks the frame started.
    const int64_t earliest = frame.startNs + std::max(frame.intervalNs, period) - kStartSlackNs;
    v.deadlineTickNs = grid.firstTickAtOrAfter(earliest);
    v.expectedPresentNs = grid.presentOf(v.deadlineTickNs);
    const int64_t late = presentNs - v.expectedPresentNs;
    if (late < period / 2) return v;
    v.lateVsyncs = static_cast<int>((late + period / 2) / period);
    if (frame.queueNs > v.deadlineTickNs) {
        v.cause = frame.dequeueWaitNs > kStuffedWaitNs ? LateCause::BufferStuffing : LateCause::AppDeadline;
    } else if (readyNs > v.deadlineTickNs) {
        v.cause = LateCause::GpuLate;
    } else if (lateTicks.count(v.deadlineTickNs)) {
        v.cause = LateCause::Composition;
    } else {
        v.cause = LateCause::BufferStuffing;
    }
    return v;
}

void FrameTimelineCounts::add(const FrameVerdict& verdict) {
    if (verdict.cause == LateCause::OnTime) {
        ++onTime;
        return;
    }
    ++late;
    lateVsyncs += verdict.lateVsyncs;
    ++byCause[static_cast<size_t>(verdict.cause) - 1];
}

} // namespace pelyx_sim
