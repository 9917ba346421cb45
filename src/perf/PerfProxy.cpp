#define LOG_TAG "Pelyx"

#include "perf/PerfProxy.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <log/log.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <type_traits>
#include <utility>

#include "platform/Ioctl.h"
#include "platform/Threads.h"
#include "platform/Trace.h"

namespace android {
namespace {

constexpr const char* kTag = "Pelyx";
constexpr const char* kBoostDevice = "/dev/vorla";

// The boost device's record: level, headroom, frequency (MHz), native byte order.
using BoostRecord = int32_t[3];
constexpr unsigned long kBoostRequest = 0x400C6701;
static_assert(sizeof(BoostRecord) == 12, "the boost driver reads exactly 12 bytes");
static_assert(kBoostRequest == _IOW('g', 1, BoostRecord), "boost request encoding");

constexpr int kFrameHintEvent = 4186;
constexpr int kLowLatencyOpcode = 0x40CD0000;
constexpr double kBaseHalVersion = 2.2;
constexpr size_t kTraceNameMax = 256;

template <typename T>
T lookUp(void* handle, const char* name) {
    return reinterpret_cast<T>(dlsym(handle, name));
}

} // namespace

std::atomic<bool> PerfProxy::sDebuggable{false};
std::atomic<bool> PerfProxy::sProfileable{false};

PerfProxy* PerfProxy::getInstance() {
    // Lives for the process: boost tasks and callbacks may run until exit.
    static PerfProxy* sInstance = new PerfProxy();
    return sInstance;
}

PerfProxy::PerfProxy() {
    loadClientLibrary();
}

void PerfProxy::loadClientLibrary() {
    mLibHandle = dlopen(kPerfClientLibrary, RTLD_NOW);
    if (!mLibHandle) {
        const char* error = dlerror();
        ALOGE("Unable to open %s: %s\n.", kPerfClientLibrary, error ? error : "");
        return;
    }

    // The required calls, in lookup order; the first one missing ends the set-up.
    auto require = [this](auto& slot, const char* name) {
        slot = lookUp<std::remove_reference_t<decltype(slot)>>(mLibHandle, name);
        if (!slot) ALOGE("Unable to find %s function.\n", name);
        return slot != nullptr;
    };
    if (!require(mGetProp, "perf_get_prop") || !require(mGetFeedback, "perf_get_feedback") ||
        !require(mHint, "perf_hint") || !require(mEvent, "perf_event") ||
        !require(mLockAcq, "perf_lock_acq") || !require(mLockRel, "perf_lock_rel")) {
        return;
    }

    mGetHalVer = lookUp<get_perf_hal_ver_t>(mLibHandle, "get_perf_hal_ver");
    if (mGetHalVer) {
        mHalVersion = mGetHalVer();
        // Older services lack the extended feedback; asking for it there is not safe.
        if (mHalVersion > kBaseHalVersion) {
            mGetFeedbackExtn = lookUp<perf_get_feedback_extn_t>(mLibHandle, "perf_get_feedback_extn");
        }
    } else {
        XLOGD(kTag, "Unable to find get_perf_hal_ver function.\n");
    }

    dlerror(); // only the registration lookup's error is reported
    mCallbackRegister = lookUp<perf_callback_register_t>(mLibHandle, "perf_callback_register");
    if (!mCallbackRegister) {
        const char* error = dlerror();
        ALOGE("Unable to find perf_callback_register function. Err = %s", error ? error : "");
        return;
    }
    startBoostThread();
}

// ---- Service calls ----

PerfPropVal PerfProxy::perfGetProp(const char* name, const char* defaultValue) {
    PerfPropVal value{};
    if (mGetProp) {
        value = mGetProp(name, defaultValue);
    } else if (defaultValue) {
        strncpy(value.value, defaultValue, sizeof(value.value) - 1);
    }
    value.value[sizeof(value.value) - 1] = '\0'; // never trust the terminator
    return value;
}

int PerfProxy::perfGetFeedback(int req, const char* pkg) {
    return mGetFeedback ? mGetFeedback(req, pkg) : -1;
}

int PerfProxy::perfGetFeedbackExtn(int req, const char* pkg, int numArgs, int* args) {
    return mGetFeedbackExtn ? mGetFeedbackExtn(req, pkg, numArgs, args) : -1;
}

int PerfProxy::perfHint(int hint, const char* pkg, int duration, int type) {
    return mHint ? mHint(hint, pkg, duration, type) : -1;
}

void PerfProxy::perfEvent(int eventId, const char* pkg, int numArgs, int* args) {
    if (mEvent) mEvent(eventId, pkg, numArgs, args);
}

int PerfProxy::perfLockAcq(int handle, int duration, int* list, int numArgs) {
    return mLockAcq ? mLockAcq(handle, duration, list, numArgs) : -1;
}

int PerfProxy::perfLockRel(int handle) {
    return mLockRel ? mLockRel(handle) : -1;
}

double PerfProxy::getPerfHalVer() {
    return mGetHalVer ? mGetHalVer() : -1.0;
}

int PerfProxy::perfCallbackRegister(const PerfCallbackPtr& callback, int clientId) {
    return mCallbackRegister ? mCallbackRegister(callback, clientId) : -1;
}

// ---- Boost thread ----

void PerfProxy::startBoostThread() {
    Mutex::Autolock lock(mThreadLock);
    if (mRunning.exchange(true)) return;

    sp<TimerQueue> queue = new TimerQueue();
    if (!queue->isInitialized()) {
        mRunning.store(false);
        return;
    }
    const uint64_t generation = mGeneration.load();
    if (!mThread.start("BP", [this, queue, generation] { threadMain(queue, generation); })) {
        ALOGE("BoostThread Creation Failed");
        mRunning.store(false);
        return;
    }
    mTimerQueue = queue;
}

void PerfProxy::stopBoostThread() {
    sp<TimerQueue> queue;
    platform::Thread thread;
    {
        Mutex::Autolock lock(mThreadLock);
        if (!mRunning.exchange(false)) return;
        mGeneration.fetch_add(1);
        queue = std::move(mTimerQueue);
        thread = std::move(mThread);
    }
    // Joined outside the lock: a task on the way out may still post (and be refused).
    if (queue) queue->wake();
    if (thread.joinable()) {
        if (thread.isCurrent()) {
            thread.detach(); // stopped from one of its own tasks: the loop ends after it
        } else {
            thread.join();
        }
    }
}

void PerfProxy::threadMain(sp<TimerQueue> queue, uint64_t generation) {
    platform::setThreadName("BP");
    platform::setLoopThreadPriority(kTag);
    runTimerLoop(*queue, kTag,
                 [this, generation] { return mRunning.load() && mGeneration.load() == generation; });
}

uint64_t PerfProxy::postTask(std::function<void()> task) {
    return postTaskDelayed(0, std::move(task));
}

uint64_t PerfProxy::postTaskDelayed(int64_t delayNs, std::function<void()> task) {
    if (!mRunning.load()) return 0;
    sp<TimerQueue> queue;
    {
        Mutex::Autolock lock(mThreadLock);
        queue = mTimerQueue;
    }
    if (!queue) return 0;
    // An exception escaping a task would end the process from the boost thread.
    return queue->postTaskDelayed(delayNs, [task = std::move(task)] {
        try {
            if (task) task();
        } catch (const std::exception& e) {
            ALOGE("Exception caught: %s in %s", e.what(), "PerfProxy task");
        } catch (...) {
            ALOGE("Exception caught in %s", "PerfProxy task");
        }
    });
}

// ---- Boosts ----

void PerfProxy::frameHint(int boostLevel, int headroom, int id, const std::string& pkg,
                          int baseFreq) {
    {
        Mutex::Autolock lock(mBoostLock);
        if (!mBoostDeviceTried) {
            mBoostDeviceTried = true;
            mBoostFd = platform::ioctlTable().open(kBoostDevice, O_RDONLY | O_CLOEXEC);
            if (mBoostFd < 0) {
                const int error = errno;
                ALOGE("[GFR_BOOST] Failed to open %s, vorla not available, errno=%d (%s)\n",
                      kBoostDevice, error, strerror(error));
            } else {
                XLOGD(kTag, "[GFR_BOOST] Successfully opened %s, vorla is available\n",
                      kBoostDevice);
            }
        }
        if (boostLevel >= 0 && boostLevel <= 3 && mBoostFd >= 0) {
            mBoostArgs[0] = boostLevel;
            mBoostArgs[1] = headroom;
            mBoostArgs[2] = baseFreq;
            XTRACE_FORMAT("[GFR_BOOST] GFR_IOCTL bl=%d hr=%d bf=%d, [id: %d]", boostLevel,
                          headroom, baseFreq, id);
            const int ret = platform::ioctlTable().ioctl(mBoostFd, kBoostRequest, mBoostArgs);
            if (ret < 0) {
                const int error = errno;
                ALOGE("[GFR_BOOST] GFR ioctl failed, ret=%d, ioctl_fd=%d errno=%d", ret, mBoostFd,
                      error);
            }
            return;
        }
    }
    // Dropped by postTask when the boost thread is not running.
    postTask([this, boostLevel, headroom, id, pkg] {
        frameHintImp(boostLevel, headroom, id, pkg);
    });
}

void PerfProxy::frameHintImp(int boostLevel, int headroom, int id, const std::string& pkg) {
    const bool traced = isTraceEnabled();
    if (traced) platform::traceBegin("frame hint");
    if (boostLevel != 0) XTRACE_PROFILE("Boost hint: %d, [id: %d]", boostLevel, id);
    int args[2] = {boostLevel, headroom};
    perfEvent(kFrameHintEvent, pkg.empty() ? nullptr : pkg.c_str(), 2, args);
    if (traced) platform::traceEnd();
}

void PerfProxy::setLowLatency(int pid, bool enable) {
    postTask([this, pid, enable] {
        const int handle = mLowLatencyHandle.load();
        if (handle >= 1) {
            perfLockRel(handle);
            mLowLatencyHandle.store(-1);
        }
        if (enable) {
            int list[2] = {kLowLatencyOpcode, pid};
            // Duration 0: held until released.
            mLowLatencyHandle.store(perfLockAcq(0, 0, list, 2));
        }
    });
}

// ---- Debug switches, trace and debug log ----

void PerfProxy::setDebuggable(bool debuggable, bool profileable) {
    sDebuggable.store(debuggable, std::memory_order_relaxed);
    sProfileable.store(profileable, std::memory_order_relaxed);
}

bool PerfProxy::isTraceEnabled() {
    return isDebuggable() && platform::traceGraphicsEnabled();
}

void PerfProxy::XTRACE_BEGIN(const char* name) {
    if (isTraceEnabled()) platform::traceBegin(name);
}

void PerfProxy::XTRACE_END() {
    if (isTraceEnabled()) platform::traceEnd();
}

void PerfProxy::XTRACE_NAME(const char* name) {
    if (!isTraceEnabled()) return;
    platform::traceBegin(name);
    platform::traceEnd();
}

void PerfProxy::XTRACE_FORMAT(const char* fmt, ...) {
    if (!isTraceEnabled()) return;
    char name[kTraceNameMax];
    va_list args;
    va_start(args, fmt);
    vsnprintf(name, sizeof(name), fmt, args);
    va_end(args);
    platform::traceBegin(name);
    platform::traceEnd();
}

void PerfProxy::XTRACE_PROFILE(const char* fmt, ...) {
    if (!isDebuggable()) return;
    const bool trace = platform::traceGraphicsEnabled();
    const bool log = sProfileable.load(std::memory_order_relaxed);
    if (!trace && !log) return;
    char name[kTraceNameMax];
    va_list args;
    va_start(args, fmt);
    vsnprintf(name, sizeof(name), fmt, args);
    va_end(args);
    if (trace) {
        platform::traceBegin(name);
        platform::traceEnd();
    }
    if (log) __android_log_print(ANDROID_LOG_DEBUG, kTag, "%s", name);
}

void PerfProxy::XTRACE_ASYNC_BEGIN(const char* name, int32_t cookie) {
    if (isTraceEnabled()) platform::traceAsyncBegin(name, cookie);
}

void PerfProxy::XTRACE_ASYNC_END(const char* name, int32_t cookie) {
    if (isTraceEnabled()) platform::traceAsyncEnd(name, cookie);
}

void PerfProxy::XLOGD(const char* tag, const char* fmt, ...) {
    if (!isDebuggable()) return;
    va_list args;
    va_start(args, fmt);
    __android_log_vprint(ANDROID_LOG_DEBUG, tag, fmt, args);
    va_end(args);
}

} // namespace android
