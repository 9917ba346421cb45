#pragma once

#include <cstdint>

namespace android::platform {

// The platform's tracing (the graphics tag). On the host, "enabled" means a trace file is open
// and events go to it in the Trace Event Format. All functions are thread-safe and do nothing
// while tracing is off; names are copied, never used as format strings.
bool traceGraphicsEnabled();
void traceBegin(const char* name);
void traceEnd();
void traceAsyncBegin(const char* name, int32_t cookie);
void traceAsyncEnd(const char* name, int32_t cookie);
void traceCounter(const char* name, int64_t value);
// Labels the calling thread in the trace (atrace takes thread names from the kernel itself).
void traceThreadName(const char* name);

} // namespace android::platform
