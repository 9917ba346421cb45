#define LOG_TAG "Pelyx.TimerQueue"

#include "timer/TimerQueue.h"

#include <log/log.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utils/Timers.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "timer/FuncHandler.h"

namespace android {

namespace {

constexpr int kMaxEvents = 2; // the timer and the wake descriptor
constexpr int64_t kNsPerSec = 1000000000LL;

// The queue arms an absolute kernel timer, so it reads the real clock, never a test clock.
int64_t monotonicNow() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

void closeFd(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

} // namespace

TimerQueue::TimerQueue() : mNow(monotonicNow) {
    mEpollFd = epoll_create1(EPOLL_CLOEXEC);
    if (mEpollFd < 0) {
        ALOGE("epoll_create1 failed: %s", strerror(errno));
        return;
    }
    mTimerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (mTimerFd < 0) {
        ALOGE("timerfd_create failed: %s", strerror(errno));
        return;
    }
    mWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (mWakeFd < 0) {
        ALOGE("eventfd failed: %s", strerror(errno));
        return;
    }

    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = mTimerFd;
    if (epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mTimerFd, &event) < 0) {
        ALOGE("epoll_ctl(timerfd) failed: %s", strerror(errno));
        return;
    }
    event = {};
    event.events = EPOLLIN;
    event.data.fd = mWakeFd;
    if (epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mWakeFd, &event) < 0) {
        ALOGE("epoll_ctl(eventfd) failed: %s", strerror(errno));
        return;
    }
    mInitialized = true;
}

TimerQueue::~TimerQueue() {
    wake();
    closeFd(mEpollFd);
    closeFd(mTimerFd);
    closeFd(mWakeFd);
    // The members then go in reverse order: cancelled ids, the heap (releasing every pending
    // handler uncalled), the mutex.
}

void TimerQueue::wake() {
    if (!mInitialized) return;
    uint64_t one = 1;
    if (write(mWakeFd, &one, sizeof(one)) < 0 && errno != EAGAIN) {
        ALOGE("write(eventfd) failed: %s", strerror(errno));
    }
}

void TimerQueue::armTimerLocked(int64_t when) {
    if (mTimerFd < 0) return;
    struct itimerspec value = {};
    value.it_value.tv_sec = static_cast<time_t>(when / kNsPerSec);
    value.it_value.tv_nsec = static_cast<long>(when - (when / kNsPerSec) * kNsPerSec);
    if (timerfd_settime(mTimerFd, TFD_TIMER_ABSTIME, &value, nullptr) < 0) {
        ALOGE("Failed to set timerfd %s (%i)", strerror(errno), errno);
    }
}

void TimerQueue::disarmTimerLocked() {
    if (mTimerFd < 0) return;
    struct itimerspec value = {};
    if (timerfd_settime(mTimerFd, 0, &value, nullptr) < 0) {
        ALOGE("Failed to disarm timerfd");
    }
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
    struct epoll_event events[kMaxEvents];
    int count = epoll_wait(mEpollFd, events, kMaxEvents, timeoutMillis);
    if (count < 0) {
        if (errno == EINTR) return kPollWake;
        ALOGE("epoll_wait error: %s", strerror(errno));
        return kPollError;
    }
    if (count == 0) return kPollTimeout;

    int result = kPollWake;
    for (int i = 0; i < count; i++) {
        const int fd = events[i].data.fd;
        if (fd == mTimerFd) {
            uint64_t expirations = 0;
            // EAGAIN: the timer was re-armed after it fired; the heap decides what is due anyway.
            if (read(mTimerFd, &expirations, sizeof(expirations)) < 0 && errno != EAGAIN) {
                ALOGE("read(timerfd) failed: %s", strerror(errno));
            }
            const int64_t now = mNow();
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
        } else if (fd == mWakeFd) {
            uint64_t counter = 0;
            if (read(mWakeFd, &counter, sizeof(counter)) < 0 && errno != EAGAIN) {
                ALOGE("read(eventfd) failed: %s", strerror(errno));
            }
            result = kPollWake;
        }
    }
    return result;
}

uint64_t TimerQueue::sendMessage(const sp<MessageHandler>& handler, const Message& message) {
    return sendMessageDelayed(0, handler, message);
}

uint64_t TimerQueue::sendMessageDelayed(int64_t delayNs, const sp<MessageHandler>& handler,
                                        const Message& message) {
    if (!mInitialized) return 0;
    const int64_t now = mNow();
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

} // namespace android
