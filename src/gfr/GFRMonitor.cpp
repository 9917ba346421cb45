#define LOG_TAG "Pelyx.GFRMonitor"

#include "gfr/GFRMonitor.h"

#include <log/log.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <utility>

#include "config/FeatureManager.h"
#include "perf/PerfProxy.h"
#include "platform/Clock.h"
#include "platform/Threads.h"

namespace android {
namespace {

constexpr const char* kTag = LOG_TAG;
constexpr float kFpsEpsilon = 0.01f;
constexpr int32_t kFrequencyFloorMHz = 100;
constexpr int32_t kExtremeDropFrames = 10;
constexpr uint64_t kRecentDropMask = 0xFFFF; // the last 16 frames

// Float to integer, truncated toward zero; out-of-range values saturate instead of being
// undefined (tunables and fps reach here from outside).
template <typename Int>
Int truncSaturated(float value) {
    constexpr float kLimit = static_cast<float>(std::numeric_limits<Int>::max()) + 1.0f; // 2^n
    if (std::isnan(value)) return 0;
    if (value >= kLimit) return std::numeric_limits<Int>::max();
    if (value <= -kLimit) return std::numeric_limits<Int>::min();
    return static_cast<Int>(value);
}

int32_t clampToInt32(int64_t value) {
    return static_cast<int32_t>(std::clamp<int64_t>(value, std::numeric_limits<int32_t>::min(),
                                                    std::numeric_limits<int32_t>::max()));
}

uint64_t absDiff(int64_t a, int64_t b) {
    return a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                 : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

int32_t baseFreqAt(const GfrTunables& tunables, size_t index) {
    return index < tunables.baseFreq.size() ? tunables.baseFreq[index] : 0;
}

} // namespace

GFRMonitor& GFRMonitor::getInstance() {
    // Never destroyed: "BLT" may still be polling when the process exits.
    static GFRMonitor* sInstance = new GFRMonitor();
    return *sInstance;
}

// ---- Lifecycle ----

bool GFRMonitor::init() {
    Mutex::Autolock lifecycle(mLifecycleLock);
    // A second thread on the same monitor would leave the first unjoinable.
    if (mRunning.load()) return true;

    sp<TimerQueue> queue = new TimerQueue();
    sp<TimerQueue> previous;
    {
        Mutex::Autolock lock(mMutex);
        previous = std::move(mQueue);
        if (queue->isInitialized()) mQueue = queue;
    }
    previous.clear(); // its pending checks are released uncalled, outside the monitor mutex
    if (!queue->isInitialized()) return false;

    mRunning.store(true);
    if (mThread.joinable()) mThread.join();
    if (!mThread.start("BLT", [this] { monitorThreadMain(); })) {
        ALOGE("Failed to create GFRMonitor thread");
        mRunning.store(false);
        Mutex::Autolock lock(mMutex);
        mQueue.clear();
        return false;
    }
    PerfProxy::XLOGD(kTag, "GFRMonitor thread started");
    return true;
}

void GFRMonitor::monitorThreadMain() {
    platform::setThreadName("BLT");
    if (!mRunning.load()) return;
    platform::setLoopThreadPriority(kTag);
    sp<TimerQueue> queue;
    {
        Mutex::Autolock lock(mMutex);
        queue = mQueue; // init set it before starting us; forceStop keeps it
    }
    if (queue) runTimerLoop(*queue, kTag, [this] { return mRunning.load(); });
    PerfProxy::XLOGD(kTag, "GFRMonitor thread exited");
}

void GFRMonitor::forceStop() {
    Mutex::Autolock lifecycle(mLifecycleLock);
    // Cleared before the wake so the loop sees it.
    if (!mRunning.exchange(false)) return;

    sp<TimerQueue> queue;
    {
        Mutex::Autolock lock(mMutex);
        for (auto& [id, state] : mLayers) {
            state->mActive = false;
            cancelPendingChecksLocked(*state);
        }
        queue = mQueue;
    }
    if (queue) queue->wake();
    if (mThread.joinable()) {
        if (mThread.isCurrent()) {
            mThread.detach();
        } else {
            mThread.join();
        }
    }
    {
        Mutex::Autolock lock(mMutex);
        mLayers.clear();
    }
    PerfProxy::XLOGD(kTag, "GFRMonitor stopped");
}

// ---- Layers ----

void GFRMonitor::registerLayer(int32_t layerId, const std::string& layerName,
                               const std::string& packageName) {
    // Outside the monitor mutex: FeatureManager takes its own table lock.
    const GfrTunables tunables =
            FeatureManager::getInstance()->getGFRTunables(packageName, true).value_or(GfrTunables());

    sp<LayerGFRState> state = new LayerGFRState(layerId, layerName, packageName);
    state->mTunables = tunables;
    state->mMaxFreq = LayerGFRState::maxFrequencyOf(tunables);
    sp<LayerGFRState> replaced;
    {
        Mutex::Autolock lock(mMutex);
        checkAndUpdateCacheLocked(*state, mVsyncPeriod, 0.0f, false);
        auto [it, inserted] = mLayers.try_emplace(layerId, state);
        if (!inserted) {
            // The old state's pending check stays queued: it meets the new state's frame token
            // and ends as a finished frame. The old state is released outside the mutex.
            replaced = std::move(it->second);
            it->second = state;
        }
    }

    PerfProxy::XLOGD(kTag,
                     "GFR Layer %d (%s): dynamic=%s allowSkipOrLower=%s golden=%.2fvsync "
                     "minDelay=%.2fvsync K=%.2f baseFreq=%d;%d;%d",
                     layerId, layerName.c_str(), tunables.dynamic ? "true" : "false",
                     tunables.lowerBoost ? "true" : "false", tunables.golden, tunables.minDelay,
                     tunables.kFactor, baseFreqAt(tunables, 0), baseFreqAt(tunables, 1),
                     baseFreqAt(tunables, 2));
}

void GFRMonitor::unregisterLayer(int32_t layerId) {
    {
        Mutex::Autolock lock(mMutex);
        auto it = mLayers.find(layerId);
        if (it != mLayers.end()) {
            cancelPendingChecksLocked(*it->second);
            mLayers.erase(it);
        }
    }
    PerfProxy::XLOGD(kTag, "GFR: Unregistered layer %d", layerId);
}

void GFRMonitor::setGFRActive(int32_t layerId, bool active) {
    {
        Mutex::Autolock lock(mMutex);
        auto it = mLayers.find(layerId);
        if (it == mLayers.end()) return;
        LayerGFRState& state = *it->second;
        state.mActive = active;
        if (!active) cancelPendingChecksLocked(state);
    }
    PerfProxy::XLOGD(kTag, "Layer %d %s GFR", layerId, active ? "enable" : "disable");
}

void GFRMonitor::setVsyncInfo(int64_t vsyncPeriodNs, int32_t /*vsyncMode*/) {
    Mutex::Autolock lock(mMutex);
    mVsyncPeriod = vsyncPeriodNs;
}

void GFRMonitor::updateLayerTunables(int32_t layerId, const GfrTunables& tunables) {
    {
        Mutex::Autolock lock(mMutex);
        auto it = mLayers.find(layerId);
        if (it == mLayers.end()) return;
        LayerGFRState& state = *it->second;
        state.mTunables = tunables;
        state.mMaxFreq = LayerGFRState::maxFrequencyOf(tunables);
        // Keep the rate the cache was built on: a paced layer stays on its paced period.
        checkAndUpdateCacheLocked(state, mVsyncPeriod, state.mFps, true);
    }
    PerfProxy::XLOGD(kTag,
                     "updateLayerTunables layer %d: dynamic=%d lowerBoost=%d golden=%.2fvsync "
                     "minDelay=%.2fvsync K=%.2f baseFreq=%d;%d;%d",
                     layerId, tunables.dynamic, tunables.lowerBoost, tunables.golden,
                     tunables.minDelay, tunables.kFactor, baseFreqAt(tunables, 0),
                     baseFreqAt(tunables, 1), baseFreqAt(tunables, 2));
}

// ---- Frames ----

void GFRMonitor::onQueueBegin(int32_t layerId, int64_t frameStart, int64_t frameTime,
                              int64_t jankHeadroom) {
    Mutex::Autolock lock(mMutex);
    auto it = mLayers.find(layerId);
    if (it == mLayers.end() || !it->second->mActive) return;
    LayerGFRState& state = *it->second;

    if (state.mPendingCheckId != 0) {
        PerfProxy::XTRACE_FORMAT("frame finish, [%s]", state.mLayerName.c_str());
        cancelPendingChecksLocked(state);
    }
    state.mFrameToken = frameStart;
    state.mJankHeadroom = jankHeadroom;
    state.mFrameTime = frameTime;
    state.mWakeupFlags = 0;
    PerfProxy::XTRACE_FORMAT("frameTime = %lld, frameHeadroom = %lld, jankHeadroom = %lld, [%s]",
                             static_cast<long long>(frameTime),
                             static_cast<long long>(mVsyncPeriod - frameTime),
                             static_cast<long long>(jankHeadroom), state.mLayerName.c_str());
    checkAndUpdateCacheLocked(state, mVsyncPeriod, 0.0f, false);
    state.mDeadline = mVsyncPeriod + jankHeadroom + frameStart;
    state.mFirstCheckAdjust = 0;
    sendFrameHintLocked(state);
    state.mPrevFrameTime = frameTime;
}

void GFRMonitor::onQueueEnd(int32_t layerId, int64_t queueEndTime, float fps) {
    Mutex::Autolock lock(mMutex);
    auto it = mLayers.find(layerId);
    if (it == mLayers.end() || !it->second->mActive) return;
    LayerGFRState& state = *it->second;

    state.mQueueEndTime = queueEndTime;
    if (state.mTunables.jankThresholds.empty()) return;
    if (std::fabs(state.mFps - fps) > kFpsEpsilon) {
        checkAndUpdateCacheLocked(state, mVsyncPeriod, fps, false);
    }
    if (state.mTunables.dynamic && state.mActive && !state.mCheckTimes.empty()) {
        // Fire golden ns before the deadline, but never sooner than min delay after the queue end.
        const int64_t t0 = state.mCheckTimes[0];
        const int64_t remaining = state.mDeadline - (state.mQueueEndTime + t0);
        state.mFirstCheckAdjust = remaining >= state.mGoldenNs
                ? 0
                : std::max(t0 - state.mGoldenNs + remaining, state.mMinDelayNs);
    }
    scheduleNextCheckLocked(layerId, state, state.mFrameToken, 0);
}

void GFRMonitor::updateFrameDropWindow(int32_t layerId, int32_t droppedFrames) {
    // Read before the monitor mutex: FeatureManager is never called under it.
    const bool debug = FeatureManager::getInstance()->isFeatureEnabled(DEBUG);
    Mutex::Autolock lock(mMutex);
    auto it = mLayers.find(layerId);
    if (it == mLayers.end()) return;
    uint64_t& window = it->second->mFrameDropWindow;

    if (droppedFrames >= kExtremeDropFrames) {
        window = 0;
        PerfProxy::XTRACE_FORMAT("[FrameDrop] Extreme drop detected (%d frames), reset window",
                                 droppedFrames);
        return;
    }
    window <<= 1;
    if (droppedFrames >= 1) window |= (uint64_t{1} << droppedFrames) - 1;
    if (debug) {
        PerfProxy::XTRACE_FORMAT(
                "[FrameDrop] drops64=%d/64, drops32=%d/32, drops16=%d/16, current=%d frames",
                __builtin_popcountll(window), __builtin_popcountll(window & 0xFFFFFFFFull),
                __builtin_popcountll(window & kRecentDropMask), droppedFrames);
    }
}

// ---- Checks ----

void GFRMonitor::GFRHandler::handleMessage(const Message& /*message*/) {
    // Nothing may escape into the loop thread.
    try {
        mMonitor->runCheck(mLayerId, mLevel, mFrameToken);
    } catch (const std::exception& e) {
        ALOGE("Exception caught: %s in %s", e.what(), "GFRHandler");
    } catch (...) {
        ALOGE("Exception caught in %s", "GFRHandler");
    }
}

void GFRMonitor::runCheck(int32_t layerId, int32_t level, int64_t frameToken) {
    Mutex::Autolock lock(mMutex);
    auto it = mLayers.find(layerId);
    if (it == mLayers.end()) return;
    LayerGFRState& state = *it->second;
    // The token, not the cancellation, is what makes a check that lost the race harmless.
    if (frameToken != state.mFrameToken) {
        PerfProxy::XTRACE_FORMAT("frame finish, [%s]", state.mLayerName.c_str());
        return;
    }
    if (!state.mActive) return;

    int32_t freq = level >= 0 ? baseFreqAt(state.mTunables, static_cast<size_t>(level)) : 0;
    if (state.mTunables.dynamic) {
        state.mWakeupFlags = 0;
        freq = calculateBoostFrequencyOnWakeupLocked(state, level, freq);
        state.mLastBoostFreq = freq;
    }
    state.mBoosted = true;
    // Sent under the monitor mutex so that a frame begin cannot slip between hint and state.
    PerfProxy::getInstance()->frameHint(level + 1, clampToInt32(state.mJankHeadroom),
                                        state.mLayerId, state.mPackageName, freq);
    state.mPendingCheckId = 0;
    if (static_cast<size_t>(level) + 1 < state.mCheckTimes.size()) {
        scheduleNextCheckLocked(layerId, state, frameToken, level + 1);
    }
}

void GFRMonitor::checkAndUpdateCacheLocked(LayerGFRState& state, int64_t vsyncPeriod, float fps,
                                           bool force) {
    int64_t period = vsyncPeriod;
    if (fps > kFpsEpsilon) period = truncSaturated<int64_t>(1e9f / fps);
    // A forced update goes ahead even without a usable period: its check times come out zero
    // or negative, so the checks fire at once rather than never.
    if (!force && (period < 1 || period == state.mFramePeriod)) return;

    state.mFps = fps;
    state.mFramePeriod = period;
    state.mVsyncPeriodSeen = vsyncPeriod;
    const float periodF = static_cast<float>(period);
    state.mResendVariation = truncSaturated<int64_t>(
            FeatureManager::getInstance()->getFrameResendVariation() * periodF);
    const auto& thresholds = state.mTunables.jankThresholds;
    state.mCheckTimes.resize(thresholds.size());
    for (size_t i = 0; i < thresholds.size(); ++i) {
        state.mCheckTimes[i] = truncSaturated<int64_t>(thresholds[i] * periodF);
    }
    state.mMinDelayNs = truncSaturated<int64_t>(state.mTunables.minDelay * periodF);
    state.mGoldenNs = truncSaturated<int64_t>(state.mTunables.golden * periodF);
}

int64_t GFRMonitor::computeCheckTime(const LayerGFRState& state, int32_t level, int64_t now) {
    if (level == 0) {
        return state.mQueueEndTime +
                (state.mFirstCheckAdjust >= 1 ? state.mFirstCheckAdjust : state.mCheckTimes[0]);
    }
    // Later gaps run from the moment the previous check ran, not from the queue end.
    return now + (state.mCheckTimes[level] - state.mCheckTimes[level - 1]);
}

void GFRMonitor::scheduleNextCheckLocked(int32_t layerId, LayerGFRState& state,
                                         int64_t frameToken, int32_t level) {
    if (level < 0 || static_cast<size_t>(level) >= state.mCheckTimes.size()) return;
    const int64_t now = platform::now();
    if (level == 0 && state.mFirstCheckAdjust >= 1) {
        PerfProxy::XTRACE_FORMAT("[GFR2.0] L0 timer adjusted: delayTime=%lldns",
                                 static_cast<long long>(state.mFirstCheckAdjust));
    }
    const int64_t target = computeCheckTime(state, level, now);
    // The kernel timer runs on the real clock: it only ever gets the relative delay.
    const int64_t delay = std::max<int64_t>(target - now, 0);
    if (!mQueue) return;
    // Only a frame begin cancels: a second frame end for the same frame leaves the first check
    // pending, and its token still matches.
    sp<MessageHandler> handler = new GFRHandler(this, layerId, level, frameToken);
    state.mPendingCheckId = mQueue->sendMessageDelayed(delay, handler, Message(0));
    state.mPendingCheckTime = target;
}

void GFRMonitor::cancelPendingChecksLocked(LayerGFRState& state) {
    if (state.mPendingCheckId == 0) return;
    if (mQueue) mQueue->cancelTask(state.mPendingCheckId);
    state.mPendingCheckId = 0;
}

void GFRMonitor::sendFrameHintLocked(LayerGFRState& state) {
    bool send;
    if (state.mTunables.flag & 2) {
        // Also tell the driver when the frame time moved, boosted or not.
        const bool steady = state.mResendVariation >= 0 &&
                absDiff(state.mFrameTime, state.mPrevFrameTime) <=
                        static_cast<uint64_t>(state.mResendVariation);
        send = !(steady && !state.mBoosted);
    } else {
        send = state.mBoosted;
    }
    if (!send) return;
    state.mBoosted = false;
    PerfProxy::getInstance()->frameHint(0, clampToInt32(state.mFrameTime), state.mLayerId,
                                        state.mPackageName, 0);
}

// ---- Boost frequency ----

int32_t GFRMonitor::calculateBoostFrequencyOnWakeupLocked(LayerGFRState& state, int32_t level,
                                                          int32_t baseFreq) {
    const size_t levels = state.mCheckTimes.size();
    if (level < 0 || static_cast<size_t>(level) >= levels) {
        PerfProxy::XTRACE_FORMAT("[GFR2.0] Invalid level: %d", level);
        return baseFreq;
    }
    const int32_t cap = state.mMaxFreq;
    if (level == 0 && state.mFirstCheckAdjust >= 1) {
        state.mWakeupFlags |= LayerGFRState::kFirstCheckMoved;
    }
    const int64_t ttd = state.mDeadline - platform::now();

    int32_t result;
    // The last level and a passed deadline skip the raise, the floor and the cap on purpose.
    if (static_cast<size_t>(level) + 1 >= levels) {
        state.mWakeupFlags |= LayerGFRState::kLastLevel;
        result = baseFreq;
    } else if (ttd < 0) {
        state.mWakeupFlags |= LayerGFRState::kDeadlinePassed;
        result = std::max(baseFreq, state.mLastBoostFreq);
    } else {
        int32_t freq = calculateFrequencyByTTDLocked(state, ttd, baseFreq);
        if (state.mTunables.histJank) freq = enhancedFreqByFrameDropWindowLocked(state, freq);
        if (freq < kFrequencyFloorMHz) {
            state.mWakeupFlags |= LayerGFRState::kBelowFloor;
            freq = 0;
        }
        if (freq > cap) {
            state.mWakeupFlags |= LayerGFRState::kCapped;
            result = cap;
        } else {
            result = freq;
        }
    }
    PerfProxy::XTRACE_PROFILE("[GFR2.0] L%d: ttd=%lldns base=%d MHz final_freq=%d MHz flags=0x%03x",
                              level, static_cast<long long>(ttd), baseFreq, result,
                              state.mWakeupFlags);
    return result;
}

int32_t GFRMonitor::calculateFrequencyByTTDLocked(LayerGFRState& state, int64_t ttd,
                                                  int32_t baseFreq) {
    const int64_t golden = state.mGoldenNs;
    if (golden < 1 || state.mFramePeriod <= 0) {
        PerfProxy::XLOGD(kTag, "[GFR2.0] Invalid golden threshold or targetFrameTime, using base freq");
        state.mWakeupFlags |= LayerGFRState::kInvalidGolden;
        return baseFreq;
    }
    if (ttd <= 2 * golden) {
        // base at 2 x golden, (1 + k) x base at golden, (1 + 2k) x base at the deadline.
        const float scale = state.mTunables.kFactor * static_cast<float>(2 * golden - ttd) /
                static_cast<float>(golden);
        state.mWakeupFlags |=
                golden < ttd ? LayerGFRState::kScaledNear : LayerGFRState::kScaledUrgent;
        const int32_t freq = truncSaturated<int32_t>((scale + 1.0f) * static_cast<float>(baseFreq));
        return freq < 0 ? 0 : freq;
    }
    if (state.mTunables.lowerBoost) {
        state.mWakeupFlags |= LayerGFRState::kFarLowered;
        return 0;
    }
    state.mWakeupFlags |= LayerGFRState::kFarBase;
    return baseFreq;
}

int32_t GFRMonitor::enhancedFreqByFrameDropWindowLocked(LayerGFRState& state, int32_t freq) {
    const uint64_t window = state.mFrameDropWindow;
    const int drops64 = __builtin_popcountll(window);
    const bool recent = (window & kRecentDropMask) != 0;
    if (recent && drops64 > 2) {
        state.mWakeupFlags |= LayerGFRState::kDropRaiseHalf;
        return clampToInt32(int64_t{freq} + (freq >> 1));
    }
    if (recent || drops64 >= 3) {
        state.mWakeupFlags |= LayerGFRState::kDropRaiseQuarter;
        return clampToInt32(int64_t{freq} + (freq >> 2));
    }
    return freq;
}

} // namespace android
