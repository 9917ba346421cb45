#pragma once

// Judges each presented frame the way the platform's frame timeline does. A frame has an
// intended vsync, chosen by its app: the latch after the vsync that started a Choreographer
// frame, the latch that presents at a buffer's own present time, or, for a buffer that asks to
// be shown as soon as possible, the first latch once the compositor has it. A frame shown after
// its intended vsync's present is janky, by the first cause that applies: the app queued it
// after that latch (its deadline), its GPU work had not finished, or the compositor missed the
// latch (it overslept, or held the buffer past it). Buffer stuffing is a state rather than a
// jank: a frame that waited for a free buffer or stood behind older frames of its own app is
// late however fast its work was, and what that costs is latency. Plain functions and values.

#include <array>
#include <cstdint>
#include <set>
#include <vector>

#include "BufferQueue.h"

namespace pelyx_sim {

enum class LateCause { OnTime, AppDeadline, GpuLate, Composition, BufferStuffing };
constexpr int kJankCauses = 3;  // the causes after OnTime that are janks

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
    // The tick whose present is the first at or after `presentNs`.
    int64_t tickPresentingAt(int64_t presentNs) const {
        return firstTickAtOrAfter(presentNs - latchOffsetNs - (presentDelay - 1) * periodNs);
    }
};

struct FrameVerdict {
    int64_t expectedPresentNs = 0;
    LateCause cause = LateCause::OnTime;
    int lateVsyncs = 0;
    int64_t lateNs = 0;  // past the expected present; 0 when on time
};

// `readyNs`: when its GPU work ended (the queue time without any); `lateTicks`: the ticks the
// compositor overslept or whose present it had to move.
FrameVerdict judgeFrame(const Frame& frame, int64_t readyNs, int64_t presentNs, const VsyncGrid& grid,
                        const std::set<int64_t>& lateTicks);

struct FrameTimelineCounts {
    int onTime = 0;
    int late = 0;  // janks
    int lateVsyncs = 0;
    std::array<int, kJankCauses> byCause{};
    // Frames shown late for buffer stuffing, and how late each was (ms).
    std::vector<double> stuffedLateMs;

    void add(const FrameVerdict& verdict);
    int of(LateCause cause) const { return byCause[static_cast<size_t>(cause) - 1]; }
    int stuffed() const { return static_cast<int>(stuffedLateMs.size()); }
};

} // namespace pelyx_sim
