#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "perf/PerfClientApi.h"
#include "platform/Thread.h"
#include "timer/TimerQueue.h"

namespace android {

// The one gateway to the vendor performance service and the boost device.
//
// The client library is loaded once at construction; every wrapper checks its call pointer and
// falls back (documented per call) when the library or the call is missing. Slow service work
// runs on the boost thread "BP", which drives a private TimerQueue; postTask/postTaskDelayed hand
// work to it from any thread. The singleton lives for the process.
class PerfProxy {
public:
    static PerfProxy* getInstance();

    // ---- Service calls (any thread; they block as long as the service does) ----
    PerfPropVal perfGetProp(const char* name, const char* defaultValue);   // default if missing
    int perfGetFeedback(int req, const char* pkg);                          // -1 if missing
    int perfGetFeedbackExtn(int req, const char* pkg, int numArgs, int* args); // -1 if missing
    int perfHint(int hint, const char* pkg, int duration, int type);        // -1 if missing
    void perfEvent(int eventId, const char* pkg, int numArgs, int* args);   // no-op if missing
    int perfLockAcq(int handle, int duration, int* list, int numArgs);      // -1 if missing
    int perfLockRel(int handle);                                            // -1 if missing
    double getPerfHalVer();                                                 // -1.0 if missing
    int perfCallbackRegister(const PerfCallbackPtr& callback, int clientId); // -1 if missing

    double halVersion() const { return mHalVersion; }

    // ---- Boost thread ----
    // Starts the "BP" thread and its queue unless running; a queue or thread that cannot be
    // created leaves the proxy without a boost thread (logged). Any thread.
    void startBoostThread() EXCLUDES(mThreadLock);
    // Wakes and joins the thread (from one of its own tasks it detaches instead); tasks still
    // queued are dropped uncalled. Any thread.
    void stopBoostThread() EXCLUDES(mThreadLock);
    bool isBoostThreadRunning() const { return mRunning.load(); }
    // Both return the queue's task id, or 0 without posting while the thread is not running.
    // Never wait for the task. Exceptions escaping a task are logged on the boost thread.
    uint64_t postTask(std::function<void()> task) EXCLUDES(mThreadLock);
    uint64_t postTaskDelayed(int64_t delayNs, std::function<void()> task) EXCLUDES(mThreadLock);

    // Game frame rescue's boost request: levels 0..3 go to the boost device on the calling
    // thread when it is open; anything else is sent to the service from the boost thread.
    // The device is opened on the first call only. Any thread; the device request is serialised.
    void frameHint(int boostLevel, int headroom, int id, const std::string& pkg, int baseFreq)
            EXCLUDES(mBoostLock);
    // Sends the hint to the service as performance event 4186. Blocks as long as the service
    // does, so it is meant for the boost thread.
    void frameHintImp(int boostLevel, int headroom, int id, const std::string& pkg);

    // Posts the release of the current low-latency lock and, when enabling, a new one for pid.
    // Dropped when the boost thread is not running.
    void setLowLatency(int pid, bool enable);
    int lowLatencyHandle() const { return mLowLatencyHandle.load(); }

    // ---- Classification (stateless apart from the compiled expression and service calls) ----
    // An app picks its layer names and the compositor hands them over as they are. The library
    // reads no more of a name than this: a longer name is taken as its first kMaxLayerNameBytes
    // bytes everywhere (classification, the registry, the monitors, logs and traces), so that
    // no call's cost depends on the rest. Real names are a few hundred bytes at most.
    static constexpr size_t kMaxLayerNameBytes = 4096;
    // The part of a NUL-terminated name the library reads; null reads as empty. Reads no byte
    // beyond the first kMaxLayerNameBytes.
    static std::string_view layerNameView(const char* name);
    // Both look at the first kMaxLayerNameBytes bytes of the name only.
    std::string getPackageName(std::string_view layerName);
    std::string getLayerSceneTag(const std::string& pkg, std::string_view layerName);
    bool isGameApp(const std::string& pkg);
    bool isGameLayer(const std::string& layerName);
    int getGameWeight(const std::string& pkg);
    static bool isNumericString(const std::string& text);
    static int getFpsMode(float fps);
    static int setVsyncMode(int64_t vsyncPeriodNs);

    // ---- Debug switches, trace and debug-log helpers (all no-ops unless debuggable) ----
    static void setDebuggable(bool debuggable, bool profileable);
    static bool isDebuggable() { return sDebuggable.load(std::memory_order_relaxed); }
    static bool isTraceEnabled();
    static void XTRACE_BEGIN(const char* name);
    static void XTRACE_END();
    static void XTRACE_NAME(const char* name);
    static void XTRACE_FORMAT(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void XTRACE_PROFILE(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static void XTRACE_ASYNC_BEGIN(const char* name, int32_t cookie);
    static void XTRACE_ASYNC_END(const char* name, int32_t cookie);
    static void XLOGD(const char* tag, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

private:
    // Lives for the process (see getInstance): boost tasks and callbacks may run until exit.
    ~PerfProxy() = delete;
    PerfProxy();
    PerfProxy(const PerfProxy&) = delete;
    PerfProxy& operator=(const PerfProxy&) = delete;

    // Body of the boost thread: the queue is handed over so the loop needs no lock. The loop
    // ends once a stop has moved the generation on.
    void threadMain(sp<TimerQueue> queue, uint64_t generation);
    void loadClientLibrary();

    static std::atomic<bool> sDebuggable;
    static std::atomic<bool> sProfileable;

    double mHalVersion = 2.2;
    std::atomic<int> mLowLatencyHandle{-1};
    void* mLibHandle = nullptr;
    perf_get_prop_t mGetProp = nullptr;
    perf_get_feedback_t mGetFeedback = nullptr;
    perf_get_feedback_extn_t mGetFeedbackExtn = nullptr;
    perf_hint_t mHint = nullptr;
    perf_event_t mEvent = nullptr;
    perf_lock_acq_t mLockAcq = nullptr;
    perf_lock_rel_t mLockRel = nullptr;
    get_perf_hal_ver_t mGetHalVer = nullptr;
    perf_callback_register_t mCallbackRegister = nullptr;
    // Guards the boost device: frameHint is meant for one thread, but a CPU jank hint may
    // arrive from a compositor thread too. Held only across open and the (fast) device request.
    Mutex mBoostLock;
    int mBoostFd GUARDED_BY(mBoostLock) = -1;
    int32_t mBoostArgs[3] GUARDED_BY(mBoostLock) = {0, 0, 0}; // level, headroom, base frequency
    bool mBoostDeviceTried GUARDED_BY(mBoostLock) = false;
    // Guards the queue reference and the thread object against a concurrent start/stop.
    Mutex mThreadLock;
    sp<TimerQueue> mTimerQueue GUARDED_BY(mThreadLock);
    platform::Thread mThread GUARDED_BY(mThreadLock);
    std::atomic<bool> mRunning{false};
    // Bumped by every stop: a thread stopped from its own task and left detached must not go
    // on polling because a start right after set the running flag again.
    std::atomic<uint64_t> mGeneration{0};
};

} // namespace android
