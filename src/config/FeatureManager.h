#pragma once

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config/AppConfig.h"
#include "config/GfrTunables.h"

namespace android {

class PerfProxy;

// Switchable features. The values travel as numbers (announcements, log lines): never renumber.
enum Feature : int32_t {
    DEBUG = 0,
    ENABLE = 1,
    QUICK_TOUCH = 2,
    FRAME_RESCUE = 3,
    TARGET_FPS = 4,
    CPU_BIG_JANK = 5,
    ACTV_NON_GAME_RESUME = 6,
    ACTV_IF_CONCURRENCY = 7,
    ACTV_SWITCHING = 8,
    GPU_JANK_DETECT = 9,
};

// Process-wide configuration: feature switches and tunables read once from system properties at
// construction, one watched property (the CPU big-jank threshold), and the per-app tables the
// performance service fills at run time.
//
// Threading: flags are written only by the constructor; afterwards they are read without locks.
// Each per-app table has its own lock, never nested with another, and no lock is held while
// LayerManager is told about a change. Hints arrive on the service's callback thread; lookups
// come from compositor and monitor threads and return copies.
class FeatureManager {
public:
    static FeatureManager* getInstance();
    // The instance if it was already created, else nullptr. Never creates it.
    static FeatureManager* peekInstance();

    bool isFeatureEnabled(Feature feature) const;
    float getDefaultMaxHeadroomRate(bool highFps) const { return highFps ? 1.8f : 0.9f; }
    bool isTfpsConfigured() const EXCLUDES(mTfpsLock);
    int getCpuBigJankThresholdMs() const { return mCpuBigJankThresholdMs.load(); }
    float getFrameResendVariation() const { return mFrameResendVariation; }
    float getGpuMinExecTimeMult() const { return mGpuMinExecTimeMult; }
    int32_t getTargetFpsSwitchTime() const { return mTargetFpsSwitchTime; }
    bool isTargetFpsCompensate() const { return mTargetFpsCompensate; }
    bool isPhrDynamicEnabled() const { return mPHRDynamicEnable; }
    std::string getCheckingAliveApp() const EXCLUDES(mAliveLock);
    bool isActvStable() const { return mActvStable.load(); }

    // Starts the detached watcher thread of one property; it calls onPropChanged after every
    // change for the life of the process.
    void propertyMonitor(const std::string& name);
    void onPropChanged(const std::string& name);
    // Consumes a pending alive-app check: fires the resume event when the checked package is
    // part of layerName. Call only while a check is pending.
    void processAliveAppCheck(const std::string& layerName) EXCLUDES(mAliveLock);

    // The single entry for hints from the performance service (its callback thread). Hostile
    // input is logged and dropped; tables are left as they were.
    void setCallbackHintValue(int hintId, const std::string& text, int value, int value2,
                              const std::vector<int>& values);
    bool setTargetFps(const std::string& pkg, float fps) EXCLUDES(mTfpsLock);
    void setPhrMinRate(const std::string& pkg, const std::vector<int>& values) EXCLUDES(mPhrLock);
    std::optional<std::string> setGFRProp(const std::string& text, const std::vector<int>& values)
            EXCLUDES(mGfrLock);

    std::optional<TfpsConfig> getTfpsConfig(const std::string& pkg, bool useGlobal) const
            EXCLUDES(mTfpsLock);
    std::optional<PhrConfig> getPhrConfig(const std::string& pkg, bool useGlobal) const
            EXCLUDES(mPhrLock);
    std::optional<GfrTunables> getGFRTunables(const std::string& pkg, bool useGlobal) const
            EXCLUDES(mGfrLock);

    // Parses a tunables text ("golden=0.8_jank=1.2;1.5;2.0_dynamic=1") on top of *out. All or
    // nothing: on any invalid item *out is left untouched and false is returned.
    static bool parseGFRTunables(const std::string& text, GfrTunables* out);

    ~FeatureManager();

private:
    FeatureManager();
    FeatureManager(const FeatureManager&) = delete;
    FeatureManager& operator=(const FeatureManager&) = delete;

    // Drops what a new entry for pkg replaces (everything for the global key; the global entry
    // and pkg's own otherwise) and evicts the least recently updated entry of a full table.
    // The caller holds the table's lock.
    template <typename Config>
    static void preClearConfigLocked(std::map<std::string, Config>& table, const std::string& pkg,
                                     Feature feature);
    template <typename Config>
    static std::optional<Config> lookup(const std::map<std::string, Config>& table,
                                        const std::string& pkg, bool useGlobal);
    static void announce(Feature feature, const std::string& pkg);
    void onTargetFpsHint(const std::string& text, int value);
    void onActvHint(const std::string& text, int value, int value2) EXCLUDES(mAliveLock);
    bool parseGlobalJankThresholds(const std::string& text, GfrTunables* out) const;

    std::map<std::string, Feature> mPropertyFeatures;
    PerfProxy* mPerfProxy = nullptr;
    bool mDebug = false;
    bool mEnable = true;
    bool mTargetFpsEnable = false;
    bool mTargetFpsCompensate = false;
    int32_t mTargetFpsSwitchTime = -1; // seconds; -1: never read
    mutable Mutex mTfpsLock;
    std::map<std::string, TfpsConfig> mTfpsConfigs GUARDED_BY(mTfpsLock);
    bool mQuickTouchEnable = false;
    bool mPHRDynamicEnable = false;
    mutable Mutex mPhrLock;
    std::map<std::string, PhrConfig> mPhrConfigs GUARDED_BY(mPhrLock);
    float mFrameResendVariation = 0.0f;
    mutable Mutex mGfrLock;
    std::map<std::string, GfrTunables> mGfrConfigs GUARDED_BY(mGfrLock);
    float mGpuMinExecTimeMult = 1.0f;
    bool mGpuJankDetect = false;
    bool mCpuBigJankDetect = false;
    std::atomic<int32_t> mCpuBigJankThresholdMs{0};
    // Written by the service's callback thread, consumed on a compositor thread.
    mutable Mutex mAliveLock;
    std::string mCheckingAliveApp GUARDED_BY(mAliveLock);
    std::atomic<bool> mActvStable{false};
};

} // namespace android
