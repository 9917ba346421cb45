#pragma once

#include <cstdint>

namespace android::platform {

// Monotonic nanoseconds: the single source of "now" for the library's logic. Host tests may
// substitute a manual clock (HostControl.h); kernel timers never see it.
int64_t now();

// The clock every wait below and in Condition.h, Thread.h and LoopWait.h runs on: the kernel's
// monotonic clock, or the virtual clock while a host runs one. A test's manual clock never
// reaches it, so a deadline computed from it is one the wait keeps.
int64_t waitClockNow();

// Block the calling thread on the wait clock; nothing happens for a deadline already past.
// sleepFor is the system's plain relative sleep: a signal ends it early and it is not resumed.
// sleepUntil runs on to its deadline whatever signal comes.
void sleepFor(int64_t ns);
void sleepUntil(int64_t deadlineNs);

} // namespace android::platform
