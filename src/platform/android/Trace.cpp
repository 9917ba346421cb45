// atrace under the graphics tag.

#define ATRACE_TAG ATRACE_TAG_GRAPHICS

#include "platform/Trace.h"

#include <cutils/trace.h>

namespace android::platform {

bool traceGraphicsEnabled() {
    return atrace_is_tag_enabled(ATRACE_TAG_GRAPHICS);
}

void traceBegin(const char* name) {
    atrace_begin(ATRACE_TAG_GRAPHICS, name);
}

void traceEnd() {
    atrace_end(ATRACE_TAG_GRAPHICS);
}

void traceAsyncBegin(const char* name, int32_t cookie) {
    atrace_async_begin(ATRACE_TAG_GRAPHICS, name, cookie);
}

void traceAsyncEnd(const char* name, int32_t cookie) {
    atrace_async_end(ATRACE_TAG_GRAPHICS, name, cookie);
}

void traceCounter(const char* name, int64_t value) {
    atrace_int64(ATRACE_TAG_GRAPHICS, name, value);
}

void traceThreadName(const char* /*name*/) {}

} // namespace android::platform
