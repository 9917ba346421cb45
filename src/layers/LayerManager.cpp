#define LOG_TAG "Pelyx.LayerManager"

#include "layers/LayerManager.h"

#include <log/log.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "perf/PerfProxy.h"
#include "platform/Clock.h"

namespace android {
namespace {

constexpr int64_t kPromotionWindowNs = 500'000'000;
constexpr float kPromotionMinFps = 23.0f;
constexpr size_t kMaxTrackedLayers = 4;
constexpr size_t kMaxCandidates = 10;
constexpr size_t kCandidateLimitClearCount = 5;
constexpr int64_t kInactiveAfterNs = 1'000'000'000;
constexpr int64_t kRemovalDelayNs = 1'000'000'000;
constexpr int64_t kCandidateStaleNs = 2'000'000'001;
constexpr int64_t kPeriodicCheckNs = 1'500'000'001;
constexpr int64_t kLatchCountTrustNs = 2'000'001;
constexpr int kEventMaxFpsMode = 4196;
constexpr int kCpuBigJankBoostLevel = 5;
constexpr int kAliveAppMaxMisses = 3;
constexpr int kAliveAppMinMatches = 4;
constexpr size_t kPackagelessPrefix = 256;
constexpr size_t kMaxPackageless = 64;

std::mutex gInstanceMutex;
std::atomic<LayerManager*> gInstance{nullptr};

// A layer that sorts earlier is evicted first: unfocused, then non-game, then lower fps mode.
bool evictsBefore(const sp<LayerInfo>& a, const sp<LayerInfo>& b) {
    if (a->mFocused != b->mFocused) return !a->mFocused;
    if (a->mIsGame != b->mIsGame) return !a->mIsGame;
    return a->mFpsMode < b->mFpsMode;
}

} // namespace

bool LayerManager::LayerCandidate::updateAndCheckPromotion(int64_t now) {
    if (firstTime == 0) firstTime = now;
    const int32_t countBefore = frameCount;
    frameCount++;
    lastTime = now;
    const int64_t elapsed = now - firstTime;
    if (elapsed < kPromotionWindowNs) return false;
    if (static_cast<float>(countBefore) * 1e9f / static_cast<float>(elapsed) >= kPromotionMinFps) {
        return true;
    }
    frameCount = 1;
    firstTime = now;
    return false;
}

LayerManager* LayerManager::getInstance() {
    LayerManager* instance = gInstance.load(std::memory_order_acquire);
    if (instance) return instance;
    std::lock_guard<std::mutex> lock(gInstanceMutex);
    instance = gInstance.load(std::memory_order_relaxed);
    if (!instance) {
        instance = new LayerManager();
        gInstance.store(instance, std::memory_order_release);
    }
    return instance;
}

void LayerManager::init(bool smartTouchOrPhr, int32_t displayWidth, int32_t displayHeight) {
    if (mInitialized.load()) return;
    FeatureManager* features = FeatureManager::getInstance();
    mSmartTouchEnabled.store(smartTouchOrPhr);
    {
        Mutex::Autolock lock(mLock);
        if (features->isFeatureEnabled(CPU_BIG_JANK)) {
            mCpuBigJankThreshold = features->getCpuBigJankThresholdMs();
        }
    }
    mDisplayWidth = displayWidth;
    mDisplayHeight = displayHeight;
    mTargetFpsEnabled = features->isFeatureEnabled(TARGET_FPS);
    mTargetFpsCompensate = features->isTargetFpsCompensate();
    mGpuJankDetect.store(features->isFeatureEnabled(GPU_JANK_DETECT));
    if (mGpuJankDetect.load()) mGpuExecThresholdMult = features->getGpuMinExecTimeMult();
    mInitialized.store(true);
    PerfProxy::XLOGD(LOG_TAG, "LayerManager initialized");
}

void LayerManager::stop() {
    if (!mInitialized.exchange(false)) return;
    Mutex::Autolock lock(mLock);
    if (mGfrMonitor) mGfrMonitor->forceStop();
    if (mPhrMonitor) mPhrMonitor->forceStop(); // releases every held queue thread
    mTrackedLayerCount.store(0);
    mLayers.clear();
    mCandidates.clear();
    mAppInfoMap.clear();
    mPackageless.clear();
}

void LayerManager::initGFREnvLocked() {
    if (mGfrReady) return;
    GFRMonitor& monitor = GFRMonitor::getInstance();
    if (!monitor.init()) {
        ALOGE("Failed to initialize GFRMonitor");
        mGfrMonitor = nullptr;
        return;
    }
    monitor.setVsyncInfo(mVsyncPeriod.load(), mVsyncMode.load());
    mGfrMonitor = &monitor;
    mGfrReady = true;
    PerfProxy::XLOGD(LOG_TAG, "GFRMonitor initialized");
}

bool LayerManager::initPHREnv() {
    Mutex::Autolock lock(mLock);
    initPHREnvLocked();
    return mPhrReady;
}

void LayerManager::initPHREnvLocked() {
    if (mPhrReady || !(mSmartTouchEnabled.load() || mTargetFpsEnabled)) return;
    PHRMonitor* monitor = PHRMonitor::getInstance();
    if (!monitor->init()) {
        ALOGE("Failed to initialize PHRMonitor");
        mPhrMonitor = nullptr;
        return;
    }
    monitor->setVsyncInfo(mVsyncPeriod.load(), mVsyncMode.load());
    mPhrMonitor = monitor;
    mPhrReady = true;
    PerfProxy::XLOGD(LOG_TAG, "PHRMonitor initialized");
}

sp<LayerInfo> LayerManager::getLayer(int32_t id) {
    Mutex::Autolock lock(mLock);
    auto it = mLayers.find(id);
    return it == mLayers.end() ? nullptr : it->second;
}

sp<LayerInfo> LayerManager::getOrCreateLayer(std::string_view name, int32_t id, int32_t pid,
                                             int32_t uid, int64_t now) {
    // Whatever reads the name (classification, the promoted layer's copy and scene tag) runs
    // before the registry lock: an app's choice of name must not make other compositor threads
    // wait. The lock is taken twice; what changed in between is settled under the second.
    bool classify = false;
    std::string candidatePackage;
    {
        Mutex::Autolock lock(mLock);
        auto it = mLayers.find(id);
        if (it != mLayers.end()) return it->second;
        auto candidate = mCandidates.find(id);
        if (candidate == mCandidates.end()) {
            classify = !mCandidateLimitReached;
        } else if (now - candidate->second.firstTime >= kPromotionWindowNs &&
                   !mActiveLimitReached) {
            // Its window is long enough: this frame may promote it (or restart the window,
            // at most once per half second, and the preparation is wasted).
            candidatePackage = candidate->second.packageName;
        }
    }
    PerfProxy* perf = PerfProxy::getInstance();
    std::string classified;
    if (classify) classified = perf->getPackageName(name);
    sp<LayerInfo> prepared;
    if (!candidatePackage.empty()) {
        prepared = new LayerInfo(id, std::string(name), candidatePackage, pid, uid);
        prepared->mSceneTag = perf->getLayerSceneTag(candidatePackage, name);
    }

    bool cleanupLayers = false;
    bool cleanupCands = false;
    sp<LayerInfo> promoted;
    std::string cachedPackage;
    {
        Mutex::Autolock lock(mLock);
        auto candidate = mCandidates.find(id);
        if (candidate != mCandidates.end()) {
            if (!candidate->second.updateAndCheckPromotion(now) || mActiveLimitReached) {
                return nullptr;
            }
            // Rarely unprepared (the candidate was replaced or the limit cleared meanwhile):
            // the name is bounded, so preparing it here costs microseconds at most.
            if (!prepared || prepared->mPackageName != candidate->second.packageName) {
                prepared = new LayerInfo(id, std::string(name), candidate->second.packageName,
                                         pid, uid);
                prepared->mSceneTag = perf->getLayerSceneTag(prepared->mPackageName, name);
            }
            promoted = std::move(prepared);
            mLayers.emplace(id, promoted);
            mCandidates.erase(candidate);
            mTrackedLayerCount.fetch_add(1);
            cleanupLayers = mLayers.size() > kMaxTrackedLayers;
        } else {
            // Not classified: the id was a candidate a moment ago and has just been dropped
            // (or the limit just cleared); its next buffer classifies it.
            if (mCandidateLimitReached || !classify) return nullptr;
            std::string packageName = std::move(classified);
            if (packageName.empty() && uid >= 1) {
                auto app = mAppInfoMap.find(uid);
                if (app != mAppInfoMap.end()) {
                    packageName = app->second.packageName;
                    app->second.lastSeenTime = now;
                    cachedPackage = packageName;
                }
            }
            // Layers without a package are never tracked.
            if (packageName.empty()) {
                rememberPackagelessLocked(id, name, uid);
                return nullptr;
            }
            mPackageless.erase(id);
            cleanupCands = mCandidates.size() > kMaxCandidates;
            LayerCandidate fresh;
            fresh.packageName = std::move(packageName);
            fresh.updateAndCheckPromotion(now);
            mCandidates.emplace(id, std::move(fresh));
        }
    }
    const int shownLength = static_cast<int>(name.size());
    if (promoted) {
        PerfProxy::XLOGD(LOG_TAG, "Add new layer to full tracking: [%.*s] layer %d, pid %d, uid %d",
                         shownLength, name.data(), id, pid, uid);
    } else {
        if (!cachedPackage.empty()) {
            PerfProxy::XLOGD(LOG_TAG, "Layer [%.*s] get pkg from AppInfo cache (uid=%d): %s",
                             shownLength, name.data(), uid, cachedPackage.c_str());
        }
        PerfProxy::XLOGD(LOG_TAG, "Add new candidate layer: %d [%.*s]", id, shownLength,
                         name.data());
    }
    if (cleanupCands) cleanupCandidates(now);
    if (promoted) {
        checkAppInfo(id, promoted->mPackageName, uid, now);
        if (cleanupLayers) cleanupInactiveLayers(now);
    }
    return promoted;
}

void LayerManager::onBufferIncrement(const char* name, int32_t id, int32_t pid, int32_t uid,
                                     int64_t timestamp, bool flag, uint32_t value) {
    if (id < 1) return;
    if (!name) name = "";
    const int64_t now = platform::now();
    QueuedFrame frame;
    {
        // Steady state: one lookup and the update under a single lock.
        Mutex::Autolock lock(mLock);
        auto it = mLayers.find(id);
        if (it != mLayers.end()) {
            frame = onQueueLocked(it->second, now, flag);
        } else if (isKnownPackagelessLocked(id, name, uid)) {
            return;
        }
    }
    if (!frame.layer) {
        sp<LayerInfo> layer =
                getOrCreateLayer(PerfProxy::layerNameView(name), id, pid, uid, timestamp);
        if (!layer) return;
        Mutex::Autolock lock(mLock);
        frame = onQueueLocked(layer, now, flag);
    }
    const LayerInfo& layer = *frame.layer;

    if (frame.bigJankThresholdMs >= 1 && frame.fpsMode >= 30 &&
        frame.frameInterval >= static_cast<int64_t>(frame.bigJankThresholdMs) * 1'000'000) {
        // Name and package never change after promotion; reading them needs no lock.
        const std::string section = "Detected CPU big jank [" + layer.mName + "]";
        PerfProxy::XTRACE_BEGIN(section.c_str());
        PerfProxy::getInstance()->frameHint(kCpuBigJankBoostLevel, 0, id, layer.mPackageName, 0);
        ALOGI("Send CPU big jank [%s].", layer.mName.c_str());
        PerfProxy::XTRACE_END();
    }

    if (frame.gfr) frame.gfr->onQueueBegin(id, now, frame.frameInterval, frame.timeToPresent);
    // May hold this thread until the buffer's headroom point: never under the registry lock.
    if (frame.phr) frame.phr->onBufferIncrement(id, frame.frameInterval, now, value != 0);
    const int64_t processed = platform::now();
    frame.layer->mLastProcessedTime.store(processed, std::memory_order_relaxed);
    if (frame.gfr) frame.gfr->onQueueEnd(id, processed, frame.gfrTargetFps);
}

LayerManager::QueuedFrame LayerManager::onQueueLocked(const sp<LayerInfo>& layer, int64_t now,
                                                      bool flag) {
    if (!layer->mActive) {
        layer->mActive = true;
        layer->mRemovalDeadline = 0;
    }
    layer->mLastQueueTime = now;
    layer->mLastQueueFlag = flag;
    layer->mFrameInterval = now - layer->mLastProcessedTime.load(std::memory_order_relaxed);

    const int64_t period = mVsyncPeriod.load();
    int64_t next = period;
    if (period > 0 && layer->mLastLatchTime > 0) {
        next = period - ((now - layer->mLastLatchTime) % period);
    }
    layer->mTimeToPresent = period * layer->mPendingBuffers + next;
    layer->mPendingBuffers++;
    layer->mQueueTimes.push_back(now);

    const int32_t modeBefore = layer->mFpsMode;
    if (layer->updateFps()) {
        toggleFeaturesOnFpsLocked(*layer, layer->mFpsMode == mVsyncMode.load());
        if (layer->mFpsMode != modeBefore) {
            onFpsModeChangedLocked();
            scheduleNotifyUserScene(0);
        }
    }
    QueuedFrame frame{layer, layer->mFpsMode, layer->mFrameInterval, layer->mTimeToPresent,
                      mCpuBigJankThreshold};
    if (layer->mGfrActive && layer->mGfrRegistered && mGfrMonitor) {
        frame.gfr = mGfrMonitor;
        frame.gfrTargetFps = layer->mTargetFpsActive ? layer->mTargetFps : 0.0f;
    }
    if (layer->mPhrRegistered && mPhrMonitor) frame.phr = mPhrMonitor;
    return frame;
}

void LayerManager::onBufferDecrement(const char* name, int32_t id, int32_t pendingCount,
                                     const Rect& bounds, bool focused, bool visible) {
    if (mTrackedLayerCount.load() == 0) return;
    Mutex::Autolock lock(mLock);
    auto it = mLayers.find(id);
    if (it == mLayers.end()) return;
    LayerInfo& layer = *it->second;
    const int64_t now = platform::now();

    if (layer.mGfrActive && layer.mGfrRegistered && mGfrMonitor) {
        int32_t dropped = 0;
        const int64_t period = mVsyncPeriod.load();
        if (period > 0 && layer.mLastLatchTime > 0) {
            // Whole vsyncs since the previous latch, rounded to the nearest.
            const int64_t vsyncs = std::max<int64_t>((now + period / 2 - layer.mLastLatchTime) / period, 1);
            dropped = static_cast<int32_t>(std::min<int64_t>(vsyncs - 1, INT32_MAX));
        }
        mGfrMonitor->updateFrameDropWindow(id, dropped);
    }

    layer.mPendingLatchFenceFd = -1;
    const int32_t old = layer.mPendingBuffers;
    layer.mPendingBuffers = old - 1;
    layer.mLastLatchTime = now;
    if (old < 1) {
        layer.mPendingBuffers = pendingCount;
    } else if (old - 1 != pendingCount && now - layer.mLastQueueTime >= kLatchCountTrustNs) {
        // The compositor's count wins once no buffer was queued for 2 ms.
        layer.mPendingBuffers = pendingCount;
    }
    while (!layer.mQueueTimes.empty() &&
           static_cast<int64_t>(layer.mQueueTimes.size()) > layer.mPendingBuffers) {
        layer.mQueueTimes.pop_front();
    }

    layer.mBounds = bounds;
    layer.mFocused = focused;
    layer.mVisible = visible;

    if (focused && layer.mUid != mFocusedUid) {
        mFocusedUid = layer.mUid;
        scheduleNotifyUserScene(0);
        PerfProxy::XLOGD(LOG_TAG, "Focused app changed: uid %d, [%s]", layer.mUid,
                         layer.mName.c_str());
    }
    auto app = mAppInfoMap.find(layer.mUid);
    if (app != mAppInfoMap.end()) app->second.lastSeenTime = now;

    if (layer.mPhrConfigValid && layer.mPhrRegistered && mPhrMonitor &&
        layer.mFpsMode == mVsyncMode.load()) {
        mPhrMonitor->onBufferDecrement(id, pendingCount, now);
    }
}

bool LayerManager::isKnownPackagelessLocked(int32_t id, const char* name, int32_t uid) {
    auto it = mPackageless.find(id);
    if (it == mPackageless.end()) return false;
    const PackagelessName& known = it->second;
    const size_t n = known.prefix.size();
    const bool sameName = strncmp(name, known.prefix.c_str(), n) == 0 &&
            (n == kPackagelessPrefix || name[n] == '\0');
    // A classified app of this uid can lend the layer its package now.
    const bool appKnown = uid >= 1 && mAppInfoMap.count(uid) > 0;
    if (sameName && known.uid == uid && !appKnown) return true;
    mPackageless.erase(it);
    return false;
}

void LayerManager::rememberPackagelessLocked(int32_t id, std::string_view name, int32_t uid) {
    if (mPackageless.size() >= kMaxPackageless && mPackageless.count(id) == 0) {
        mPackageless.clear(); // bounded; a forgotten name is just examined once more
    }
    mPackageless[id] = PackagelessName{std::string(name.substr(0, kPackagelessPrefix)), uid};
}

void LayerManager::onVsync(int64_t now) {
    {
        Mutex::Autolock lock(mLock);
        if (mPhrMonitor) mPhrMonitor->onVsync(now);
        if (mLastPeriodicCheck <= 0) {
            mLastPeriodicCheck = now;
            return;
        }
        if (now - mLastPeriodicCheck < kPeriodicCheckNs) return;
        mLastPeriodicCheck = now;
        cleanupInactiveLayersLocked(now);
        cleanupCandidatesLocked(now);
    }
    // A posted check (after an fps-mode or focus change) is already on its way.
    if (!mSceneCheckPending.load()) checkMultiLayer(now);
}

void LayerManager::setVsyncPeriod(int64_t period) {
    if (mVsyncPeriod.load() == period) return;
    const int32_t mode = PerfProxy::setVsyncMode(period);
    mVsyncMode.store(mode);
    mVsyncPeriod.store(period);
    if (mode == 0) {
        ALOGE("Unexpected vsync received: %lld", static_cast<long long>(period));
        return;
    }
    {
        Mutex::Autolock lock(mLock);
        if (mGfrMonitor) mGfrMonitor->setVsyncInfo(period, mode);
        if (mPhrMonitor) mPhrMonitor->setVsyncInfo(period, mode);
    }
    PerfProxy::XLOGD(LOG_TAG, "vsync: %lld", static_cast<long long>(period));
}

void LayerManager::unblockPendingBuffer() {
    if (mTrackedLayerCount.load() == 0) return;
    Mutex::Autolock lock(mLock);
    if (!mPhrMonitor) return;
    for (const auto& [id, layer] : mLayers) {
        if (layer->mActive && layer->mPhrConfigValid && layer->mPhrRegistered) {
            mPhrMonitor->unblockBuffer(id);
        }
    }
}

void LayerManager::scheduleNotifyUserScene(int64_t delayNs) {
    mSceneCheckPending.store(true);
    postSceneCheck(delayNs);
}

void LayerManager::postSceneCheck(int64_t delayNs) {
    PerfProxy::getInstance()->postTaskDelayed(delayNs, [this] {
        const int64_t now = platform::now();
        cleanupInactiveLayers(now);
        cleanupCandidates(now);
        checkMultiLayer(now);
    });
}

void LayerManager::cleanupInactiveLayers(int64_t now) {
    Mutex::Autolock lock(mLock);
    cleanupInactiveLayersLocked(now);
}

void LayerManager::cleanupCandidates(int64_t now) {
    Mutex::Autolock lock(mLock);
    cleanupCandidatesLocked(now);
}

void LayerManager::cleanupInactiveLayersLocked(int64_t now) {
    for (auto& [id, layer] : mLayers) {
        if (layer->mActive && layer->mLastQueueTime > 0 &&
            now - layer->mLastQueueTime > kInactiveAfterNs) {
            layer->mActive = false;
            layer->mRemovalDeadline = now + kRemovalDelayNs;
            PerfProxy::XLOGD(LOG_TAG, "Layer %d [%s] marked for removal (no frame update within 1s)",
                             id, layer->mName.c_str());
            if (layer->mGfrActive && layer->mGfrRegistered && mGfrMonitor) {
                layer->mGfrActive = false;
                mGfrMonitor->setGFRActive(id, false);
            }
            if (layer->mPhrConfigValid && layer->mPhrRegistered && mPhrMonitor) {
                mPhrMonitor->setQuickTouchStatus(id, false);
            }
        }
    }

    std::vector<sp<LayerInfo>> remove;
    std::vector<sp<LayerInfo>> keepFirst;
    std::vector<sp<LayerInfo>> spare;
    for (auto& [id, layer] : mLayers) {
        if (!layer->mActive && now >= layer->mRemovalDeadline) {
            remove.push_back(layer);
        } else if (layer->mActive && layer->mVisible &&
                   (layer->mFpsMode < 0 || layer->mFpsMode > 29)) {
            keepFirst.push_back(layer);
        } else {
            spare.push_back(layer);
        }
    }

    size_t remaining = mLayers.size() - remove.size();
    if (remaining <= kMaxTrackedLayers) {
        // The candidates count too, so the flag clears only when both tables are small.
        if (mActiveLimitReached && remaining + mCandidates.size() <= kMaxTrackedLayers) {
            mActiveLimitReached = false;
            ALOGI("Active layer count dropped back within the tracking limit.");
        }
    } else {
        remove.insert(remove.end(), spare.begin(), spare.end());
        remaining -= spare.size();
        if (remaining > kMaxTrackedLayers) {
            std::sort(keepFirst.begin(), keepFirst.end(), evictsBefore);
            const size_t evict = std::min(keepFirst.size(), remaining - kMaxTrackedLayers);
            remove.insert(remove.end(), keepFirst.begin(), keepFirst.begin() + evict);
            if (!mActiveLimitReached) {
                ALOGW("Active layer count reached maximum tracking limit.");
            }
            mActiveLimitReached = true;
        }
    }
    for (const sp<LayerInfo>& layer : remove) unregisterLayerLocked(*layer);
}

void LayerManager::cleanupCandidatesLocked(int64_t now) {
    for (auto it = mCandidates.begin(); it != mCandidates.end();) {
        if (it->second.lastTime > 0 && now - it->second.lastTime >= kCandidateStaleNs) {
            PerfProxy::XLOGD(LOG_TAG, "Remove candidate layer [%d]", it->first);
            it = mCandidates.erase(it);
        } else {
            ++it;
        }
    }
    if (mCandidates.size() <= kMaxCandidates) {
        if (mCandidateLimitReached && mCandidates.size() <= kCandidateLimitClearCount) {
            mCandidateLimitReached = false;
            ALOGI("Candidate layer count dropped back within the tracking limit.");
        }
        return;
    }
    std::vector<std::pair<int32_t, int64_t>> byAge;
    byAge.reserve(mCandidates.size());
    for (const auto& [id, candidate] : mCandidates) byAge.emplace_back(id, candidate.lastTime);
    std::sort(byAge.begin(), byAge.end(),
              [](const auto& a, const auto& b) { return a.second < b.second; });
    const size_t excess = mCandidates.size() - kMaxCandidates;
    for (size_t i = 0; i < excess; i++) {
        PerfProxy::XLOGD(LOG_TAG, "Force remove candidate layer [%d]", byAge[i].first);
        mCandidates.erase(byAge[i].first);
    }
    mCandidateLimitReached = true;
    ALOGW("Candidate layer count reached maximum tracking limit.");
}

void LayerManager::unregisterLayerLocked(LayerInfo& layer) {
    const int32_t id = layer.mId;
    const std::string name = layer.mName;
    if (layer.mGfrRegistered && mGfrMonitor) mGfrMonitor->unregisterLayer(id);
    if (layer.mPhrRegistered && mPhrMonitor) mPhrMonitor->unregisterLayer(id);
    mLayers.erase(id);
    mTrackedLayerCount.fetch_sub(1);
    if (id == mMaxFpsModeLayerId) onFpsModeChangedLocked();
    PerfProxy::XLOGD(LOG_TAG, "Unregistered layer %d: [%s]", id, name.c_str());
}

void LayerManager::toggleFeaturesOnFpsLocked(LayerInfo& layer, bool matchesVsyncMode) {
    const bool eligible = matchesVsyncMode && layer.mGameWeight != -1 && layer.mVisible;
    const bool headroomWanted = layer.mPhrConfigValid || layer.mTargetFps > 0.0f;
    if (!eligible) {
        if (layer.mGfrActive && layer.mGfrRegistered && mGfrMonitor) {
            layer.mGfrActive = false;
            mGfrMonitor->setGFRActive(layer.mId, false);
        }
        if (layer.mPhrConfigValid && layer.mPhrRegistered && mPhrMonitor) {
            mPhrMonitor->setQuickTouchStatus(layer.mId, false);
        }
    } else {
        if (!mGfrReady && layer.mGfrEnabled) initGFREnvLocked();
        if (layer.mGfrEnabled && !layer.mGfrActive && mGfrMonitor) {
            if (!layer.mGfrRegistered) {
                mGfrMonitor->registerLayer(layer.mId, layer.mName, layer.mPackageName);
                layer.mGfrRegistered = true;
                PerfProxy::XLOGD(LOG_TAG, "GFR: Registered layer %d [%s]", layer.mId,
                                 layer.mName.c_str());
            }
            layer.mGfrActive = true;
            mGfrMonitor->setGFRActive(layer.mId, true);
        }
        if (!mPhrReady && headroomWanted) initPHREnvLocked();
        if (headroomWanted && mPhrMonitor) {
            if (!layer.mPhrRegistered) {
                mPhrMonitor->registerLayer(layer.mId, layer.mName, layer.mPhrMinRate,
                                           layer.mHighFpsPhrMinRate);
                layer.mPhrRegistered = true;
                PerfProxy::XLOGD(LOG_TAG, "PHR: Registered layer %d [%s]", layer.mId,
                                 layer.mName.c_str());
            }
            if (!layer.mTargetFpsActive && layer.mTargetFps > 0.0f && layer.mFps > layer.mTargetFps) {
                layer.mTargetFpsActive = true;
                mPhrMonitor->setTargetFpsStatus(layer.mId, true, layer.mFps, layer.mTargetFps);
            }
        }
    }
    // A paced layer that can no longer reach its target (2 fps of slack) stops pacing, unless a
    // smooth switch is still under way or compensation is not allowed.
    if (mPhrMonitor && mTargetFpsEnabled && layer.mPhrRegistered && layer.mTargetFpsActive &&
        layer.mFps < layer.mTargetFps - 2.0f && !mPhrMonitor->isTargetFpsSwitching(layer.mId) &&
        mTargetFpsCompensate) {
        layer.mTargetFpsActive = false;
        mPhrMonitor->setTargetFpsStatus(layer.mId, false, layer.mFps, layer.mTargetFps);
    }
    checkAliveAppLocked(layer);
}

void LayerManager::checkAliveAppLocked(LayerInfo& layer) {
    if (mAliveAppMissCount < 0 && layer.mAliveAppMatchCount < 1) return;
    if (layer.mPackageName == mCheckingAliveApp) {
        layer.mAliveAppMatchCount++;
        mAliveAppMissCount = -1;
    } else {
        mAliveAppMissCount++;
    }
    if (mAliveAppMissCount < kAliveAppMaxMisses && layer.mAliveAppMatchCount < kAliveAppMinMatches) {
        return;
    }
    FeatureManager::getInstance()->processAliveAppCheck(layer.mPackageName);
    mAliveAppMissCount = -1;
    layer.mAliveAppMatchCount = 0;
    mCheckingAliveApp.clear();
}

void LayerManager::onFpsModeChangedLocked() {
    const LayerInfo* best = nullptr;
    int32_t bestMode = -1;
    for (const auto& [id, layer] : mLayers) {
        if (layer->mFpsMode > bestMode) {
            bestMode = layer->mFpsMode;
            best = layer.get();
        }
    }
    PerfProxy* perf = PerfProxy::getInstance();
    if (best) {
        mMaxFpsModeLayerId = best->mId;
        mMaxFpsMode = best->mFpsMode;
        int args[2] = {0, mMaxFpsMode};
        perf->perfEvent(kEventMaxFpsMode, best->mPackageName.c_str(), 2, args);
        PerfProxy::XLOGD(LOG_TAG, "Update MaxInfo: pkgName %s mode: %d layerId: %d",
                         best->mPackageName.c_str(), mMaxFpsMode, mMaxFpsModeLayerId);
    } else if (mMaxFpsMode != -1) {
        mMaxFpsMode = -1;
        mMaxFpsModeLayerId = -1;
        int args[2] = {0, -1};
        perf->perfEvent(kEventMaxFpsMode, "null", 2, args);
        PerfProxy::XLOGD(LOG_TAG, "Update MaxInfo: Reset to default");
    }
}

std::optional<LayerManager::LayerStatus> LayerManager::getLayerStatus(int32_t id) {
    Mutex::Autolock lock(mLock);
    auto it = mLayers.find(id);
    if (it == mLayers.end()) return std::nullopt;
    const LayerInfo& layer = *it->second;
    LayerStatus status;
    status.packageName = layer.mPackageName;
    status.sceneTag = layer.mSceneTag;
    status.active = layer.mActive;
    status.fpsMode = layer.mFpsMode;
    status.pendingBuffers = layer.mPendingBuffers;
    status.queuedTimes = layer.mQueueTimes.size();
    status.removalDeadline = layer.mRemovalDeadline;
    status.lastQueueFlag = layer.mLastQueueFlag;
    status.isGame = layer.mIsGame;
    status.gfrActive = layer.mGfrActive;
    status.gfrRegistered = layer.mGfrRegistered;
    status.phrRegistered = layer.mPhrRegistered;
    status.targetFpsActive = layer.mTargetFpsActive;
    status.targetFps = layer.mTargetFps;
    return status;
}

size_t LayerManager::candidateCount() {
    Mutex::Autolock lock(mLock);
    return mCandidates.size();
}

bool LayerManager::isActiveLimitReached() {
    Mutex::Autolock lock(mLock);
    return mActiveLimitReached;
}

bool LayerManager::isCandidateLimitReached() {
    Mutex::Autolock lock(mLock);
    return mCandidateLimitReached;
}

int32_t LayerManager::maxFpsMode() {
    Mutex::Autolock lock(mLock);
    return mMaxFpsMode;
}

size_t LayerManager::appInfoCount() {
    Mutex::Autolock lock(mLock);
    return mAppInfoMap.size();
}

std::optional<LayerManager::AppInfo> LayerManager::getAppInfo(int32_t uid) {
    Mutex::Autolock lock(mLock);
    auto it = mAppInfoMap.find(uid);
    if (it == mAppInfoMap.end()) return std::nullopt;
    return it->second;
}

int32_t LayerManager::lowLatencyPid() {
    Mutex::Autolock lock(mLock);
    return mLowLatencyPid;
}

int32_t LayerManager::cpuBigJankThresholdMs() {
    Mutex::Autolock lock(mLock);
    return mCpuBigJankThreshold;
}

} // namespace android
