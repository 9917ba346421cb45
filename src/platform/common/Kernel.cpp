#define LOG_TAG "Pelyx.TimerQueue"

#include "platform/common/Kernel.h"

#include <log/log.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace android::platform::kernel {
namespace {

constexpr int kMaxEvents = 2;  // the timer and the wake descriptor
constexpr int64_t kNsPerSec = 1'000'000'000;

timespec toTimespec(int64_t ns) {
    return timespec{static_cast<time_t>(ns / kNsPerSec), static_cast<long>(ns % kNsPerSec)};
}

void closeFd(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

} // namespace

int64_t monotonicNow() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * kNsPerSec + ts.tv_nsec;
}

void sleepUntil(int64_t deadlineNs) {
    const timespec ts = toTimespec(deadlineNs);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

void sleepFor(int64_t ns) {
    const timespec request = toTimespec(ns);
    nanosleep(&request, nullptr);  // an interruption ends the sleep: it is not resumed
}

bool KernelLoopWait::open() {
    mEpollFd = epoll_create1(EPOLL_CLOEXEC);
    if (mEpollFd < 0) {
        ALOGE("epoll_create1 failed: %s", strerror(errno));
        return false;
    }
    mTimerFd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (mTimerFd < 0) {
        ALOGE("timerfd_create failed: %s", strerror(errno));
        return false;
    }
    mWakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (mWakeFd < 0) {
        ALOGE("eventfd failed: %s", strerror(errno));
        return false;
    }
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = mTimerFd;
    if (epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mTimerFd, &event) < 0) {
        ALOGE("epoll_ctl(timerfd) failed: %s", strerror(errno));
        return false;
    }
    event = {};
    event.events = EPOLLIN;
    event.data.fd = mWakeFd;
    if (epoll_ctl(mEpollFd, EPOLL_CTL_ADD, mWakeFd, &event) < 0) {
        ALOGE("epoll_ctl(eventfd) failed: %s", strerror(errno));
        return false;
    }
    return true;
}

KernelLoopWait::~KernelLoopWait() {
    closeFd(mEpollFd);
    closeFd(mTimerFd);
    closeFd(mWakeFd);
}

void KernelLoopWait::arm(int64_t when) {
    struct itimerspec value = {};
    value.it_value = toTimespec(when);
    if (timerfd_settime(mTimerFd, TFD_TIMER_ABSTIME, &value, nullptr) < 0) {
        ALOGE("Failed to set timerfd %s (%i)", strerror(errno), errno);
    }
}

void KernelLoopWait::disarm() {
    struct itimerspec value = {};
    if (timerfd_settime(mTimerFd, 0, &value, nullptr) < 0) {
        ALOGE("Failed to disarm timerfd");
    }
}

void KernelLoopWait::wake() {
    uint64_t one = 1;
    if (write(mWakeFd, &one, sizeof(one)) < 0 && errno != EAGAIN) {
        ALOGE("write(eventfd) failed: %s", strerror(errno));
    }
}

int KernelLoopWait::wait(int timeoutMillis) {
    struct epoll_event events[kMaxEvents];
    const int count = epoll_wait(mEpollFd, events, kMaxEvents, timeoutMillis);
    if (count <= 0) return count;
    int seen = 0;
    for (int i = 0; i < count; i++) {
        const int fd = events[i].data.fd;
        uint64_t counter = 0;
        if (fd == mTimerFd) {
            // EAGAIN: the timer was re-armed after it fired; the caller decides what is due anyway.
            if (read(mTimerFd, &counter, sizeof(counter)) < 0 && errno != EAGAIN) {
                ALOGE("read(timerfd) failed: %s", strerror(errno));
            }
            seen |= kTimer;
        } else if (fd == mWakeFd) {
            if (read(mWakeFd, &counter, sizeof(counter)) < 0 && errno != EAGAIN) {
                ALOGE("read(eventfd) failed: %s", strerror(errno));
            }
            seen |= kWake;
        }
    }
    return seen;
}

} // namespace android::platform::kernel
