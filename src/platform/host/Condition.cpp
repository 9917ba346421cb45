#include "platform/Condition.h"

#include "platform/host/VirtualTime.h"

namespace android::platform {

void Condition::wait(Mutex& mutex) {
    waitRelative(mutex, host::VirtualTime::kNever);
}

void Condition::waitRelative(Mutex& mutex, int64_t ns) {
    host::VirtualTime* time = host::VirtualTime::active();
    if (time == nullptr) {
        if (ns == host::VirtualTime::kNever) {
            mCondition.wait(mutex);
        } else {
            mCondition.waitRelative(mutex, ns);
        }
        return;
    }
    const int64_t start = time->now();
    const int64_t deadline = ns > host::VirtualTime::kNever - start ? host::VirtualTime::kNever : start + ns;
    // No other participant runs between the unlock and the wait: no signal is lost.
    mutex.unlock();
    time->wait(this, deadline, "condition wait");
    mutex.lock();
}

void Condition::signal() {
    if (host::VirtualTime* time = host::VirtualTime::active()) return time->notify(this, false);
    mCondition.signal();
}

void Condition::broadcast() {
    if (host::VirtualTime* time = host::VirtualTime::active()) return time->notify(this, true);
    mCondition.broadcast();
}

} // namespace android::platform
