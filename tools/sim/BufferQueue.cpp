#include "BufferQueue.h"

#include "platform/Clock.h"

namespace pelyx_sim {

BufferQueue::BufferQueue(int buffers) : mFree(static_cast<size_t>(buffers), FreeBuffer{0, 0}) {}

bool BufferQueue::dequeue(int64_t* releaseNs) {
    android::Mutex::Autolock lock(mLock);
    for (;;) {
        if (mClosed) return false;
        if (!mFree.empty()) {
            const int64_t wait = mFree.front().returnNs - android::platform::waitClockNow();
            if (wait <= 0) break;
            mFreed.waitRelative(mLock, wait);
        } else {
            mFreed.wait(mLock);
        }
    }
    *releaseNs = mFree.front().releaseNs;
    mFree.pop_front();
    return true;
}

void BufferQueue::queue(Frame frame) {
    android::Mutex::Autolock lock(mLock);
    frame.queuedAhead = static_cast<int>(mQueued.size());
    mQueued.push_back(std::move(frame));
}

void BufferQueue::cancel(int64_t releaseNs) {
    android::Mutex::Autolock lock(mLock);
    mFree.push_front({0, releaseNs});
    mFreed.broadcast();
}

std::optional<Frame> BufferQueue::oldest() const {
    android::Mutex::Autolock lock(mLock);
    if (mQueued.empty()) return std::nullopt;
    return mQueued.front();
}

int BufferQueue::latch(Frame* latched, int64_t returnNs, int64_t presentNs) {
    android::Mutex::Autolock lock(mLock);
    if (mQueued.empty()) return 0;
    *latched = mQueued.front();
    mQueued.pop_front();
    if (mOnScreen) {
        mFree.push_back({returnNs, presentNs});
        mFreed.broadcast();
    }
    mOnScreen = true;
    return static_cast<int>(mQueued.size());
}

int BufferQueue::queued() const {
    android::Mutex::Autolock lock(mLock);
    return static_cast<int>(mQueued.size());
}

int BufferQueue::freeBuffers() const {
    android::Mutex::Autolock lock(mLock);
    return static_cast<int>(mFree.size());
}

void BufferQueue::close() {
    android::Mutex::Autolock lock(mLock);
    mClosed = true;
    mFreed.broadcast();
}

void StopSignal::stop() {
    android::Mutex::Autolock lock(mLock);
    mStopped = true;
    mCondition.broadcast();
}

bool StopSignal::stopped() const {
    android::Mutex::Autolock lock(mLock);
    return mStopped;
}

bool StopSignal::waitUntil(int64_t deadlineNs) const {
    android::Mutex::Autolock lock(mLock);
    while (!mStopped) {
        const int64_t left = deadlineNs - android::platform::waitClockNow();
        if (left <= 0) break;
        mCondition.waitRelative(mLock, left);
    }
    return mStopped;
}

} // namespace pelyx_sim
