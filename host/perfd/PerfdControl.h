#pragma once

// Control side of the host stand-in for the performance-service client library. Tests and the
// simulator script the service's answers here, read back every call the plug-in made, and push
// configuration hints through the callback the plug-in registered. All functions are
// thread-safe and exported from the stand-in library itself, so they see the same state as the
// entry points the plug-in reaches through dlopen/dlsym.

#include <aidl/vendor/tvo/hardware/perf2/IPerfCallback.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#define PERFD_STUB_EXPORT __attribute__((visibility("default")))

namespace perfd_stub {

// The feedback request that asks whether a package is a game (answer 2) or, through the
// extended feedback and the hint call, how heavy it is.
constexpr int kGameQuery = 5633;
constexpr int kGameAnswer = 2;
constexpr double kDefaultHalVersion = 2.2;

// One recorded entry-point call. `pkg` is empty with hasPkg false when the caller passed a null
// text; `ints` are the scalar arguments in declaration order, `args` the argument list.
struct Call {
    std::string fn;
    std::string pkg;
    bool hasPkg = false;
    std::vector<int> ints;
    std::vector<int> args;
};

// Back to the initial state: no calls, no callback, no games, HAL version 2.2, handles from 1.
PERFD_STUB_EXPORT void reset();

// Scripted answers.
PERFD_STUB_EXPORT void setGame(const std::string& pkg, bool isGame);
PERFD_STUB_EXPORT void setGameWeight(const std::string& pkg, int weight);
// Overrides the answer of perf_get_feedback(req, pkg); takes precedence over setGame.
PERFD_STUB_EXPORT void setFeedback(int req, const std::string& pkg, int answer);
PERFD_STUB_EXPORT void setHalVersion(double version);
PERFD_STUB_EXPORT void setProp(const std::string& name, const std::string& value);

// Recorded calls, oldest first.
PERFD_STUB_EXPORT std::vector<Call> calls();
PERFD_STUB_EXPORT size_t countCalls(const std::string& fn);
PERFD_STUB_EXPORT void clearCalls();

// Sees every call as it is recorded, on the caller's thread and under the stand-in's lock (so it
// must not call into the stand-in); null removes it. reset() keeps it.
PERFD_STUB_EXPORT void setCallListener(std::function<void(const Call&)> listener);

// The registered callback and client id (null / -1 before perf_callback_register).
PERFD_STUB_EXPORT std::shared_ptr<aidl::vendor::tvo::hardware::perf2::IPerfCallback>
registeredCallback();
PERFD_STUB_EXPORT int registeredClientId();

// Delivers a hint to the registered callback on the calling thread, as the service's binder
// thread would. Returns 0 when delivered and answered with success, -1 otherwise.
PERFD_STUB_EXPORT int pushHint(int hintId, const std::string& text, int value, int value2,
                               const std::vector<int>& values);

} // namespace perfd_stub
