#include "touch/InGameTracker.h"

#include "perf/PerfProxy.h"

namespace android {
namespace {
constexpr int64_t kWindowNs = 999'999'999;
constexpr auto kRelaxed = std::memory_order_relaxed;
} // namespace

void InGameTracker::reset() {
    mFrameCounter.store(0, kRelaxed);
    mFpsMode.store(-1, kRelaxed);
    mMoveCounter.store(0, kRelaxed);
    mWindowStart.store(-1, kRelaxed);
    mLastMoveTime.store(-1, kRelaxed);
    mFrameInterval.store(-1, kRelaxed);
    mTouchInterval.store(kInitialTouchInterval, kRelaxed);
}

void InGameTracker::queueBuffer(int64_t now) {
    const int32_t counter = mFrameCounter.load(kRelaxed);
    if (counter == 0) {
        mWindowStart.store(now, kRelaxed);
        mFrameCounter.store(1, kRelaxed);
        return;
    }
    if (now - mWindowStart.load(kRelaxed) <= kWindowNs) {
        mFrameCounter.store(counter + 1, kRelaxed);
        return;
    }
    const int mode = PerfProxy::getFpsMode(static_cast<float>(counter));
    mFpsMode.store(mode, kRelaxed);
    if (mode != -1) mFrameInterval.store(mode == 0 ? 0 : 1'000'000'000 / mode, kRelaxed);
    mFrameCounter.store(0, kRelaxed);
}

void InGameTracker::trackMoveEvent(int64_t now) {
    const int64_t last = mLastMoveTime.load(kRelaxed);
    if (last >= 0) {
        const int64_t d = now - last;
        if (d < mFrameInterval.load(kRelaxed)) {
            // The 10 ms seed counts as one sample, so one short gesture cannot swing the mean.
            const int32_t n = mMoveCounter.load(kRelaxed) + 1;
            mMoveCounter.store(n, kRelaxed);
            const int64_t interval = mTouchInterval.load(kRelaxed);
            mTouchInterval.store((interval * n + d) / (n + 1), kRelaxed);
        } else {
            mMoveCounter.store(0, kRelaxed);
        }
    }
    mLastMoveTime.store(now, kRelaxed);
}

} // namespace android
