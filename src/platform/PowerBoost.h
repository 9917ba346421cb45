#pragma once

#include <cstdint>

namespace android::platform {

// Asks the compositor for a power boost. Cheap and non-blocking; callable from any thread.
void notifyPowerBoost(int32_t boostId);

} // namespace android::platform
