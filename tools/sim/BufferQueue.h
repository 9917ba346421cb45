#pragma once

// One layer's buffers between its app (producer) and the compositor (consumer), as a FIFO
// buffer queue: a fixed number of buffers, one of them on screen once the first frame was
// latched; the app waits for a free one when all others are queued. Latching a frame releases
// the one that was on screen. Thread-safe: the app thread dequeues and queues, the compositor
// thread latches, the main thread closes.

#include <android-base/thread_annotations.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <cstdint>
#include <deque>
#include <optional>

namespace pelyx_sim {

struct Frame {
    uint64_t number = 0;
    int64_t startNs = 0;  // the app began drawing it and sampled input
    int64_t touchNs = 0;  // the newest touch it reflects; 0: no touch since the frame before
    int64_t queueNs = 0;  // handed to the compositor
    int fenceFd = -1;     // the GPU fence; -1: none
    bool instant = false;
    bool heavy = false;
};

class BufferQueue {
public:
    explicit BufferQueue(int buffers);

    // App: blocks until a buffer is free; false once the queue is closed.
    bool dequeue() EXCLUDES(mLock);
    // App: the dequeued buffer, drawn, goes to the compositor.
    void queue(const Frame& frame) EXCLUDES(mLock);
    // App: the dequeued buffer goes back unused.
    void cancel() EXCLUDES(mLock);

    // Compositor: the oldest queued frame, left in place.
    std::optional<Frame> oldest() const EXCLUDES(mLock);
    // Compositor: takes the oldest queued frame (there must be one) and releases the frame on
    // screen to the app. Returns the number of frames still queued.
    int latch(Frame* latched) EXCLUDES(mLock);

    int queued() const EXCLUDES(mLock);
    int freeBuffers() const EXCLUDES(mLock);

    // Wakes a waiting app for good.
    void close() EXCLUDES(mLock);

private:
    mutable android::Mutex mLock;
    android::Condition mFreed;
    int mFree GUARDED_BY(mLock);
    bool mOnScreen GUARDED_BY(mLock) = false;
    bool mClosed GUARDED_BY(mLock) = false;
    std::deque<Frame> mQueued GUARDED_BY(mLock);
};

// A stop request that sleeping threads can wait on. Thread-safe.
class StopSignal {
public:
    void stop() EXCLUDES(mLock);
    bool stopped() const EXCLUDES(mLock);
    // Sleeps until `deadlineNs` (monotonic) or the stop; true when stopped.
    bool waitUntil(int64_t deadlineNs) const EXCLUDES(mLock);

private:
    mutable android::Mutex mLock;
    mutable android::Condition mCondition;
    bool mStopped GUARDED_BY(mLock) = false;
};

} // namespace pelyx_sim
