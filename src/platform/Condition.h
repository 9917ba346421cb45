#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Condition.h>
#include <utils/Mutex.h>

#include <cstdint>

namespace android::platform {

// A condition variable on the wait clock (Clock.h) with android::Condition's contract: the
// caller holds `mutex` around a wait, a wait may return early, so callers loop on their own
// predicate. On a device, and on a host running real time, it is android::Condition; while a
// host runs virtual time a wait hands the turn to the next thread instead of blocking.
class Condition {
public:
    void wait(Mutex& mutex) REQUIRES(mutex);
    void waitRelative(Mutex& mutex, int64_t ns) REQUIRES(mutex);
    void signal();
    void broadcast();

private:
    android::Condition mCondition{android::Condition::PRIVATE};
};

} // namespace android::platform
