#include "platform/Clock.h"

#include <utils/Timers.h>

namespace android::platform {

int64_t now() {
    return systemTime(SYSTEM_TIME_MONOTONIC);
}

} // namespace android::platform
