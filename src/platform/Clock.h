#pragma once

#include <cstdint>

namespace android::platform {

// Monotonic nanoseconds: the single source of "now" for the library's logic. Host tests may
// substitute a manual clock (HostControl.h); kernel timers never see it.
int64_t now();

} // namespace android::platform
