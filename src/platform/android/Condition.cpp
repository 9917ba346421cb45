#include "platform/Condition.h"

namespace android::platform {

void Condition::wait(Mutex& mutex) {
    mCondition.wait(mutex);
}

void Condition::waitRelative(Mutex& mutex, int64_t ns) {
    mCondition.waitRelative(mutex, ns);
}

void Condition::signal() {
    mCondition.signal();
}

void Condition::broadcast() {
    mCondition.broadcast();
}

} // namespace android::platform
