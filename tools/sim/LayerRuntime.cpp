#include "LayerRuntime.h"

namespace pelyx_sim {

void TouchInput::deliver(int64_t eventNs) {
    android::Mutex::Autolock lock(mLock);
    mNewest = eventNs;
    mHeld = 0;
}

void TouchInput::hold(int64_t eventNs) {
    android::Mutex::Autolock lock(mLock);
    mHeld = eventNs;
}

int64_t TouchInput::sampleAtFrameStart() {
    android::Mutex::Autolock lock(mLock);
    const int64_t newest = mNewest;
    mNewest = mHeld;
    mHeld = 0;
    return newest;
}

} // namespace pelyx_sim
