#pragma once

#include <utils/LightRefBase.h>

#include <atomic>
#include <cstdint>

namespace android {

// The app process's measure of its own frame interval and of the interval between touch MOVE
// events, which decides when a MOVE batch is handed to the app. One per process, created when
// the smart-touch move switch is first seen on and kept until the library is unloaded.
//
// Threading: queueBuffer runs on the render thread, trackMoveEvent and the getters on the input
// thread. No locks: every field is a relaxed atomic, so a reader may lag one event behind.
class InGameTracker : public LightRefBase<InGameTracker> {
public:
    static constexpr int64_t kInitialTouchInterval = 10'000'000;

    InGameTracker() = default;

    // Back to the state of a new tracker (the app started over).
    void reset();
    // Counts one queued frame; each window of a second turns the count into an fps mode and
    // a frame interval.
    void queueBuffer(int64_t now);
    // Folds the time since the previous MOVE into the running touch interval while MOVEs come
    // faster than frames.
    void trackMoveEvent(int64_t now);

    int32_t getFpsMode() const { return mFpsMode.load(std::memory_order_relaxed); }
    int64_t getFrameInterval() const { return mFrameInterval.load(std::memory_order_relaxed); }
    int64_t getTouchInterval() const { return mTouchInterval.load(std::memory_order_relaxed); }

private:
    std::atomic<int32_t> mFrameCounter{0};
    std::atomic<int32_t> mFpsMode{-1};
    std::atomic<int32_t> mMoveCounter{0};
    std::atomic<int64_t> mWindowStart{-1};
    std::atomic<int64_t> mLastMoveTime{-1};
    std::atomic<int64_t> mFrameInterval{-1}; // -1: unknown
    std::atomic<int64_t> mTouchInterval{kInitialTouchInterval};
};

} // namespace android
