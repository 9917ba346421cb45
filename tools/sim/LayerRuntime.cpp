#include "LayerRuntime.h"

namespace pelyx_sim {

void TouchInput::deliver(int64_t eventNs) {
    android::Mutex::Autolock lock(mLock);
    mPending.push_back(eventNs);
}

std::vector<int64_t> TouchInput::consume() {
    android::Mutex::Autolock lock(mLock);
    std::vector<int64_t> events;
    events.swap(mPending);
    return events;
}

} // namespace pelyx_sim
