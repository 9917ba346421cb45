#pragma once

// The C entry points of the vendor performance-service client library, as PerfProxy loads them
// by name with dlsym. The host stand-in (host/perfd) implements the same signatures.

#include <aidl/vendor/tvo/hardware/perf2/IPerfCallback.h>

#include <memory>

namespace android {

constexpr const char* kPerfClientLibrary = "libtvo-perfd-client_system.so";
constexpr size_t kPerfPropValueMax = 92;

// A property answer: NUL-terminated text of at most kPerfPropValueMax - 1 characters.
struct PerfPropVal {
    char value[kPerfPropValueMax];
};

using PerfCallbackPtr = std::shared_ptr<aidl::vendor::tvo::hardware::perf2::IPerfCallback>;

using perf_get_prop_t = PerfPropVal (*)(const char* name, const char* defaultValue);
using perf_get_feedback_t = int (*)(int req, const char* pkg);
using perf_get_feedback_extn_t = int (*)(int req, const char* pkg, int numArgs, int* args);
using perf_hint_t = int (*)(int hint, const char* pkg, int duration, int type);
using perf_event_t = void (*)(int eventId, const char* pkg, int numArgs, int* args);
using perf_lock_acq_t = int (*)(int handle, int duration, int* list, int numArgs);
using perf_lock_rel_t = int (*)(int handle);
using get_perf_hal_ver_t = double (*)();
using perf_callback_register_t = int (*)(const PerfCallbackPtr& callback, int clientId);

} // namespace android
