#define LOG_TAG "Pelyx.FeatureManager"

#include "config/FeatureManager.h"

#include <android-base/parsebool.h>
#include <log/log.h>

#include <cstdlib>
#include <mutex>
#include <sstream>

#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "platform/Clock.h"
#include "platform/Properties.h"

namespace android {
namespace {

constexpr const char* kBigJankThresholdProp = "debug.perf.cpu_big_jank_threshold_ms";
constexpr const char* kThermalHandler = "vn-core-thermalCallbackHandler";

constexpr int kHintTargetFps = 4171;
constexpr int kHintPhrMinRate = 4187;
constexpr int kHintGfr = 4189;
constexpr int kHintActv = 4192;
constexpr int kEventAliveAppResume = 4099;
constexpr size_t kMaxTableEntries = 4;

std::mutex gInstanceMutex;
std::atomic<FeatureManager*> gInstance{nullptr};

// Service answers are at most 91 characters: the property value limit.
std::string readServiceProp(PerfProxy* proxy, const char* name, const char* defaultValue) {
    return proxy->perfGetProp(name, defaultValue).value;
}

bool parseBool(const std::string& text) {
    return base::ParseBool(text) == base::ParseBoolResult::kTrue;
}

template <typename T>
T extract(const std::string& text) {
    std::istringstream in(text);
    T value{};
    if (!(in >> value)) value = T{};
    return value;
}

} // namespace

FeatureManager* FeatureManager::getInstance() {
    FeatureManager* instance = gInstance.load(std::memory_order_acquire);
    if (instance) return instance;
    std::lock_guard<std::mutex> lock(gInstanceMutex);
    instance = gInstance.load(std::memory_order_relaxed);
    if (!instance) {
        instance = new FeatureManager();
        gInstance.store(instance, std::memory_order_release);
    }
    return instance;
}

FeatureManager* FeatureManager::peekInstance() {
    return gInstance.load(std::memory_order_acquire);
}

FeatureManager::FeatureManager() {
    mPropertyFeatures.emplace(kBigJankThresholdProp, CPU_BIG_JANK);
    mPerfProxy = PerfProxy::getInstance();

    mDebug = parseBool(readServiceProp(mPerfProxy, "vendor.perf.pelyx.debug", "0"));
    const bool profile = parseBool(readServiceProp(mPerfProxy, "vendor.perf.pelyx.profile", "0"));
    PerfProxy::setDebuggable(mDebug, profile);

    mEnable = parseBool(readServiceProp(mPerfProxy, "vendor.perf.pelyx.enable", "1"));
    if (!mEnable) return;

    mQuickTouchEnable = parseBool(readServiceProp(mPerfProxy, "vendor.perf.phr.enable", "0"));
    if (mQuickTouchEnable) {
        mPHRDynamicEnable =
                parseBool(readServiceProp(mPerfProxy, "vendor.perf.phr.dynamic.enable", "true"));
    }

    mTargetFpsEnable =
            parseBool(readServiceProp(mPerfProxy, "vendor.ruvo.enable.target_fps", "false"));
    if (mTargetFpsEnable) {
        mTargetFpsSwitchTime = extract<int32_t>(
                readServiceProp(mPerfProxy, "vendor.ruvo.target_fps.switch_time", "0"));
        mTargetFpsCompensate = parseBool(
                readServiceProp(mPerfProxy, "vendor.ruvo.target_fps.compensate", "true"));
        if (mDebug) {
            ALOGD("Target fps switch time is %d seconds, compensation is %d.",
                  mTargetFpsSwitchTime, mTargetFpsCompensate);
        }
    }

    const std::string resendText = readServiceProp(
            mPerfProxy, "vendor.perf.game_frame_rescue.headroom_resend_var", "0.2");
    mFrameResendVariation = extract<float>(resendText);
    if (mFrameResendVariation > 0.0f && mFrameResendVariation < 1.0f) {
        PerfProxy::XLOGD(LOG_TAG, "FrameResendVariation: %s", resendText.c_str());
    } else {
        mFrameResendVariation = 0.2f;
        ALOGE("Invalid FrameResendVariation: %s, fall back to %s", resendText.c_str(), "0.2");
    }

    mGpuJankDetect =
            parseBool(readServiceProp(mPerfProxy, "vendor.perf.gpu_jank_detect.enable", "false"));
    if (mGpuJankDetect) {
        const std::string multText = readServiceProp(
                mPerfProxy, "vendor.perf.gpu_jank_filter.min_exec_time_mult", "1.0");
        mGpuMinExecTimeMult = extract<float>(multText);
        if (!(mGpuMinExecTimeMult > 0.0f)) {
            mGpuMinExecTimeMult = 1.0f;
            ALOGE("Invalid GpuMinExecTimeMult: %s, fall back to %s", multText.c_str(), "1.0");
        }
    }

    PerfProxy::XLOGD(LOG_TAG, "[TFPS:%d][QuickTouch:%d, mPHRDynamicEnable:%d][GpuJankDetect:%d]",
                     mTargetFpsEnable, mQuickTouchEnable, mPHRDynamicEnable, mGpuJankDetect);

    mCpuBigJankDetect = platform::getBoolProperty("debug.perf.enable_big_jank_detect", false);
    if (mCpuBigJankDetect) {
        mCpuBigJankThresholdMs.store(static_cast<int32_t>(
                platform::getIntProperty(kBigJankThresholdProp, 0, INT32_MIN, INT32_MAX)));
        propertyMonitor(kBigJankThresholdProp);
    }
}

FeatureManager::~FeatureManager() = default;

bool FeatureManager::isFeatureEnabled(Feature feature) const {
    switch (feature) {
        case DEBUG: return mDebug;
        case ENABLE: return mEnable;
        case QUICK_TOUCH: return mQuickTouchEnable;
        case FRAME_RESCUE: return true;
        case TARGET_FPS: return mTargetFpsEnable;
        case CPU_BIG_JANK: return mCpuBigJankDetect;
        case ACTV_NON_GAME_RESUME:
        case ACTV_IF_CONCURRENCY:
        case ACTV_SWITCHING: return false;
        case GPU_JANK_DETECT: return mGpuJankDetect;
    }
    return false;
}

bool FeatureManager::isTfpsConfigured() const {
    Mutex::Autolock lock(mTfpsLock);
    return !mTfpsConfigs.empty();
}

std::string FeatureManager::getCheckingAliveApp() const {
    Mutex::Autolock lock(mAliveLock);
    return mCheckingAliveApp;
}

void FeatureManager::propertyMonitor(const std::string& name) {
    // Taken before the thread starts so that a change made right after this call is seen.
    uint32_t serial = platform::propertySerial(name);
    platform::Thread watcher;
    if (!watcher.start("property watcher", [this, name, serial]() mutable {
            for (;;) {
                if (platform::waitForPropertyChange(name, &serial)) onPropChanged(name);
            }
        })) {
        ALOGE("Failed to start the watcher of %s", name.c_str());
        return;
    }
    watcher.detach();
}

void FeatureManager::onPropChanged(const std::string& name) {
    const std::string value = platform::getProperty(name, "0");
    if (mDebug) ALOGD("[Prop Changed: %s: %s]", name.c_str(), value.c_str());

    auto it = mPropertyFeatures.find(name);
    if (it == mPropertyFeatures.end() || it->second != CPU_BIG_JANK) return;
    const auto threshold = static_cast<int32_t>(
            platform::getIntProperty(kBigJankThresholdProp, 0, INT32_MIN, INT32_MAX));
    mCpuBigJankThresholdMs.store(threshold);
    if (threshold < 1) {
        ALOGE("Invalid thresholdMs of cpu_big_jank, disabled");
    } else {
        ALOGI("The thresholdMs of cpu_big_jank is %dms", threshold);
    }
    announce(CPU_BIG_JANK, "");
}

void FeatureManager::processAliveAppCheck(const std::string& layerName) {
    std::string checking;
    {
        // One-shot: the request is consumed whichever way it goes.
        Mutex::Autolock lock(mAliveLock);
        checking.swap(mCheckingAliveApp);
    }
    if (layerName.find(checking) != std::string::npos && mPerfProxy) {
        PerfProxy::XLOGD(LOG_TAG, "The checked app is still alive, trigger its resume logic");
        mPerfProxy->perfEvent(kEventAliveAppResume, checking.c_str(), 0, nullptr);
    } else {
        PerfProxy::XLOGD(LOG_TAG, "The checked app is no longer alive. Cancel check");
    }
}

void FeatureManager::announce(Feature feature, const std::string& pkg) {
    LayerManager::getInstance()->onFeatureConfigChanged(feature, pkg);
}

void FeatureManager::setCallbackHintValue(int hintId, const std::string& text, int value,
                                          int value2, const std::vector<int>& values) {
    switch (hintId) {
        case kHintTargetFps:
            onTargetFpsHint(text, value);
            break;
        case kHintPhrMinRate:
            setPhrMinRate(text, values);
            announce(QUICK_TOUCH, text);
            break;
        case kHintGfr:
            if (auto pkg = setGFRProp(text, values)) announce(FRAME_RESCUE, *pkg);
            break;
        case kHintActv:
            onActvHint(text, value, value2);
            break;
        default:
            break;
    }
}

void FeatureManager::onTargetFpsHint(const std::string& text, int value) {
    std::string pkg;
    float fps;
    if (PerfProxy::isNumericString(text)) {
        fps = strtof(text.c_str(), nullptr);
    } else {
        fps = static_cast<float>(value / 100.0);
        pkg = text == kThermalHandler ? std::string() : text;
    }
    if (setTargetFps(pkg, fps)) announce(TARGET_FPS, pkg);
}

void FeatureManager::onActvHint(const std::string& text, int value, int value2) {
    switch (value) {
        case 0: {
            {
                Mutex::Autolock lock(mAliveLock);
                mCheckingAliveApp = text;
            }
            announce(ACTV_NON_GAME_RESUME, text);
            break;
        }
        case 1:
            announce(ACTV_IF_CONCURRENCY, text);
            break;
        case 2:
            mActvStable.store(value2 == 0);
            announce(ACTV_SWITCHING, text);
            break;
        default:
            break;
    }
}

bool FeatureManager::setTargetFps(const std::string& pkg, float fps) {
    if (fps < 0.0f || fps > 240.0f || fps != fps) {
        ALOGE("Invalid target fps found: %.2f", fps);
        return false;
    }
    {
        Mutex::Autolock lock(mTfpsLock);
        preClearConfigLocked(mTfpsConfigs, pkg, TARGET_FPS);
        if (fps > 0.0f) mTfpsConfigs[pkg] = TfpsConfig{fps, platform::now()};
    }
    ALOGD("pkg = %s, targetFps = %f", pkg.c_str(), fps);
    return true;
}

void FeatureManager::setPhrMinRate(const std::string& pkg, const std::vector<int>& values) {
    if (!isFeatureEnabled(QUICK_TOUCH)) {
        PerfProxy::XLOGD(LOG_TAG, "set PhrMinRate fail, Quick Touch disable!");
        return;
    }
    // Pairs of (key, rate); only the positions matter.
    const float phrMinRate = values.size() >= 2 ? static_cast<float>(values[1] / 100.0) : 0.0f;
    const float highFpsPhrMinRate =
            values.size() >= 4 ? static_cast<float>(values[3] / 100.0) : 0.0f;
    {
        Mutex::Autolock lock(mPhrLock);
        preClearConfigLocked(mPhrConfigs, pkg, QUICK_TOUCH);
        if (phrMinRate > 0.0f || highFpsPhrMinRate > 0.0f) {
            mPhrConfigs[pkg] = PhrConfig{phrMinRate, highFpsPhrMinRate, platform::now()};
        }
    }
    ALOGD("pkg=%s, phrMinRate=%f, highFpsPhrMinRate=%f", pkg.c_str(), phrMinRate,
          highFpsPhrMinRate);
}

std::optional<std::string> FeatureManager::setGFRProp(const std::string& text,
                                                      const std::vector<int>& values) {
    const size_t colon = text.find(':');
    const std::string pkg = colon == std::string::npos ? std::string() : text.substr(0, colon);
    const std::string tunablesText = colon == std::string::npos ? text : text.substr(colon + 1);

    if (values.empty()) return std::nullopt;
    const int flag = values[0];
    if (static_cast<unsigned>(flag) > 2u) {
        ALOGE("Invalid gfrFlag: %d", flag);
        return std::nullopt;
    }
    if (flag == 0) {
        Mutex::Autolock lock(mGfrLock);
        preClearConfigLocked(mGfrConfigs, pkg, FRAME_RESCUE);
        return pkg;
    }

    GfrTunables tunables;
    {
        Mutex::Autolock lock(mGfrLock);
        auto it = mGfrConfigs.find(pkg);
        if (it != mGfrConfigs.end()) tunables = it->second;
    }
    tunables.flag = flag;

    const auto& jank = tunables.jankThresholds;
    auto jankAt = [&](size_t i) { return i < jank.size() ? jank[i] : 0.0f; };
    if (pkg.empty()) {
        if (!parseGlobalJankThresholds(tunablesText, &tunables)) return std::nullopt;
        ALOGD("pkg=%s GFRProp: flag=%d jankThresholds=%.2f;%.2f;%.2f", pkg.c_str(), flag,
              jankAt(0), jankAt(1), jankAt(2));
    } else {
        if (!parseGFRTunables(tunablesText, &tunables)) {
            ALOGE("Invalid GFR tunables: %s", tunablesText.c_str());
            return std::nullopt;
        }
        const auto& freq = tunables.baseFreq;
        auto freqAt = [&](size_t i) { return i < freq.size() ? freq[i] : 0; };
        ALOGD("pkg=%s GFRProp: flag=%d dynamic=%s lowerBoost=%s golden=%.2fvsync "
              "minDelay=%.2fvsync kFactor=%.2f baseFreq=%d;%d;%d jankThresholds=%.2f;%.2f;%.2f "
              "entries",
              pkg.c_str(), flag, tunables.dynamic ? "true" : "false",
              tunables.lowerBoost ? "true" : "false", tunables.golden, tunables.minDelay,
              tunables.kFactor, freqAt(0), freqAt(1), freqAt(2), jankAt(0), jankAt(1), jankAt(2));
    }

    Mutex::Autolock lock(mGfrLock);
    preClearConfigLocked(mGfrConfigs, pkg, FRAME_RESCUE);
    tunables.updateTime = platform::now();
    mGfrConfigs[pkg] = tunables;
    return pkg;
}

// The global entry's text is up to three thresholds in vsync periods: "1.2;1.6;2.0".
bool FeatureManager::parseGlobalJankThresholds(const std::string& text, GfrTunables* out) const {
    std::vector<float> thresholds;
    size_t pos = 0;
    while (pos < text.size() && thresholds.size() < 3) {
        size_t end = text.find(';', pos);
        if (end == std::string::npos) end = text.size();
        const std::string item = text.substr(pos, end - pos);
        pos = end + 1;
        char* parsedEnd = nullptr;
        const float value = strtof(item.c_str(), &parsedEnd);
        if (item.empty() || parsedEnd != item.c_str() + item.size() || value != value) {
            ALOGE("Invalid parameters for GFR jank thresholds: %s", text.c_str());
            return false;
        }
        if (thresholds.empty() && !(value > 1.0f)) {
            ALOGE("Invalid GFR jank thresholds: %s. Must be > 1 vsync.", text.c_str());
            return false;
        }
        if (!thresholds.empty() && !(value > thresholds.back())) {
            ALOGE("Invalid GFR jank thresholds: %s. Must be strictly increasing.", text.c_str());
            return false;
        }
        thresholds.push_back(value);
    }
    if (!thresholds.empty()) out->jankThresholds = thresholds;
    return true;
}

template <typename Config>
void FeatureManager::preClearConfigLocked(std::map<std::string, Config>& table,
                                          const std::string& pkg, Feature feature) {
    if (pkg.empty()) {
        table.clear();
        return;
    }
    table.erase(std::string());
    table.erase(pkg);
    if (table.size() < kMaxTableEntries) return;
    auto oldest = table.begin();
    for (auto it = table.begin(); it != table.end(); ++it) {
        if (it->second.updateTime < oldest->second.updateTime) oldest = it;
    }
    PerfProxy::XLOGD(LOG_TAG, "Feature(%d) LRU remove [%s]", feature, oldest->first.c_str());
    table.erase(oldest);
}

template <typename Config>
std::optional<Config> FeatureManager::lookup(const std::map<std::string, Config>& table,
                                             const std::string& pkg, bool useGlobal) {
    auto it = table.find(pkg);
    if (it == table.end() && useGlobal) it = table.find(std::string());
    if (it == table.end()) return std::nullopt;
    return it->second;
}

std::optional<TfpsConfig> FeatureManager::getTfpsConfig(const std::string& pkg,
                                                        bool useGlobal) const {
    if (!isFeatureEnabled(TARGET_FPS)) return std::nullopt;
    Mutex::Autolock lock(mTfpsLock);
    return lookup(mTfpsConfigs, pkg, useGlobal);
}

std::optional<PhrConfig> FeatureManager::getPhrConfig(const std::string& pkg,
                                                      bool useGlobal) const {
    if (!isFeatureEnabled(QUICK_TOUCH)) return std::nullopt;
    Mutex::Autolock lock(mPhrLock);
    return lookup(mPhrConfigs, pkg, useGlobal);
}

std::optional<GfrTunables> FeatureManager::getGFRTunables(const std::string& pkg,
                                                          bool useGlobal) const {
    Mutex::Autolock lock(mGfrLock);
    return lookup(mGfrConfigs, pkg, useGlobal);
}

} // namespace android
