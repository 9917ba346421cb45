#pragma once

// Judges each presented frame against when it was expected on screen, the way a frame timeline
// does: a frame is expected to be latched at the first tick a frame time (the app's target, cap
// or rate) after its start, and shown at that latch's present. A frame shown later is late by whole vsyncs, for the first cause that
// applies: the app queued it after that latch (its deadline), its GPU work had not finished,
// the compositor missed the latch, or older frames stood before it in the queue (buffer
// stuffing; also when the app had waited for a free buffer). Plain functions and values.

#include <array>
#include <cstdint>
#include <set>

#include "BufferQueue.h"

namespace pelyx_sim {

enum class LateCause { OnTime, AppDeadline, GpuLate, Composition, BufferStuffing };
constexpr int kLateCauses = 4;  // the causes after OnTime

// "on_time", "app_deadline", "gpu_late", "composition", "buffer_stuffing".
const char* causeName(LateCause cause);

// The compositor's ticks are at originNs + n·periodNs (n ≥ 1): each signals a vsync to the
// library and latches; what a tick latches is shown latchOffsetNs + (presentDelay - 1) periods
// later.
struct VsyncGrid {
    int64_t originNs = 0;
    int64_t periodNs = 16'666'667;
    int64_t latchOffsetNs = 0;
    int presentDelay = 1;

    int64_t firstTickAtOrAfter(int64_t t) const;
    int64_t presentOf(int64_t tickNs) const {
        return tickNs + latchOffsetNs + (presentDelay - 1) * periodNs;
    }
};

struct FrameVerdict {
    int64_t deadlineTickNs = 0;
    int64_t expectedPresentNs = 0;
    LateCause cause = LateCause::OnTime;
    int lateVsyncs = 0;
};

// `readyNs`: when its GPU work ended (the queue time without any); `lateTicks`: the ticks the
// compositor overslept or whose present it had to move.
FrameVerdict judgeFrame(const Frame& frame, int64_t readyNs, int64_t presentNs, const VsyncGrid& grid,
                        const std::set<int64_t>& lateTicks);

struct FrameTimelineCounts {
    int onTime = 0;
    int late = 0;
    int lateVsyncs = 0;
    std::array<int, kLateCauses> byCause{};

    void add(const FrameVerdict& verdict);
    int of(LateCause cause) const { return byCause[static_cast<size_t>(cause) - 1]; }
};

} // namespace pelyx_sim
