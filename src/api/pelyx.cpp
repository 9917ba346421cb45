#define LOG_TAG "Pelyx"

#include "pelyx/pelyx.h"

#include <android-base/thread_annotations.h>
#include <log/log.h>
#include <utils/Mutex.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "api/Pelyx.h"
#include "config/FeatureManager.h"
#include "layers/LayerManager.h"
#include "layers/Rect.h"
#include "perf/PerfProxy.h"
#include "perf/TFPSCallback.h"
#include "platform/CallingIdentity.h"
#include "platform/Clock.h"
#include "platform/Properties.h"

// The C bounds record is handed on as the registry's Rect: keep the two interchangeable.
static_assert(sizeof(PelyxRect) == sizeof(android::Rect), "PelyxRect must mirror Rect");
static_assert(std::is_standard_layout_v<android::Rect>, "Rect must stay a plain record");
static_assert(offsetof(PelyxRect, left) == offsetof(android::Rect, left));
static_assert(offsetof(PelyxRect, top) == offsetof(android::Rect, top));
static_assert(offsetof(PelyxRect, right) == offsetof(android::Rect, right));
static_assert(offsetof(PelyxRect, bottom) == offsetof(android::Rect, bottom));

namespace android {

EntryFlags gEntryFlags;

namespace {

using aidl::vendor::tvo::hardware::perf2::TFPSCallback;

constexpr const char* kSmartTouchProp = "debug.vendor.perf.smart_touch";
constexpr const char* kSmartTouchTraceProp = "debug.vendor.perf.smart_touch.trace";
constexpr const char* kSmartTouchMoveProp = "debug.vendor.perf.smart_touch.move";
constexpr int kPerfClientId = 4;

// Only pelyxInit takes it.
Mutex gStartupLock;

// The tracker is created at most once and then lives for the process, so the app's threads read
// it through a plain atomic pointer without a lock; a repeated app start-up starts it afresh in
// place. The lock only orders the creators. Never destroyed: a detached property watcher may
// still create or reset the tracker while the process runs its exit-time destructors.
struct TrackerHolder {
    Mutex lock;
    sp<InGameTracker> tracker GUARDED_BY(lock);
};
TrackerHolder& trackerHolder() {
    static TrackerHolder* sHolder = new TrackerHolder();
    return *sHolder;
}
std::atomic<InGameTracker*> gTracker{nullptr};

// Creates the tracker, or with `fresh` resets the one there is. Creation may fail (no memory):
// the tracker stays absent and the move decisions stay off.
void provideTracker(bool fresh) {
    TrackerHolder& holder = trackerHolder();
    Mutex::Autolock lock(holder.lock);
    if (holder.tracker != nullptr) {
        if (fresh) holder.tracker->reset();
        return;
    }
    holder.tracker = new (std::nothrow) InGameTracker();
    gTracker.store(holder.tracker.get(), std::memory_order_release);
}

void set(std::atomic<bool>& flag, bool value) {
    flag.store(value, std::memory_order_relaxed);
}

// Exceptions stop here: the compositor and the apps are C callers.
template <typename Fn>
void guarded(const char* where, Fn&& fn) noexcept {
    try {
        fn();
    } catch (const std::exception& e) {
        ALOGE("Exception caught: %s in %s", e.what(), where);
    } catch (...) {
        ALOGE("Exception caught in %s", where);
    }
}

// A failed watcher leaves the switch at its start-up value; everything else runs on.
void startWatcher(const char* name, PropertyCallback callback) {
    guarded("propertyMonitor", [&] { propertyMonitor(name, callback); });
}

std::shared_ptr<TFPSCallback> makeCallback() {
    try {
        return ndk::SharedRefBase::make<TFPSCallback>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool initLocked(int32_t width, int32_t height) REQUIRES(gStartupLock) {
    FeatureManager* features = FeatureManager::getInstance();
    const bool enabled = features->isFeatureEnabled(ENABLE);
    set(gEntryFlags.enabled, enabled);
    ALOGD("[Pelyx Enable: %d]", enabled);
    if (!enabled) return false;

    const bool targetFps = features->isFeatureEnabled(TARGET_FPS);
    const bool gpuJankDetect = features->isFeatureEnabled(GPU_JANK_DETECT);
    const bool quickTouch = features->isFeatureEnabled(QUICK_TOUCH);
    const bool phr = quickTouch || targetFps;
    set(gEntryFlags.targetFps, targetFps);
    set(gEntryFlags.gpuJankDetect, gpuJankDetect);
    set(gEntryFlags.phr, phr);

    // Registered whatever the target-fps switch says: the service pushes every per-app table
    // through it. The client keeps its own reference; ours ends with this scope.
    if (std::shared_ptr<TFPSCallback> callback = makeCallback()) {
        PerfProxy::getInstance()->perfCallbackRegister(callback, kPerfClientId);
    } else {
        ALOGE("tfpsCB is null");
    }

    const bool smartTouch = platform::getBoolProperty(kSmartTouchProp, false);
    set(gEntryFlags.smartTouch, smartTouch);
    set(gEntryFlags.trace, platform::getBoolProperty(kSmartTouchTraceProp, false));
    ALOGD("[sf: ST:%d]", smartTouch);
    ALOGD("[PHR:%d]", phr);

    LayerManager::getInstance()->init(phr || smartTouch, width, height);
    startWatcher(kSmartTouchProp, onSTPropChanged);
    set(gEntryFlags.initialized, true);
    return true;
}

} // namespace

void propertyMonitor(const std::string& name, PropertyCallback callback) {
    // Read before the thread exists, so a change made after this returns always counts as one,
    // however late the thread gets to run.
    const bool initial = platform::getBoolProperty(name, false);
    platform::Thread watcher;
    if (!watcher.start("property watcher", [name, callback, current = initial]() mutable {
            for (;;) {
                if (!platform::waitForProperty(name, current ? "0" : "1", platform::kWaitForever)) {
                    continue;
                }
                current = !current;
                guarded("propertyMonitor", [&] { callback(current); });
            }
        })) {
        ALOGE("Failed to start the watcher of %s", name.c_str());
        return;
    }
    watcher.detach();
}

void onSTPropChanged(bool value) {
    set(gEntryFlags.smartTouch, value);
    if (isOn(gEntryFlags.trace)) ALOGD("[Prop Changed: ST: %d]", value);
    LayerManager::getInstance()->setSmartTouchEnable(isOn(gEntryFlags.phr) || value);
}

void onSTMPropChanged(bool value) {
    set(gEntryFlags.smartTouchMove, value);
    if (value) provideTracker(false);
    if (isOn(gEntryFlags.trace)) ALOGD("[Prop Changed: STM: %d]", value);
}

InGameTracker* getInGameTracker() {
    return gTracker.load(std::memory_order_acquire);
}

} // namespace android

using namespace android;

extern "C" {

bool pelyxInit(int32_t width, int32_t height) {
    Mutex::Autolock lock(gStartupLock);
    if (isOn(gEntryFlags.initialized)) return isOn(gEntryFlags.enabled);
    try {
        return initLocked(width, height);
    } catch (const std::exception& e) {
        ALOGE("Exception caught: %s in %s", e.what(), "pelyxInit");
    } catch (...) {
        ALOGE("Exception caught in %s", "pelyxInit");
    }
    // Half started: keep the forwarding calls off; a later call starts over.
    set(gEntryFlags.enabled, false);
    return false;
}

void aPelyxAppInit(void) {
    set(gEntryFlags.appSide, true);
    const bool smartTouch = platform::getBoolProperty(kSmartTouchProp, false);
    const bool smartTouchMove = platform::getBoolProperty(kSmartTouchMoveProp, false);
    const bool trace = platform::getBoolProperty(kSmartTouchTraceProp, false);
    set(gEntryFlags.smartTouch, smartTouch);
    set(gEntryFlags.smartTouchMove, smartTouchMove);
    set(gEntryFlags.trace, trace);
    if (smartTouchMove) provideTracker(true);
    if (trace) {
        ALOGD("[App: ST:%d, STM:%d, STD:%d]", smartTouch, smartTouchMove,
              isOn(gEntryFlags.appSide));
    }
    startWatcher(kSmartTouchProp, onSTPropChanged);
    startWatcher(kSmartTouchMoveProp, onSTMPropChanged);
}

bool pelyxSmartTouchEnabled(void) {
    return isOn(gEntryFlags.smartTouch);
}

void pelyxSetVsyncPeriod(int64_t vsyncPeriodNs) {
    if (!isOn(gEntryFlags.enabled)) return;
    guarded("pelyxSetVsyncPeriod",
            [&] { LayerManager::getInstance()->setVsyncPeriod(vsyncPeriodNs); });
}

void pelyxTrackVsyncSignal(void) {
    if (!isOn(gEntryFlags.enabled)) return;
    guarded("pelyxTrackVsyncSignal", [] { LayerManager::getInstance()->onVsync(platform::now()); });
}

void pelyxTrackBufferIncrement(const char* layerName, int32_t layerId, bool flag, uint32_t value,
                               int64_t timestamp) {
    if (!isOn(gEntryFlags.enabled)) return;
    guarded("pelyxTrackBufferIncrement", [&] {
        // The name is read in place: a tracked layer's buffer never needs it, so the copy is
        // left to the registry's first look at a layer.
        // The compositor's flag means the opposite of what the registry takes.
        const bool registryFlag = !flag;
        LayerManager::getInstance()->onBufferIncrement(layerName, layerId, platform::getCallingPid(),
                                                       platform::getCallingUid(), timestamp,
                                                       registryFlag, value);
    });
}

void pelyxTrackBufferDecrement(const char* layerName, int32_t layerId, int32_t pendingCount,
                               const PelyxRect* bounds, bool focused, bool visible) {
    if (!isOn(gEntryFlags.enabled)) return;
    guarded("pelyxTrackBufferDecrement", [&] {
        const Rect rect = bounds ? Rect{bounds->left, bounds->top, bounds->right, bounds->bottom}
                                 : Rect::INVALID_RECT;
        LayerManager::getInstance()->onBufferDecrement(layerName ? layerName : "", layerId,
                                                       pendingCount, rect, focused,
                                                       visible);
    });
}

void pelyxUnblockPendingBuffer(void) {
    if (!isOn(gEntryFlags.enabled) || !isOn(gEntryFlags.smartTouch)) return;
    guarded("pelyxUnblockPendingBuffer", [] { LayerManager::getInstance()->unblockPendingBuffer(); });
    if (isOn(gEntryFlags.trace)) ALOGD("SurfaceFlinger: Smart touch debug: pelyxUnblockPendingBuffer");
}

bool pelyxIsTargetFpsActive(void) {
    if (!isOn(gEntryFlags.targetFps)) return false;
    bool configured = false;
    guarded("pelyxIsTargetFpsActive",
            [&] { configured = FeatureManager::getInstance()->isTfpsConfigured(); });
    return configured;
}

void pelyxNotifyGpuFenceUnsignaled(int32_t fenceFd, int32_t layerId) {
    if (fenceFd < 0 || layerId < 1) return;
    if (!isOn(gEntryFlags.enabled) || !isOn(gEntryFlags.gpuJankDetect)) return;
    guarded("pelyxNotifyGpuFenceUnsignaled",
            [&] { LayerManager::getInstance()->notifyGpuFenceUnsignaled(fenceFd, layerId); });
}

void pelyxTrackLatchUnsignaledGpuFence(int32_t fenceFd, int32_t layerId) {
    if (fenceFd < 0 || layerId < 1) return;
    if (!isOn(gEntryFlags.enabled) || !isOn(gEntryFlags.gpuJankDetect)) return;
    guarded("pelyxTrackLatchUnsignaledGpuFence",
            [&] { LayerManager::getInstance()->trackLatchUnsignaledGpuFence(fenceFd, layerId); });
}

void pelyxFlushLatchUnsignaledGpuFences(void) {
    if (!isOn(gEntryFlags.enabled) || !isOn(gEntryFlags.gpuJankDetect)) return;
    guarded("pelyxFlushLatchUnsignaledGpuFences",
            [] { LayerManager::getInstance()->flushLatchUnsignaledGpuFences(); });
}

} // extern "C"
