#include "platform/Clock.h"

#include <utils/Timers.h>

#include <atomic>

#include "platform/HostControl.h"

namespace android::platform {
namespace {
std::atomic<host::ClockFn> gClock{nullptr};
} // namespace

int64_t now() {
    host::ClockFn clock = gClock.load(std::memory_order_acquire);
    return clock ? clock() : systemTime(SYSTEM_TIME_MONOTONIC);
}

void host::setClock(ClockFn clock) {
    gClock.store(clock, std::memory_order_release);
}

} // namespace android::platform
