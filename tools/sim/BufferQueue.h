#pragma once

// One layer's buffers between its app (producer) and the compositor (consumer), as a FIFO
// buffer queue: a fixed number of buffers, one of them on screen once the first frame was
// latched; the app waits for a free one when all others are queued. Latching a frame hands the
// one that was on screen back to the app, not at once but when the release callback reaches it,
// with a release fence: the display reads it until the new frame is presented, so the GPU may
// draw into it only from then on. Thread-safe: the app thread dequeues and queues, the
// compositor thread latches, the main thread closes.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "platform/Condition.h"

namespace pelyx_sim {

struct Frame {
    uint64_t number = 0;
    int64_t startNs = 0;  // the app began drawing it
    int64_t touchNs = 0;  // the newest touch it reflects; 0: no touch since the frame before
    std::vector<int64_t> touchEventsNs;  // every touch event its input stage consumed
    int64_t dequeueWaitNs = 0;  // blocked for a free buffer
    int64_t holdNs = 0;         // inside the library's queue path
    int64_t queueEnterNs = 0;   // the app queued it (the library's queue path starts)
    int64_t queueNs = 0;        // handed to the compositor
    int64_t desiredPresentNs = 0;  // the buffer's timestamp: not latched for an earlier present
    int64_t intendedTickNs = 0;  // the latch its app meant it for (see FrameTimeline.h)
    int queuedAhead = 0;         // older frames still queued when it was queued
    int64_t gpuWorkNs = 0;      // at the GPU's base clock
    int fenceFd = -1;           // the GPU fence; -1: none
    bool instant = false;
    bool heavy = false;
};

class BufferQueue {
public:
    explicit BufferQueue(int buffers);

    // App: blocks until a buffer is free; false once the queue is closed. `releaseNs`: when the
    // display lets go of it.
    bool dequeue(int64_t* releaseNs) EXCLUDES(mLock);
    // App: the dequeued buffer, drawn, goes to the compositor; its `queuedAhead` is set.
    void queue(Frame frame) EXCLUDES(mLock);
    // App: the dequeued buffer goes back unused.
    void cancel(int64_t releaseNs) EXCLUDES(mLock);

    // Compositor: the oldest queued frame, left in place.
    std::optional<Frame> oldest() const EXCLUDES(mLock);
    // Compositor: takes the oldest queued frame (there must be one), to be presented at
    // `presentNs`; the frame on screen goes back to the app at `returnNs`, with a release fence
    // that signals at `presentNs`. Returns the number of frames still queued.
    int latch(Frame* latched, int64_t returnNs, int64_t presentNs) EXCLUDES(mLock);

    int queued() const EXCLUDES(mLock);
    int freeBuffers() const EXCLUDES(mLock);

    // Wakes a waiting app for good.
    void close() EXCLUDES(mLock);

private:
    mutable android::Mutex mLock;
    android::platform::Condition mFreed;
    struct FreeBuffer {
        int64_t returnNs;   // back with the app from then on
        int64_t releaseNs;  // the display lets go of it
    };
    std::deque<FreeBuffer> mFree GUARDED_BY(mLock);  // oldest freed first
    bool mOnScreen GUARDED_BY(mLock) = false;
    bool mClosed GUARDED_BY(mLock) = false;
    std::deque<Frame> mQueued GUARDED_BY(mLock);
};

// A stop request that sleeping threads can wait on. Thread-safe.
class StopSignal {
public:
    void stop() EXCLUDES(mLock);
    bool stopped() const EXCLUDES(mLock);
    // Sleeps until `deadlineNs` (the wait clock) or the stop; true when stopped.
    bool waitUntil(int64_t deadlineNs) const EXCLUDES(mLock);

private:
    mutable android::Mutex mLock;
    mutable android::platform::Condition mCondition;
    bool mStopped GUARDED_BY(mLock) = false;
};

} // namespace pelyx_sim
