#include "FrameTimeline.h"

namespace pelyx_sim {

// A wait for a free buffer longer than this means the queue was full.
constexpr int64_t kStuffedWaitNs = 500'000;

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
    if (t <= originNs + periodNs) return originNs + periodNs;
    return originNs + (t - originNs + periodNs - 1) / periodNs * periodNs;
}

FrameVerdict judgeFrame(const Frame& frame, int64_t readyNs, int64_t presentNs, const VsyncGrid& grid,
                        const std::set<int64_t>& lateTicks) {
    FrameVerdict v;
    const int64_t period = grid.periodNs;
    const int64_t deadline = frame.intendedTickNs;
    v.expectedPresentNs = grid.presentOf(deadline);
    const int64_t late = presentNs - v.expectedPresentNs;
    if (late < period / 2) return v;
    v.lateNs = late;
    v.lateVsyncs = static_cast<int>((late + period / 2) / period);
    const bool waitedForBuffer = frame.dequeueWaitNs > kStuffedWaitNs;
    if (frame.queueEnterNs > deadline) {
        v.cause = waitedForBuffer ? LateCause::BufferStuffing : LateCause::AppDeadline;
    } else if (frame.gpuWorkNs > 0 && readyNs > deadline) {
        v.cause = LateCause::GpuLate;
    } else if (frame.queueNs > deadline || lateTicks.count(deadline)) {
        v.cause = LateCause::Composition;
    } else if (frame.queuedAhead > 0 || waitedForBuffer) {
        v.cause = LateCause::BufferStuffing;
    } else {
        // Ready and first in line, yet not latched: the compositor's doing.
        v.cause = LateCause::Composition;
    }
    return v;
}

void FrameTimelineCounts::add(const FrameVerdict& verdict) {
    switch (verdict.cause) {
        case LateCause::OnTime:
            ++onTime;
            return;
        case LateCause::BufferStuffing:
            stuffedLateMs.push_back(static_cast<double>(verdict.lateNs) / 1e6);
            return;
        default:
            ++late;
            lateVsyncs += verdict.lateVsyncs;
            ++byCause[static_cast<size_t>(verdict.cause) - 1];
    }
}

} // namespace pelyx_sim
