// The compositor's power boost, through its client. In the compositor's own process this is a
// local call; in an app it is a one-way binder call.

#include "platform/PowerBoost.h"

#include <gui/SurfaceComposerClient.h>

namespace android::platform {

void notifyPowerBoost(int32_t boostId) {
    SurfaceComposerClient::notifyPowerBoost(boostId);
}

} // namespace android::platform
