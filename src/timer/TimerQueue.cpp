#define LOG_TAG "Pelyx.TimerQueue"

#include "timer/TimerQueue.h"

#include <log/log.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "timer/FuncHandler.h"

namespace android {

TimerQueue::TimerQueue() : mWait(platform::LoopWait::create()) {
    mInitialized = mWait != nullptr;
}

TimerQueue::~TimerQueue() {
    wake();
    // The members then go in reverse order: cancelled ids, the heap (releasing every pending
    // handler uncalled), the mutex, the wait.
}

void TimerQueue::wake() {
    if (!mInitialized) return;
    mWait->wake();
}

void TimerQueue::armTimerLocked(int64_t when) {
    if (mWait) mWait->arm(when);
}

void TimerQueue::disarmTimerLocked() {
    if (mWait) mWait->disarm();
}

void TimerQueue::Released::add(sp<MessageHandler>&& handler) {
    if (handler == nullptr) return;
    if (mCount < kInline) {
        mInline[mCount++] = std::move(handler);
    } else {
        mMore.push_back(std::move(handler));
    }
}

void TimerQueue::popFrontLocked(Released& released) {
    std::pop_heap(mHeap.begin(), mHeap.end(), later);
    released.add(std::move(mHeap.back().handler));
    mHeap.pop_back();
}

void TimerQueue::rearmFromHeapLocked(Released& released) {
    while (!mHeap.empty() && mCancelled.erase(mHeap.front().id) > 0) {
        popFrontLocked(released);
    }
    if (mHeap.empty()) {
        disarmTimerLocked();
    } else {
        armTimerLocked(mHeap.front().when);
    }
}

int TimerQueue::pollOnce(int timeoutMillis) {
    if (!mInitialized) {
        errno = EBADF;
        ALOGE("epoll_wait error: %s", strerror(errno));
        return kPollError;
    }
    const int events = mWait->wait(timeoutMillis);
    if (events < 0) {
        if (errno == EINTR) return kPollWake;
        ALOGE("epoll_wait error: %s", strerror(errno));
        return kPollError;
    }
    if (events == 0) return kPollTimeout;

    int result = kPollWake;
    if (events & platform::LoopWait::kTimer) {
        const int64_t now = this->now();
        std::vector<TimerEntry> due;
        Released released;
        {
            Mutex::Autolock lock(mMutex);
            while (!mHeap.empty()) {
                TimerEntry& front = mHeap.front();
                if (mCancelled.erase(front.id) > 0) {
                    popFrontLocked(released);
                    continue;
                }
                if (now < front.when) break;
                due.push_back(std::move(front));
                popFrontLocked(released);
            }
            rearmFromHeapLocked(released);
        }
        // Without the lock, so a handler may schedule or cancel on this queue.
        for (const TimerEntry& entry : due) {
            if (entry.handler != nullptr) entry.handler->handleMessage(entry.message);
        }
        result = kPollCallback;
    }
    // Both at once: the wake-up is the last handled.
    if (events & platform::LoopWait::kWake) result = kPollWake;
    return result;
}

uint64_t TimerQueue::sendMessage(const sp<MessageHandler>& handler, const Message& message) {
    return sendMessageDelayed(0, handler, message);
}

uint64_t TimerQueue::sendMessageDelayed(int64_t delayNs, const sp<MessageHandler>& handler,
                                        const Message& message) {
    if (!mInitialized) return 0;
    const int64_t now = this->now();
    Mutex::Autolock lock(mMutex);
    const int64_t delay = std::max<int64_t>(delayNs, 0);
    // Saturate rather than wrap: a huge delay means "never", not "long ago".
    const int64_t when = delay > std::numeric_limits<int64_t>::max() - now
            ? std::numeric_limits<int64_t>::max()
            : now + delay;
    const bool rearm = mHeap.empty() || when < mHeap.front().when;
    const uint64_t id = mNextId++;
    mHeap.push_back(TimerEntry{when, handler, message, id});
    std::push_heap(mHeap.begin(), mHeap.end(), later);
    if (rearm) armTimerLocked(when);
    return id;
}

uint64_t TimerQueue::postTask(Task task) {
    return postTaskDelayed(0, std::move(task));
}

uint64_t TimerQueue::postTaskDelayed(int64_t delayNs, Task task) {
    if (!mInitialized) return 0;
    sp<MessageHandler> handler = new FuncHandler(std::move(task));
    return sendMessageDelayed(delayNs, handler, Message(0));
}

template <typename Pred>
void TimerQueue::cancelMatchingLocked(Pred matches, Released& released) {
    // Marked only: the live heap is only ever trimmed from its front.
    for (const TimerEntry& entry : mHeap) {
        if (matches(entry)) mCancelled.insert(entry.id);
    }
    rearmFromHeapLocked(released);
}

void TimerQueue::removeMessages(const sp<MessageHandler>& handler) {
    if (!mInitialized) return;
    Released released;
    Mutex::Autolock lock(mMutex);
    cancelMatchingLocked(
            [&handler](const TimerEntry& entry) { return entry.handler.get() == handler.get(); },
            released);
}

void TimerQueue::removeMessages(const sp<MessageHandler>& handler, int what) {
    if (!mInitialized) return;
    Released released;
    Mutex::Autolock lock(mMutex);
    cancelMatchingLocked(
            [&handler, what](const TimerEntry& entry) {
                return entry.handler.get() == handler.get() && entry.message.what == what;
            },
            released);
}

void TimerQueue::cancelTask(uint64_t id) {
    if (id == 0 || !mInitialized) return;
    Released released; // declared before the lock: released after it
    Mutex::Autolock lock(mMutex);
    mCancelled.insert(id);
    rearmFromHeapLocked(released);
}

void runTimerLoop(TimerQueue& queue, const char* tag, const std::function<bool()>& keepRunning) {
    while (keepRunning()) {
        if (queue.pollOnce(-1) == TimerQueue::kPollError) ALOG(LOG_ERROR, tag, "TimerQueue error");
    }
}

} // namespace android
