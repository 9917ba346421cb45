#include "platform/Clock.h"

#include "platform/common/Kernel.h"

namespace android::platform {

int64_t now() {
    return kernel::monotonicNow();
}

int64_t waitClockNow() {
    return kernel::monotonicNow();
}

void sleepFor(int64_t ns) {
    if (ns > 0) kernel::sleepFor(ns);
}

void sleepUntil(int64_t deadlineNs) {
    kernel::sleepUntil(deadlineNs);
}

} // namespace android::platform
