#pragma once

namespace android::platform {

// Gives the calling loop thread nice -8 and SCHED_FIFO priority 1. Without the privilege each
// failed call is logged at error priority under `logTag` and the thread runs on unboosted.
void setLoopThreadPriority(const char* logTag);

// Names the calling thread (at most 15 characters are kept) and labels it in an open trace.
void setThreadName(const char* name);

} // namespace android::platform
