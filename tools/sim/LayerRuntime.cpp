#include "LayerRuntime.h"

namespace pelyx_sim {

void TouchInput::deliver(int64_t eventNs) {
    android::Mutex::Autolock lock(mLock);
    mNewest = eventNs;
}

int64_t TouchInput::sample() {
    android::Mutex::Autolock lock(mLock);
    const int64_t newest = mNewest;
    mNewest = 0;
    return newest;
}

} // namespace pelyx_sim
