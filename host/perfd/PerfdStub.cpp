// Host stand-in for the performance-service client library: the C entry points the plug-in
// loads by name, answering from a scriptable table and recording every call.

#include "PerfdControl.h"

#include <algorithm>
#include <functional>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <type_traits>
#include <utility>

#include "perf/PerfClientApi.h"

namespace perfd_stub {
namespace {

using aidl::vendor::tvo::hardware::perf2::IPerfCallback;

struct State {
    std::vector<Call> calls;
    std::map<std::string, bool> games;
    std::map<std::string, int> weights;
    std::map<std::pair<int, std::string>, int> feedback;
    std::map<std::string, std::string> props;
    double halVersion = kDefaultHalVersion;
    int nextHandle = 1;
    std::set<int> activeHandles;
    std::shared_ptr<IPerfCallback> callback;
    int clientId = -1;
};

std::mutex gMutex;
std::function<void(const Call&)>* gListener = nullptr;  // under gMutex

// Never destroyed: the plug-in's threads may still call in while the process exits.
State& state() {
    static State* sState = new State();
    return *sState;
}

void record(State& s, const char* fn, const char* pkg, std::vector<int> ints, const int* args,
            int numArgs) {
    Call call;
    call.fn = fn;
    call.hasPkg = pkg != nullptr;
    if (pkg) call.pkg = pkg;
    call.ints = std::move(ints);
    if (args && numArgs > 0) call.args.assign(args, args + numArgs);
    if (gListener) (*gListener)(call);
    s.calls.push_back(std::move(call));
}

int weightOf(const State& s, const char* pkg) {
    if (!pkg) return 0;
    auto it = s.weights.find(pkg);
    return it == s.weights.end() ? 0 : it->second;
}

int feedbackOf(const State& s, int req, const char* pkg) {
    const std::string name = pkg ? pkg : "";
    auto it = s.feedback.find({req, name});
    if (it != s.feedback.end()) return it->second;
    if (req == kGameQuery) {
        auto game = s.games.find(name);
        return game != s.games.end() && game->second ? kGameAnswer : 0;
    }
    return 0;
}

// A long answer fills the whole value with no terminator, as a careless service's would.
void copyCut(android::PerfPropVal& out, const std::string& text) {
    const size_t n = std::min(text.size(), sizeof(out.value));
    memcpy(out.value, text.data(), n);
    if (n < sizeof(out.value)) out.value[n] = '\0';
}

} // namespace

void setCallListener(std::function<void(const Call&)> listener) {
    std::lock_guard<std::mutex> lock(gMutex);
    delete gListener;
    gListener = listener ? new std::function<void(const Call&)>(std::move(listener)) : nullptr;
}

void reset() {
    std::lock_guard<std::mutex> lock(gMutex);
    state() = State();
}

void setGame(const std::string& pkg, bool isGame) {
    std::lock_guard<std::mutex> lock(gMutex);
    state().games[pkg] = isGame;
}

void setGameWeight(const std::string& pkg, int weight) {
    std::lock_guard<std::mutex> lock(gMutex);
    state().weights[pkg] = weight;
}

void setFeedback(int req, const std::string& pkg, int answer) {
    std::lock_guard<std::mutex> lock(gMutex);
    state().feedback[{req, pkg}] = answer;
}

void setHalVersion(double version) {
    std::lock_guard<std::mutex> lock(gMutex);
    state().halVersion = version;
}

void setProp(const std::string& name, const std::string& value) {
    std::lock_guard<std::mutex> lock(gMutex);
    state().props[name] = value;
}

std::vector<Call> calls() {
    std::lock_guard<std::mutex> lock(gMutex);
    return state().calls;
}

size_t countCalls(const std::string& fn) {
    std::lock_guard<std::mutex> lock(gMutex);
    size_t n = 0;
    for (const Call& call : state().calls) n += call.fn == fn;
    return n;
}

void clearCalls() {
    std::lock_guard<std::mutex> lock(gMutex);
    state().calls.clear();
}

std::shared_ptr<IPerfCallback> registeredCallback() {
    std::lock_guard<std::mutex> lock(gMutex);
    return state().callback;
}

int registeredClientId() {
    std::lock_guard<std::mutex> lock(gMutex);
    return state().clientId;
}

int pushHint(int hintId, const std::string& text, int value, int value2,
             const std::vector<int>& values) {
    // Called outside the lock: the receiver may call back into the service.
    std::shared_ptr<IPerfCallback> callback = registeredCallback();
    if (!callback) return -1;
    return callback->notifyCallback(hintId, text, value, value2, values).isOk() ? 0 : -1;
}

} // namespace perfd_stub

using perfd_stub::gMutex;
using perfd_stub::state;

extern "C" {

PERFD_STUB_EXPORT android::PerfPropVal perf_get_prop(const char* name, const char* defaultValue) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "perf_get_prop", name, {}, nullptr, 0);
    android::PerfPropVal out{};
    auto it = name ? s.props.find(name) : s.props.end();
    perfd_stub::copyCut(out, it != s.props.end() ? it->second
                                                 : std::string(defaultValue ? defaultValue : ""));
    return out;
}

PERFD_STUB_EXPORT int perf_get_feedback(int req, const char* pkg) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "perf_get_feedback", pkg, {req}, nullptr, 0);
    return perfd_stub::feedbackOf(s, req, pkg);
}

PERFD_STUB_EXPORT int perf_get_feedback_extn(int req, const char* pkg, int numArgs, int* args) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "perf_get_feedback_extn", pkg, {req, numArgs}, args, numArgs);
    if (req == perfd_stub::kGameQuery) return perfd_stub::weightOf(s, pkg);
    return perfd_stub::feedbackOf(s, req, pkg);
}

#ifndef PERFD_STUB_NO_PERF_HINT
PERFD_STUB_EXPORT int perf_hint(int hint, const char* pkg, int duration, int type) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "perf_hint", pkg, {hint, duration, type}, nullptr, 0);
    if (hint == perfd_stub::kGameQuery && type == 1) return perfd_stub::weightOf(s, pkg);
    const int handle = s.nextHandle++;
    s.activeHandles.insert(handle);
    return handle;
}
#endif

PERFD_STUB_EXPORT void perf_event(int eventId, const char* pkg, int numArgs, int* args) {
    std::lock_guard<std::mutex> lock(gMutex);
    perfd_stub::record(state(), "perf_event", pkg, {eventId, numArgs}, args, numArgs);
}

PERFD_STUB_EXPORT int perf_lock_acq(int handle, int duration, int* list, int numArgs) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "perf_lock_acq", nullptr, {handle, duration, numArgs}, list, numArgs);
    if (numArgs <= 0 || !list) return -1;
    // Re-acquiring a live handle renews it; anything else is a new lock.
    if (handle > 0 && s.activeHandles.count(handle)) return handle;
    const int newHandle = s.nextHandle++;
    s.activeHandles.insert(newHandle);
    return newHandle;
}

PERFD_STUB_EXPORT int perf_lock_rel(int handle) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "perf_lock_rel", nullptr, {handle}, nullptr, 0);
    return s.activeHandles.erase(handle) ? 0 : -1;
}

#ifndef PERFD_STUB_NO_HAL_VER
PERFD_STUB_EXPORT double get_perf_hal_ver() {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "get_perf_hal_ver", nullptr, {}, nullptr, 0);
    return s.halVersion;
}
#endif

#ifndef PERFD_STUB_NO_CALLBACK_REGISTER
PERFD_STUB_EXPORT int perf_callback_register(const android::PerfCallbackPtr& callback,
                                             int clientId) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& s = state();
    perfd_stub::record(s, "perf_callback_register", nullptr, {clientId}, nullptr, 0);
    if (!callback) return -1;
    s.callback = callback;
    s.clientId = clientId;
    return 0;
}
#endif

} // extern "C"

// The entry points must keep the exact shapes the plug-in casts its dlsym results to.
static_assert(std::is_same_v<decltype(&perf_get_prop), android::perf_get_prop_t>);
static_assert(std::is_same_v<decltype(&perf_get_feedback), android::perf_get_feedback_t>);
static_assert(std::is_same_v<decltype(&perf_get_feedback_extn), android::perf_get_feedback_extn_t>);
static_assert(std::is_same_v<decltype(&perf_event), android::perf_event_t>);
static_assert(std::is_same_v<decltype(&perf_lock_acq), android::perf_lock_acq_t>);
static_assert(std::is_same_v<decltype(&perf_lock_rel), android::perf_lock_rel_t>);
#ifndef PERFD_STUB_NO_PERF_HINT
static_assert(std::is_same_v<decltype(&perf_hint), android::perf_hint_t>);
#endif
#ifndef PERFD_STUB_NO_HAL_VER
static_assert(std::is_same_v<decltype(&get_perf_hal_ver), android::get_perf_hal_ver_t>);
#endif
#ifndef PERFD_STUB_NO_CALLBACK_REGISTER
static_assert(std::is_same_v<decltype(&perf_callback_register),
                             android::perf_callback_register_t>);
#endif
