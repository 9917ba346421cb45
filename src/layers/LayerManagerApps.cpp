// App identity of tracked layers and their reactions to per-app configuration pushes.
#define LOG_TAG "Pelyx.LayerManager"

#include <log/log.h>

#include <cmath>
#include <vector>

#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "platform/Clock.h"

namespace android {
namespace {

constexpr size_t kMaxAppInfos = 10;
constexpr int64_t kConcurrencyCheckDelayNs = 1'500'000'000;
constexpr float kHighFpsDisplay = 61.0f;
constexpr float kRateEpsilon = 0.01f;

// The host app gets frame rescue only in its mini-game scene.
bool frameRescueAllowed(const LayerInfo& layer) {
    return layer.mPackageName != "com.tencent.mm" || layer.mSceneTag == "minigame";
}

} // namespace

void LayerManager::checkAppInfo(int32_t layerId, const std::string& packageName, int32_t uid,
                                int64_t now) {
    {
        Mutex::Autolock lock(mLock);
        auto app = mAppInfoMap.find(uid);
        if (app != mAppInfoMap.end()) {
            app->second.lastSeenTime = now;
            auto it = mLayers.find(layerId);
            if (it != mLayers.end()) {
                LayerInfo* layer = it->second.get();
                layer->mIsGame = app->second.isGame;
                layer->mGameWeight = app->second.gameWeight;
                loadFeatureConfigsLocked(layer);
                setLowLatencyAppLocked(layer);
            }
            return;
        }
    }
    // Classification asks the service and may block: never on the compositor's thread.
    PerfProxy::getInstance()->postTask([this, layerId, packageName, uid, now] {
        gameLayerChecker(layerId, packageName, uid, now);
    });
}

void LayerManager::gameLayerChecker(int32_t layerId, const std::string& packageName, int32_t uid,
                                    int64_t now) {
    sp<LayerInfo> layer = getLayer(layerId);
    if (!layer) return;
    PerfProxy::XTRACE_BEGIN("game layer checker");
    PerfProxy* perf = PerfProxy::getInstance();
    const bool isGame = perf->isGameApp(packageName);
    const int32_t weight = perf->getGameWeight(packageName);
    {
        Mutex::Autolock lock(mLock);
        layer->mGameWeight = weight;
        layer->mIsGame = isGame;
        loadFeatureConfigsLocked(layer.get());
        setLowLatencyAppLocked(layer.get());

        if (mAppInfoMap.size() >= kMaxAppInfos) {
            auto oldest = mAppInfoMap.begin();
            for (auto it = mAppInfoMap.begin(); it != mAppInfoMap.end(); ++it) {
                if (it->second.lastSeenTime < oldest->second.lastSeenTime) oldest = it;
            }
            PerfProxy::XLOGD(LOG_TAG, "Remove oldest app from mAppInfoMap: [%s]",
                             oldest->second.packageName.c_str());
            mAppInfoMap.erase(oldest);
        }
        mAppInfoMap.emplace(uid, AppInfo{packageName, uid, isGame, weight, now});
    }
    PerfProxy::XLOGD(LOG_TAG, "game layer checker: [%s] layer %d, isGame %d, weight %d",
                     layer->mName.c_str(), layerId, isGame, weight);
    PerfProxy::XTRACE_END();
}

// FeatureManager's table locks are leaves (it never calls back while holding one), so the
// lookups are safe under the registry mutex.
void LayerManager::loadFeatureConfigsLocked(LayerInfo* layer) {
    FeatureManager* features = FeatureManager::getInstance();
    const std::string& pkg = layer->mPackageName;
    layer->mGfrEnabled = features->getGFRTunables(pkg, layer->mIsGame).has_value() &&
            frameRescueAllowed(*layer);
    if (layer->mIsGame) {
        auto phr = features->getPhrConfig(pkg, true);
        layer->mPhrConfigValid = phr.has_value();
        if (phr) {
            layer->mPhrMinRate = phr->phrMinRate;
            layer->mHighFpsPhrMinRate = phr->highFpsPhrMinRate;
        }
    }
    auto tfps = features->getTfpsConfig(pkg, layer->mIsGame);
    layer->mTargetFps = tfps ? tfps->targetFps : 0.0f;
}

std::optional<std::string> LayerManager::blindModePackage() {
    Mutex::Autolock lock(mLock);
    for (const auto& [id, layer] : mLayers) {
        if (layer->mIsGame && !layer->mPackageName.empty()) {
            PerfProxy::XLOGD(LOG_TAG, "Feature config blind mode select %s",
                             layer->mPackageName.c_str());
            return layer->mPackageName;
        }
    }
    return std::nullopt;
}

void LayerManager::onFeatureConfigChanged(Feature feature, const std::string& packageName) {
    if (!isInitialized()) {
        ALOGE("LayerManager not initialized");
        return;
    }
    std::string pkg = packageName;
    const bool perLayer = feature == QUICK_TOUCH || feature == FRAME_RESCUE || feature == TARGET_FPS;
    if (perLayer && pkg.empty()) {
        auto selected = blindModePackage();
        if (!selected) return;
        pkg = *selected;
    }
    FeatureManager* features = FeatureManager::getInstance();
    switch (feature) {
        case QUICK_TOUCH:
            onQuickTouchConfigChanged(pkg);
            break;
        case FRAME_RESCUE:
            onFrameRescueConfigChanged(pkg);
            break;
        case TARGET_FPS:
            onTargetFpsConfigChanged(pkg);
            break;
        case CPU_BIG_JANK: {
            const int32_t threshold = features->getCpuBigJankThresholdMs();
            Mutex::Autolock lock(mLock);
            mCpuBigJankThreshold = threshold;
            PerfProxy::XLOGD(LOG_TAG, "OnFeatureConfigChanged - CPU_BIG_JANK: mCpuBigJankThreshold=%dms",
                             threshold);
            break;
        }
        case ACTV_NON_GAME_RESUME: {
            const std::string checking = features->getCheckingAliveApp();
            Mutex::Autolock lock(mLock);
            mCheckingAliveApp = checking;
            // A package to check arms the alive-app check of the next measuring windows.
            mAliveAppMissCount = checking.empty() ? -1 : 0;
            PerfProxy::XLOGD(LOG_TAG, "OnFeatureConfigChanged - ACTV_NON_GAME_RESUME: checkingAliveApp=%s",
                             checking.c_str());
            break;
        }
        case ACTV_IF_CONCURRENCY:
            mConcurrencyEvent.store(true);
            postSceneCheck(kConcurrencyCheckDelayNs);
            PerfProxy::XLOGD(LOG_TAG, "OnFeatureConfigChanged - ACTV_IF_CONCURRENCY");
            break;
        case ACTV_SWITCHING:
            mActvStable.store(features->isActvStable());
            PerfProxy::XLOGD(LOG_TAG, "OnFeatureConfigChanged - ACTV_SWITCHING: mActvStable=%s",
                             mActvStable.load() ? "true" : "false");
            break;
        default:
            PerfProxy::XLOGD(LOG_TAG, "Unknown feature");
            break;
    }
}

void LayerManager::onQuickTouchConfigChanged(const std::string& pkg) {
    const auto config = FeatureManager::getInstance()->getPhrConfig(pkg, true);
    const int64_t period = mVsyncPeriod.load();
    const bool highFps = period > 0 && 1e9f / static_cast<float>(period) >= kHighFpsDisplay;
    const float newMin = config ? config->phrMinRate : 0.0f;
    const float newHighMin = config ? config->highFpsPhrMinRate : 0.0f;
    if (mTrackedLayerCount.load() == 0) return;

    Mutex::Autolock lock(mLock);
    bool logged = false;
    for (auto& [id, layer] : mLayers) {
        if (layer->mPackageName != pkg) continue;
        if (config) {
            const float current = highFps ? layer->mHighFpsPhrMinRate : layer->mPhrMinRate;
            const float next = highFps ? newHighMin : newMin;
            if (std::fabs(current - next) > kRateEpsilon) {
                layer->mPhrMinRate = newMin;
                layer->mHighFpsPhrMinRate = newHighMin;
                if (layer->mPhrRegistered && mPhrMonitor) {
                    mPhrMonitor->updateHeadRoom(id, newMin, newHighMin);
                }
            }
        } else if (layer->mPhrRegistered && mPhrMonitor) {
            mPhrMonitor->setQuickTouchStatus(id, false);
        }
        layer->mPhrConfigValid = config.has_value();
        if (!logged) {
            PerfProxy::XLOGD(LOG_TAG,
                             "OnFeatureConfigChanged - QUICK_TOUCH: set enabled=%d, phrMinRate=%.2f, "
                             "highFpsPhrMinRate=%.2f, pkgName=%s",
                             config.has_value(), newMin, newHighMin, pkg.c_str());
            logged = true;
        }
    }
}

void LayerManager::onFrameRescueConfigChanged(const std::string& pkg) {
    const auto tunables = FeatureManager::getInstance()->getGFRTunables(pkg, true);
    if (mTrackedLayerCount.load() == 0) return;

    Mutex::Autolock lock(mLock);
    bool logged = false;
    for (auto& [id, layer] : mLayers) {
        if (layer->mPackageName != pkg) continue;
        const bool enabled = tunables.has_value() && frameRescueAllowed(*layer);
        const bool registered = layer->mGfrRegistered && mGfrMonitor;
        if (enabled != layer->mGfrEnabled) {
            // Re-armed, if still wanted, at the layer's next measuring window.
            layer->mGfrEnabled = enabled;
            layer->mGfrActive = false;
            if (registered) mGfrMonitor->setGFRActive(id, false);
        }
        if (enabled && registered) mGfrMonitor->updateLayerTunables(id, *tunables);
        if (!logged) {
            PerfProxy::XLOGD(LOG_TAG, "OnFeatureConfigChanged - FRAME_RESCUE: gfrEnabled=%d, pkgName=%s",
                             enabled, pkg.c_str());
            logged = true;
        }
    }
}

void LayerManager::onTargetFpsConfigChanged(const std::string& pkg) {
    if (!mTargetFpsEnabled || mTrackedLayerCount.load() == 0) return;
    FeatureManager* features = FeatureManager::getInstance();
    const auto global = features->getTfpsConfig(pkg, true);
    const auto own = features->getTfpsConfig(pkg, false);

    Mutex::Autolock lock(mLock);
    bool logged = false;
    for (auto& [id, layer] : mLayers) {
        if (layer->mPackageName != pkg) continue;
        // Games fall back to the global rate, as when their configuration was first loaded.
        const auto& config = layer->mIsGame ? global : own;
        const float target = config ? config->targetFps : 0.0f;
        if (target != layer->mTargetFps) {
            layer->mTargetFps = target;
            const bool active = target > 0.0f && target < layer->mFps;
            if (layer->mPhrRegistered && mPhrMonitor && (layer->mTargetFpsActive || active)) {
                layer->mTargetFpsActive = active;
                mPhrMonitor->setTargetFpsStatus(id, active, layer->mFps, target);
            }
        }
        if (!logged) {
            PerfProxy::XLOGD(LOG_TAG, "OnFeatureConfigChanged - TARGET_FPS: targetFps=%.2f, pkgName=%s",
                             target, pkg.c_str());
            logged = true;
        }
    }
}

void LayerManager::setLowLatencyAppLocked(LayerInfo* layer) {
    if (layer && layer->mPid == mLowLatencyPid) return;
    PerfProxy* perf = PerfProxy::getInstance();
    if (layer && layer->mPid >= 1 && layer->mIsGame) {
        mLowLatencyPid = layer->mPid;
        perf->setLowLatency(mLowLatencyPid, true);
        PerfProxy::XLOGD(LOG_TAG, "SetLowLatency true for pid=%d", mLowLatencyPid);
        return;
    }
    if (mLowLatencyPid >= 1) {
        perf->setLowLatency(mLowLatencyPid, false);
        PerfProxy::XLOGD(LOG_TAG, "SetLowLatency false for pid=%d", mLowLatencyPid);
        mLowLatencyPid = -1;
    }
}

} // namespace android
