#include "platform/Clock.h"

#include <atomic>

#include "platform/HostControl.h"
#include "platform/common/Kernel.h"
#include "platform/host/VirtualTime.h"

namespace android::platform {
namespace {
std::atomic<host::ClockFn> gClock{nullptr};
} // namespace

int64_t now() {
    host::ClockFn clock = gClock.load(std::memory_order_acquire);
    return clock ? clock() : waitClockNow();
}

int64_t waitClockNow() {
    host::VirtualTime* time = host::VirtualTime::active();
    return time ? time->now() : kernel::monotonicNow();
}

void sleepFor(int64_t ns) {
    if (ns <= 0) return;
    if (host::VirtualTime* time = host::VirtualTime::active()) {
        time->wait(nullptr, time->now() + ns, "sleep");
    } else {
        kernel::sleepFor(ns);
    }
}

void sleepUntil(int64_t deadlineNs) {
    if (host::VirtualTime* time = host::VirtualTime::active()) {
        time->wait(nullptr, deadlineNs, "sleep");
    } else {
        kernel::sleepUntil(deadlineNs);
    }
}

void host::setClock(ClockFn clock) {
    gClock.store(clock, std::memory_order_release);
}

} // namespace android::platform
