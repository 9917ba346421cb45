#pragma once

#include <cstdint>
#include <memory>

namespace android::platform {

// What a timer loop waits on: one absolute timer on the wait clock and a wake-up. The kernel's
// timerfd, eventfd and epoll on a device; a host running virtual time waits on the virtual clock.
// One owning thread calls wait(); any thread may arm, disarm or wake.
class LoopWait {
public:
    static constexpr int kTimer = 1;  // the armed time has come; the timer is disarmed
    static constexpr int kWake = 2;   // wake() was called since the last wait

    // nullptr when the kernel's descriptors cannot be had (logged).
    static std::unique_ptr<LoopWait> create();
    virtual ~LoopWait() = default;

    // The clock the timer is armed on.
    virtual int64_t now() const = 0;
    // (Re-)arms the timer for the absolute time `when`; a time already past fires at once.
    virtual void arm(int64_t when) = 0;
    virtual void disarm() = 0;
    virtual void wake() = 0;
    // Blocks up to `timeoutMillis` (-1: no limit). Returns what happened (kTimer | kWake), 0 on a
    // time-out, or -1 with errno set.
    virtual int wait(int timeoutMillis) = 0;
};

} // namespace android::platform
