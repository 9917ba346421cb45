#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "config/FeatureManager.h"
#include "gfr/GFRMonitor.h"
#include "phr/PHRMonitor.h"
#include "layers/LayerInfo.h"
#include "layers/Rect.h"

namespace android {

// The registry of the compositor's layers that produce frames. A layer is a cheap candidate
// until it has produced frames for 0.5 s at 23 fps or more; then it is fully tracked as a
// LayerInfo. At most 4 tracked layers and 10 candidates are kept. Lives for the process.
//
// Threading: compositor threads deliver buffer, latch, vsync and fence events; the boost thread
// runs posted clean-ups; the service's callback thread announces configuration changes. One
// registry mutex guards the maps and every LayerInfo field. It is dropped before calls that may
// block (classification, frame hints, monitor queue calls).
class LayerManager {
public:
    struct LayerCandidate {
        int64_t firstTime = 0;
        int64_t lastTime = 0;
        int32_t frameCount = 0;
        std::string packageName;

        // Counts one frame; true when the candidate has run 0.5 s at 23 fps or more.
        bool updateAndCheckPromotion(int64_t now);
    };

    struct AppInfo {
        std::string packageName;
        int32_t uid = -1;
        bool isGame = false;
        int32_t gameWeight = -1;
        int64_t lastSeenTime = 0;
    };

    // A copy of one tracked layer's state, for diagnostics and tests.
    struct LayerStatus {
        std::string packageName;
        std::string sceneTag;
        bool active = false;
        int32_t fpsMode = -1;
        int32_t pendingBuffers = 0;
        size_t queuedTimes = 0;
        int64_t removalDeadline = 0;
        bool lastQueueFlag = false;
        bool isGame = false;
        bool gfrActive = false;
        bool gfrRegistered = false;
        bool phrRegistered = false;
        bool targetFpsActive = false;
        float targetFps = 0.0f;
    };

    static LayerManager* getInstance();

    // Once only. smartTouchOrPhr: the process wants the headroom monitor.
    void init(bool smartTouchOrPhr, int32_t displayWidth, int32_t displayHeight) EXCLUDES(mLock);
    // Forgets every layer, candidate and app; later events start the registry afresh.
    void stop() EXCLUDES(mLock);
    bool isInitialized() const { return mInitialized.load(); }
    void setSmartTouchEnable(bool enable) { mSmartTouchEnabled.store(enable); }
    // Start the headroom monitor once (a layer first needs it); false when it cannot run.
    bool initPHREnv() EXCLUDES(mLock);
    bool isSmartTouchEnabled() const { return mSmartTouchEnabled.load(); }

    sp<LayerInfo> getLayer(int32_t id) EXCLUDES(mLock);
    // `name` is the part of the layer's name the library reads (PerfProxy::layerNameView).
    sp<LayerInfo> getOrCreateLayer(std::string_view name, int32_t id, int32_t pid, int32_t uid,
                                   int64_t now) EXCLUDES(mLock);

    // Compositor buffer, latch and vsync events. None blocks beyond the registry mutex. Names
    // are NUL-terminated and stay the caller's; only their first
    // PerfProxy::kMaxLayerNameBytes bytes are read. A tracked layer's buffer never reads its
    // name, and a name that gave no package is not examined again for that layer id (see
    // isKnownPackagelessLocked), so an app's choice of name costs the compositor nothing per frame.
    void onBufferIncrement(const char* name, int32_t id, int32_t pid, int32_t uid,
                           int64_t timestamp, bool flag, uint32_t value) EXCLUDES(mLock);
    void onBufferIncrement(const std::string& name, int32_t id, int32_t pid, int32_t uid,
                           int64_t timestamp, bool flag, uint32_t value) EXCLUDES(mLock) {
        onBufferIncrement(name.c_str(), id, pid, uid, timestamp, flag, value);
    }
    void onBufferDecrement(const char* name, int32_t id, int32_t pendingCount,
                           const Rect& bounds, bool focused, bool visible) EXCLUDES(mLock);
    void onBufferDecrement(const std::string& name, int32_t id, int32_t pendingCount,
                           const Rect& bounds, bool focused, bool visible) EXCLUDES(mLock) {
        onBufferDecrement(name.c_str(), id, pendingCount, bounds, focused, visible);
    }
    void onVsync(int64_t now) EXCLUDES(mLock);
    void setVsyncPeriod(int64_t period) EXCLUDES(mLock);
    void unblockPendingBuffer() EXCLUDES(mLock);

    // GPU fence jank detection. Descriptors stay the caller's; they are never closed here.
    void notifyGpuFenceUnsignaled(int32_t fenceFd, int32_t layerId) EXCLUDES(mLock);
    void trackLatchUnsignaledGpuFence(int32_t fenceFd, int32_t layerId) EXCLUDES(mLock);
    void flushLatchUnsignaledGpuFences() EXCLUDES(mLock);

    // Re-applies per-app configuration after FeatureManager stored a change. An empty package
    // name stands for the global entry. Called without any FeatureManager lock held.
    void onFeatureConfigChanged(Feature feature, const std::string& packageName);

    // Classifies a newly promoted layer's app: from the per-uid cache at once, else on the boost
    // thread ("game layer checker"), never on the caller's thread.
    void checkAppInfo(int32_t layerId, const std::string& packageName, int32_t uid, int64_t now)
            EXCLUDES(mLock);
    // Tells the performance service which apps are on screen (edge-triggered) and gives the
    // first visible game low-latency scheduling.
    void checkMultiLayer(int64_t now) EXCLUDES(mLock);
    // 0: full screen (or unknown), 2: windowed.
    int32_t getWindowType(const Rect& bounds) const;

    void cleanupInactiveLayers(int64_t now) EXCLUDES(mLock);
    void cleanupCandidates(int64_t now) EXCLUDES(mLock);
    // Posts the clean-ups (and the on-screen-apps check) to the boost thread after delayNs.
    void scheduleNotifyUserScene(int64_t delayNs);
    // Posts the clean-ups and the multi-layer check alone: a report goes out only if the scene
    // changed.
    void postSceneCheck(int64_t delayNs);

    // Read-only views for diagnostics and tests.
    int32_t trackedLayerCount() const { return mTrackedLayerCount.load(); }
    std::optional<LayerStatus> getLayerStatus(int32_t id) EXCLUDES(mLock);
    size_t candidateCount() EXCLUDES(mLock);
    bool isActiveLimitReached() EXCLUDES(mLock);
    bool isCandidateLimitReached() EXCLUDES(mLock);
    int32_t maxFpsMode() EXCLUDES(mLock);
    int64_t vsyncPeriod() const { return mVsyncPeriod.load(); }
    int32_t vsyncMode() const { return mVsyncMode.load(); }
    int32_t cpuBigJankThresholdMs() EXCLUDES(mLock);
    size_t appInfoCount() EXCLUDES(mLock);
    std::optional<AppInfo> getAppInfo(int32_t uid) EXCLUDES(mLock);
    int32_t lowLatencyPid() EXCLUDES(mLock);
    bool isActvStable() const { return mActvStable.load(); }
    bool hasConcurrencyEvent() const { return mConcurrencyEvent.load(); }

private:
    LayerManager() = default;
    LayerManager(const LayerManager&) = delete;
    LayerManager& operator=(const LayerManager&) = delete;

    // What the queue path needs after the registry lock is dropped.
    struct QueuedFrame {
        sp<LayerInfo> layer;
        int32_t fpsMode = -1;
        int64_t frameInterval = 0;
        int64_t timeToPresent = 0;
        int32_t bigJankThresholdMs = 0;
        GFRMonitor* gfr = nullptr; // set when the frame goes to frame rescue
        float gfrTargetFps = 0.0f;
        PHRMonitor* phr = nullptr; // set when the frame goes to the headroom hold
    };
    void initGFREnvLocked() REQUIRES(mLock);
    void initPHREnvLocked() REQUIRES(mLock);
    QueuedFrame onQueueLocked(const sp<LayerInfo>& layer, int64_t now, bool flag) REQUIRES(mLock);
    // A layer id whose name gave no package: remembered by the name's first bytes (a layer keeps
    // its name for life) and the uid, until a classified app of that uid could name it.
    struct PackagelessName {
        std::string prefix;
        int32_t uid;
    };
    bool isKnownPackagelessLocked(int32_t id, const char* name, int32_t uid) REQUIRES(mLock);
    void rememberPackagelessLocked(int32_t id, std::string_view name, int32_t uid)
            REQUIRES(mLock);
    void cleanupInactiveLayersLocked(int64_t now) REQUIRES(mLock);
    void cleanupCandidatesLocked(int64_t now) REQUIRES(mLock);
    void unregisterLayerLocked(LayerInfo& layer) REQUIRES(mLock);
    void toggleFeaturesOnFpsLocked(LayerInfo& layer, bool matchesVsyncMode) REQUIRES(mLock);
    void checkAliveAppLocked(LayerInfo& layer) REQUIRES(mLock);
    void onFpsModeChangedLocked() REQUIRES(mLock);
    int64_t computeGpuExecThresholdLocked(const LayerInfo& layer) const REQUIRES(mLock);
    void gameLayerChecker(int32_t layerId, const std::string& packageName, int32_t uid,
                          int64_t now) EXCLUDES(mLock);
    void loadFeatureConfigsLocked(LayerInfo* layer) REQUIRES(mLock);
    void setLowLatencyAppLocked(LayerInfo* layer) REQUIRES(mLock);
    // The first tracked game's package: what a configuration for "all apps" applies to.
    std::optional<std::string> blindModePackage() EXCLUDES(mLock);
    void onQuickTouchConfigChanged(const std::string& packageName) EXCLUDES(mLock);
    void onFrameRescueConfigChanged(const std::string& packageName) EXCLUDES(mLock);
    void onTargetFpsConfigChanged(const std::string& packageName) EXCLUDES(mLock);

    std::atomic<bool> mInitialized{false};
    int32_t mDisplayWidth = -1;
    int32_t mDisplayHeight = -1;

    Mutex mLock;
    std::atomic<int32_t> mTrackedLayerCount{0};
    // The monitors once they run; their own locks come after the registry mutex.
    GFRMonitor* mGfrMonitor GUARDED_BY(mLock) = nullptr;
    bool mGfrReady GUARDED_BY(mLock) = false;
    PHRMonitor* mPhrMonitor GUARDED_BY(mLock) = nullptr;
    bool mPhrReady GUARDED_BY(mLock) = false;
    std::unordered_map<int32_t, LayerCandidate> mCandidates GUARDED_BY(mLock);
    std::unordered_map<int32_t, sp<LayerInfo>> mLayers GUARDED_BY(mLock);
    std::unordered_map<int32_t, AppInfo> mAppInfoMap GUARDED_BY(mLock);
    std::unordered_map<int32_t, PackagelessName> mPackageless GUARDED_BY(mLock);
    // The last on-screen-apps report, to send only changes.
    int32_t mLastReportCount GUARDED_BY(mLock) = 0;
    std::unordered_set<int32_t> mReportedUids GUARDED_BY(mLock);
    std::unordered_map<int32_t, Rect> mReportedBounds GUARDED_BY(mLock);
    int32_t mLowLatencyPid GUARDED_BY(mLock) = -1;
    int32_t mFocusedUid GUARDED_BY(mLock) = -1;
    std::atomic<int64_t> mVsyncPeriod{-1};
    std::atomic<int32_t> mVsyncMode{-1};
    int64_t mLastPeriodicCheck GUARDED_BY(mLock) = 0;
    bool mActiveLimitReached GUARDED_BY(mLock) = false;
    bool mCandidateLimitReached GUARDED_BY(mLock) = false;
    std::atomic<bool> mSceneCheckPending{false};
    int32_t mCpuBigJankThreshold GUARDED_BY(mLock) = 0;
    float mGpuExecThresholdMult = 1.0f;
    std::atomic<bool> mGpuJankDetect{false};
    std::atomic<bool> mSmartTouchEnabled{false};
    bool mTargetFpsEnabled = false;
    bool mTargetFpsCompensate = true;
    int32_t mMaxFpsMode GUARDED_BY(mLock) = -1;
    int32_t mMaxFpsModeLayerId GUARDED_BY(mLock) = -1;
    // Alive-app check: -1 idle; the package under check comes from the configuration.
    int32_t mAliveAppMissCount GUARDED_BY(mLock) = -1;
    std::string mCheckingAliveApp GUARDED_BY(mLock);
    std::atomic<bool> mConcurrencyEvent{false};
    std::atomic<bool> mActvStable{false};
};

} // namespace android
