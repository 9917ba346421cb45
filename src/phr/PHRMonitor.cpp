#define LOG_TAG "Pelyx.PHRMonitor"

#include "phr/PHRMonitor.h"

#include <log/log.h>
#include <utils/Timers.h>

#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

#include "config/FeatureManager.h"
#include "perf/PerfProxy.h"
#include "platform/Clock.h"
#include "platform/Threads.h"

namespace android {
namespace {

constexpr const char* kTag = "Pelyx.PHRMonitor";
constexpr int32_t kHighFpsClass = 61;
constexpr int32_t kQuickTouchBacklog = 31;
constexpr int32_t kBufferDropWaitLimit = 29;
constexpr int64_t kRecentJankNs = 999'999'999;
// The idle worker re-checks its state this often; a vsync or a stop wakes it at once anyway.
constexpr int64_t kIdleWaitNs = 250'000'000;

} // namespace

PHRMonitor* PHRMonitor::getInstance() {
    static PHRMonitor* sInstance = [] {
        PHRMonitor* monitor = new PHRMonitor();
        // Never destroyed (compositor threads may call in until the very end), but stopped at
        // exit so that no queue thread stays held and the worker is gone before teardown.
        std::atexit([] { PHRMonitor::getInstance()->forceStop(); });
        return monitor;
    }();
    return sInstance;
}

PHRMonitor::~PHRMonitor() {
    forceStop();
}

bool PHRMonitor::init() {
    Mutex::Autolock lock(mStartLock);
    if (mThread.joinable()) return true; // forceStop joins under this lock: still running

    const FeatureManager* features = FeatureManager::getInstance();
    mDefaultMaxHeadroomRate.store(features->getDefaultMaxHeadroomRate(false));
    mHighFpsDefaultMaxHeadroomRate.store(features->getDefaultMaxHeadroomRate(true));
    mDynamicHeadroom.store(features->isPhrDynamicEnabled());
    mTargetFpsSwitchTime.store(features->getTargetFpsSwitchTime());
    mTargetFpsCompensate.store(features->isTargetFpsCompensate());

    mRunning.store(true);
    uint64_t seen;
    {
        // Read here, not on the worker: a vsync right after init must not be lost.
        Mutex::Autolock lock(mThreadLock);
        seen = mVsyncSequence;
    }
    if (!mThread.start("PHR", [this, seen] { threadMain(seen); })) {
        ALOGE("PHRMonitor thread creation failed");
        mRunning.store(false);
        return false;
    }
    return true;
}

void PHRMonitor::forceStop() {
    {
        Mutex::Autolock lock(mStartLock);
        if (!mRunning.exchange(false)) return;
        {
            Mutex::Autolock threadLock(mThreadLock);
            mThreadCondition.broadcast();
        }
        if (mThread.joinable()) {
            if (mThread.isCurrent()) {
                mThread.detach();
            } else {
                mThread.join();
            }
        }
    }
    std::map<int32_t, sp<LayerPHRState>> dropped;
    {
        // The quick-touch layer id is kept, as re-registration keeps it.
        Mutex::Autolock layersLock(mLayersLock);
        dropped.swap(mLayers);
    }
    for (auto& entry : dropped) entry.second->detach();
    PerfProxy::XLOGD(kTag, "PHRMonitor stopped");
}

// ---- Worker ----

void PHRMonitor::threadMain(uint64_t seen) {
    platform::setThreadName("PHR");
    platform::setLoopThreadPriority(kTag);
    while (mRunning.load()) {
        if (!waitForVsync(&seen)) break;
        PerfProxy::XTRACE_BEGIN("wait for preset headroom");
        const int32_t layerId = mQuickTouchLayerId.load();
        sp<LayerPHRState> state = layerId == -1 ? nullptr : getLayerState(layerId);
        if (state == nullptr) {
            PerfProxy::XTRACE_END();
            continue;
        }
        // Release at the point of this vsync interval where a buffer queued now would have
        // exactly the target headroom.
        const int64_t period = mVsyncPeriod.load();
        const int64_t headroom = state->mHeadroom.load();
        const int64_t wait = period - (period > 0 ? headroom % period : 0);
        if (wait >= 1 && !waitForReleasePoint(wait, &seen)) {
            PerfProxy::XTRACE_END();
            break;
        }
        // A buffer already queued in this vsync was judged by the hold itself.
        if (state->mQueuedSinceVsync.load() == 0) state->releaseAtVsyncPoint();
        PerfProxy::XTRACE_END();
        state.clear(); // may destroy a state removed meanwhile
    }
    const int32_t layerId = mQuickTouchLayerId.load();
    sp<LayerPHRState> state = layerId == -1 ? nullptr : getLayerState(layerId);
    if (state != nullptr) state->releaseWaiter();
    PerfProxy::XLOGD(kTag, "PHRMonitor thread exited");
}

bool PHRMonitor::waitForVsync(uint64_t* seen) {
    Mutex::Autolock lock(mThreadLock);
    while (mRunning.load() && mVsyncSequence == *seen) {
        mThreadCondition.waitRelative(mThreadLock, kIdleWaitNs);
    }
    *seen = mVsyncSequence;
    return mRunning.load();
}

bool PHRMonitor::waitForReleasePoint(int64_t waitNs, uint64_t* seen) {
    Mutex::Autolock lock(mThreadLock);
    const int64_t deadline = platform::waitClockNow() + std::min(waitNs, LayerPHRState::kMaxWaitNs);
    while (mRunning.load() && mVsyncSequence == *seen) {
        const int64_t remaining = deadline - platform::waitClockNow();
        if (remaining <= 0) break;
        mThreadCondition.waitRelative(mThreadLock, remaining);
    }
    *seen = mVsyncSequence; // a vsync that cut the wait short is spent on this release
    return mRunning.load();
}

// ---- Layers ----

void PHRMonitor::registerLayer(int32_t layerId, const std::string& name, float phrMinRate,
                               float highFpsPhrMinRate) {
    sp<LayerPHRState> state = new LayerPHRState(layerId, name);
    sp<LayerPHRState> replaced;
    {
        // The quick-touch layer id stays: the new record starts with quick touch off, and only
        // this layer may switch it on again.
        Mutex::Autolock layersLock(mLayersLock);
        sp<LayerPHRState>& slot = mLayers[layerId];
        replaced = std::move(slot);
        slot = state;
    }
    if (replaced != nullptr) replaced->detach();
    const int32_t fps = mDisplayFps.load();
    state->updateHeadRoom(phrMinRate, highFpsPhrMinRate, mVsyncPeriod.load(), fps,
                          maxRateForFps(fps));
}

void PHRMonitor::unregisterLayer(int32_t layerId) {
    sp<LayerPHRState> removed;
    {
        Mutex::Autolock quickTouchLock(mQuickTouchLock);
        if (mQuickTouchLayerId.load() == layerId) mQuickTouchLayerId.store(-1);
        Mutex::Autolock layersLock(mLayersLock);
        auto it = mLayers.find(layerId);
        if (it == mLayers.end()) return;
        removed = std::move(it->second);
        mLayers.erase(it);
    }
    removed->detach();
    if (removed->mFrameTimeSliceOpen.exchange(false)) {
        PerfProxy::XTRACE_ASYNC_END(removed->mFrameTimeTrack.c_str(), layerId);
    }
    PerfProxy::XLOGD(kTag, "Layer %d destroyed", layerId);
}

sp<LayerPHRState> PHRMonitor::getLayerState(int32_t layerId) const {
    Mutex::Autolock lock(mLayersLock);
    auto it = mLayers.find(layerId);
    return it == mLayers.end() ? nullptr : it->second;
}

size_t PHRMonitor::layerCount() const {
    Mutex::Autolock lock(mLayersLock);
    return mLayers.size();
}

// ---- Vsync, queue, latch ----

void PHRMonitor::setVsyncInfo(int64_t periodNs, int32_t fps) {
    // Deliberately keyed on the period alone: an fps change without one is not stored.
    if (mVsyncPeriod.load() == periodNs) return;
    mVsyncPeriod.store(periodNs);
    mDisplayFps.store(fps);
    std::vector<int32_t> ids;
    {
        Mutex::Autolock lock(mLayersLock);
        ids.reserve(mLayers.size());
        for (const auto& entry : mLayers) ids.push_back(entry.first);
    }
    for (int32_t id : ids) updateHeadRoom(id, -1.0f, -1.0f);
}

void PHRMonitor::onVsync(int64_t /*timestamp*/) {
    const int32_t layerId = mQuickTouchLayerId.load();
    if (layerId == -1) return;
    sp<LayerPHRState> state = getLayerState(layerId);
    if (state == nullptr) return;
    state->mQueuedSinceVsync.store(0);
    PerfProxy::XTRACE_NAME("onVsync");
    Mutex::Autolock lock(mThreadLock);
    mVsyncSequence++;
    mThreadCondition.signal();
}

void PHRMonitor::onBufferIncrement(int32_t layerId, int64_t frameTimeNs, int64_t queueTimeNs,
                                   bool instant) {
    sp<LayerPHRState> state = getLayerState(layerId);
    if (state == nullptr) return;
    if (state->mQuickTouchActive.load()) checkAndUpdateHeadroom(state.get(), frameTimeNs);
    // Frame-time track: the time between queues; headroom track: the time a buffer was held.
    // A frame-time slice is ended only if one was begun, so the trace stays balanced from a
    // layer's first buffer and across tracing being switched on mid-run.
    if (state->mFrameTimeSliceOpen.exchange(false)) {
        PerfProxy::XTRACE_ASYNC_END(state->mFrameTimeTrack.c_str(), layerId);
    }
    PerfProxy::XTRACE_ASYNC_BEGIN(state->mHeadroomTrack.c_str(), layerId);
    trackQueueBuffer(state.get(), instant, queueTimeNs);
    PerfProxy::XTRACE_ASYNC_END(state->mHeadroomTrack.c_str(), layerId);
    if (PerfProxy::isTraceEnabled()) {
        PerfProxy::XTRACE_ASYNC_BEGIN(state->mFrameTimeTrack.c_str(), layerId);
        state->mFrameTimeSliceOpen.store(true);
    }
}

void PHRMonitor::onBufferDecrement(int32_t layerId, int32_t bufferCount, int64_t latchTimeNs) {
    const int32_t owner = mQuickTouchLayerId.load();
    if (owner != -1 && owner != layerId) return;
    sp<LayerPHRState> state = getLayerState(layerId);
    if (state == nullptr) return;
    if (state->mTargetFpsActive.load()) return;

    state->noteLatchBacklog(bufferCount);
    if (!state->mQuickTouchActive.load() && isQuickTouchApplicable(state.get())) {
        setQuickTouchStatus(layerId, true);
    }
    if (state->mQuickTouchActive.load()) {
        state->mBufferCount.store(bufferCount);
        state->mHasPendingBuffers.store(bufferCount > 0);
        const int32_t dropWait = state->mBufferDropWait.load();
        if (mDisplayFps.load() == 60 && dropWait >= 1) {
            state->mBufferDropWait.store(bufferCount < 1 || dropWait > kBufferDropWaitLimit
                                                 ? -1
                                                 : dropWait + 1);
        }
    }
    if (state->noteLatch(latchTimeNs, mVsyncPeriod.load()) ==
        LayerPHRState::LatchResult::kTooManyJanks) {
        setQuickTouchStatus(layerId, false);
        PerfProxy::XLOGD(kTag, "Disable QuickTouch due to jank");
    }
}

void PHRMonitor::unblockBuffer(int32_t layerId) {
    sp<LayerPHRState> state = getLayerState(layerId);
    if (state != nullptr) state->requestUnblock();
}

// ---- Headroom ----

float PHRMonitor::maxRateForFps(int32_t fps) const {
    return fps < kHighFpsClass ? mDefaultMaxHeadroomRate.load()
                               : mHighFpsDefaultMaxHeadroomRate.load();
}

void PHRMonitor::updateHeadRoom(int32_t layerId, float phrMinRate, float highFpsPhrMinRate) {
    sp<LayerPHRState> state = getLayerState(layerId);
    if (state == nullptr) return;
    const int32_t fps = mDisplayFps.load();
    state->updateHeadRoom(phrMinRate, highFpsPhrMinRate, mVsyncPeriod.load(), fps,
                          maxRateForFps(fps));
}

void PHRMonitor::checkAndUpdateHeadroom(LayerPHRState* state, int64_t frameTimeNs) {
    if (state == nullptr) return;
    const int64_t period = mVsyncPeriod.load();
    if (period <= 0) return;
    if (mDynamicHeadroom.load()) {
        updateDynamicHeadroom(state, frameTimeNs);
    } else {
        state->updateFixedHeadroom(frameTimeNs, period);
    }
}

void PHRMonitor::updateDynamicHeadroom(LayerPHRState* state, int64_t frameTimeNs) {
    if (state == nullptr) return;
    state->updateDynamicHeadroom(frameTimeNs, mVsyncPeriod.load(), mDisplayFps.load(),
                                 mHighFpsDefaultMaxHeadroomRate.load());
}

void PHRMonitor::trackQueueBuffer(LayerPHRState* state, bool instant, int64_t queueTimeNs) {
    if (state == nullptr) return;
    state->mLastQueueTime.store(queueTimeNs);
    if (state->mTargetFpsActive.load()) {
        adjustForTargetFps(state);
        state->mLastTargetFpsQueueTime.store(platform::now());
        return;
    }
    if (!state->mQuickTouchActive.load()) return;

    PerfProxy::XTRACE_BEGIN("trackQueueBuffer");
    const int64_t period = mVsyncPeriod.load();
    const int64_t target = state->mHeadroom.load();
    const int32_t count = state->mBufferCount.load();
    // Time from this queue to the buffer's expected presentation, behind `count` others.
    const int64_t curHeadroom =
            (state->mLastLatchTime.load() - queueTimeNs) + period * (int64_t{count} + 1);
    PerfProxy::XTRACE_FORMAT("bufferCount:%d, curHeadroom: %lld, mHeadroom: %lld", count,
                             static_cast<long long>(curHeadroom), static_cast<long long>(target));

    if (!instant && !state->mPrevInstant.load() && curHeadroom >= target && period > 0) {
        if (state->mReleasedByTimer.load()) {
            PerfProxy::XTRACE_NAME("timer expired");
        } else {
            state->waitForRelease(std::min(curHeadroom - target, period), true);
            PerfProxy::XTRACE_NAME("delay finish");
        }
        if (!state->mUnblockRequested.exchange(false)) {
            // Still early after the release (a late release, or more buffers queued since)?
            const int64_t now = platform::now();
            const int32_t pending = state->mBufferCount.load();
            const int64_t excess =
                    (state->mLastLatchTime.load() + period * (int64_t{pending} + 1)) -
                    (now + state->mHeadroom.load());
            if (state->mLastQueueTime.load() - state->mLastJankTime.load() <= kRecentJankNs) {
                PerfProxy::XTRACE_NAME("No additional delay due to recent jank.");
            } else if (state->mBufferDropWait.load() >= 1 && mDisplayFps.load() == 60) {
                PerfProxy::XTRACE_NAME("No additional delay due to wait for buffer drop");
            } else if (excess > 0 && pending >= 1) {
                PerfProxy::XTRACE_NAME("additional delay");
                PerfProxy::XLOGD(kTag, "additional delay");
                state->waitForRelease(std::min(period, excess), false);
            }
        }
    } else {
        state->mPrevInstant.store(instant);
        PerfProxy::XTRACE_NAME("not pending for instant buffer or not reach target headroom");
    }
    state->mReleasedByTimer.store(false);
    state->mBufferCount.fetch_add(1);
    state->mQueuedSinceVsync.fetch_add(1);
    PerfProxy::XTRACE_END();
}

// ---- Quick touch and target fps ----

void PHRMonitor::setQuickTouchStatus(int32_t layerId, bool enable) {
    sp<LayerPHRState> state;
    {
        Mutex::Autolock lock(mQuickTouchLock);
        const int32_t owner = mQuickTouchLayerId.load();
        if (owner != -1 && owner != layerId) return; // one layer at a time
        state = getLayerState(layerId);
        if (state == nullptr) return;
        if (state->mQuickTouchActive.load() == enable) return;
        state->mQuickTouchActive.store(enable);
        mQuickTouchLayerId.store(enable ? layerId : -1);
    }
    if (enable) {
        if (mDynamicHeadroom.load()) state->resetAdaptivePhrState();
        PerfProxy::XTRACE_FORMAT("Layer %d: %s", layerId, "enable PHR");
        PerfProxy::XLOGD(kTag, "Layer %d: %s", layerId, "enable PHR");
    } else {
        PerfProxy::XTRACE_FORMAT("Layer %d: %s", layerId, "disable PHR");
        PerfProxy::XLOGD(kTag, "Layer %d: %s", layerId, "disable PHR");
    }
}

bool PHRMonitor::isQuickTouchApplicable(LayerPHRState* state) const {
    return state != nullptr && state->consecutiveBacklog() >= kQuickTouchBacklog &&
            state->rateForFps(mDisplayFps.load()) != 0.0f;
}

void PHRMonitor::setTargetFpsStatus(int32_t layerId, bool enable, float fromFps,
                                    float targetFps) {
    sp<LayerPHRState> state = getLayerState(layerId);
    if (state == nullptr) return;
    state->setTargetFps(enable, fromFps, targetFps, mTargetFpsSwitchTime.load(),
                        mDisplayFps.load());
}

void PHRMonitor::adjustForTargetFps(LayerPHRState* state) {
    if (state == nullptr) return;
    const int64_t wait = state->nextTargetFpsWait(platform::now(), mTargetFpsCompensate.load(),
                                                  mTargetFpsSwitchTime.load());
    if (wait < 1) return;
    PerfProxy::XTRACE_BEGIN("Pending for target fps");
    state->sleepFor(wait);
    PerfProxy::XTRACE_END();
}

bool PHRMonitor::isTargetFpsSwitching(int32_t layerId) const {
    sp<LayerPHRState> state = getLayerState(layerId);
    return state != nullptr && state->isTargetFpsSwitching();
}

} // namespace android
