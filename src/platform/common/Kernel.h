#pragma once

// The kernel's side of the wait seams, the same on a device and on a host running real time.

#include <cstdint>

#include "platform/LoopWait.h"

namespace android::platform::kernel {

int64_t monotonicNow();
// clock_nanosleep on an absolute deadline, resumed after a signal.
void sleepUntil(int64_t deadlineNs);
// One relative nanosleep; a signal ends it.
void sleepFor(int64_t ns);
// nice -8 and SCHED_FIFO 1 for the calling thread; each failed call is logged under `logTag`.
void setLoopThreadPriority(const char* logTag);

// timerfd (CLOCK_MONOTONIC, absolute), eventfd and one epoll descriptor over both.
class KernelLoopWait : public LoopWait {
public:
    // Opens the descriptors; false (logged) when one cannot be had.
    bool open();
    ~KernelLoopWait() override;

    int64_t now() const override { return monotonicNow(); }
    void arm(int64_t when) override;
    void disarm() override;
    void wake() override;
    int wait(int timeoutMillis) override;

    int epollFd() const { return mEpollFd; }

private:
    int mEpollFd = -1;
    int mTimerFd = -1;
    int mWakeFd = -1;
};

} // namespace android::platform::kernel
