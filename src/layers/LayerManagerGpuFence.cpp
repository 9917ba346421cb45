#define LOG_TAG "Pelyx.LayerManager"

#include <log/log.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "layers/GpuFence.h"
#include "layers/LayerManager.h"
#include "perf/PerfProxy.h"
#include "platform/Clock.h"
#include "platform/Ioctl.h"

namespace android {
namespace {

constexpr std::string_view kGpuTimelinePrefix = "mavu-timeline";
constexpr std::string_view kDetachedPrefix = "detached";

// Only a prefix counts: a foreign timeline may embed the driver's name further in.
bool startsWith(std::string_view text, std::string_view prefix) {
    return text.rfind(prefix, 0) == 0;
}

// Asks the driver to finish the fence's work now.
void sendDeadline(int fd, const std::string& layerName) {
    PerfProxy::XTRACE_FORMAT("[GPU JANK DETECTION] send IOCTL [%s]", layerName.c_str());
    struct sync_set_deadline deadline;
    memset(&deadline, 0, sizeof(deadline));
    const int ret = platform::ioctlTable().ioctl(fd, SYNC_IOC_SET_DEADLINE, &deadline);
    if (ret < 0) {
        const int err = errno;
        ALOGE("[GPU JANK DETECTION] IOCTL failed, ret=%d, fd=%d, errno=%d", ret, fd, err);
    }
}

void traceSkip(const std::string& layerName) {
    PerfProxy::XTRACE_FORMAT("[GPU JANK DETECTION] skip IOCTL: insufficient GPU exec time [%s]",
                             layerName.c_str());
}

int64_t oldestQueueTime(const LayerInfo& layer) {
    return layer.mQueueTimes.empty() ? 0 : layer.mQueueTimes.front();
}

} // namespace

bool checkAndCacheFenceOrigin(LayerInfo& layer, int fd) {
    const uint8_t cached = layer.mFenceOrigin.load(std::memory_order_relaxed);
    if (cached == kFenceOriginGpu) return true;
    if (cached == kFenceOriginOther) return false;

    struct sync_file_info info;
    memset(&info, 0, sizeof(info));
    const int ret = platform::ioctlTable().ioctl(fd, SYNC_IOC_FILE_INFO, &info);
    if (ret != 0) {
        const int err = errno;
        ALOGE("[GPU JANK DETECTION] SYNC_IOC_FILE_INFO failed, ret=%d, fd=%d, errno=%d", ret, fd,
              err);
        // Unknown origin: give the fence the benefit of the doubt, and ask again next time.
        return true;
    }

    // The kernel fills all 32 bytes when the name is that long: no terminator then.
    const std::string name(info.name, strnlen(info.name, sizeof(info.name)));
    const char* origin;
    bool isGpu;
    if (startsWith(name, kGpuTimelinePrefix)) {
        layer.mFenceOrigin.store(kFenceOriginGpu, std::memory_order_relaxed);
        origin = "mavu (cached)";
        isGpu = true;
    } else if (!startsWith(name, kDetachedPrefix)) {
        layer.mFenceOrigin.store(kFenceOriginOther, std::memory_order_relaxed);
        origin = "non-mavu (cached)";
        isGpu = false;
    } else {
        // A signalled-and-detached fence hides its timeline; the next one may tell.
        origin = "detached (not cached)";
        isGpu = true;
    }
    ALOGI("[GPU JANK DETECTION] fence origin: %s, layerId=%d [%s] fence_name=%s", origin,
          layer.mId, layer.mName.c_str(), name.c_str());
    return isGpu;
}

int64_t LayerManager::computeGpuExecThresholdLocked(const LayerInfo& layer) const {
    const int64_t vsyncPeriod = mVsyncPeriod.load();
    if (vsyncPeriod < 1) return 0;
    int64_t period = vsyncPeriod;
    if (layer.mFps > 0.01f) period = static_cast<int64_t>(1e9f / layer.mFps);
    const float threshold = mGpuExecThresholdMult * static_cast<float>(period);
    // The multiplier has no upper bound: saturate instead of overflowing the conversion.
    constexpr float kMax = static_cast<float>(std::numeric_limits<int64_t>::max());
    if (std::isnan(threshold)) return 0;
    if (threshold >= kMax) return std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(threshold);
}

void LayerManager::notifyGpuFenceUnsignaled(int32_t fenceFd, int32_t layerId) {
    sp<LayerInfo> layer;
    int64_t queueTime = 0;
    int64_t threshold = 0;
    std::string name;
    {
        Mutex::Autolock _l(mLock);
        auto it = mLayers.find(layerId);
        if (it == mLayers.end() || it->second == nullptr) return;
        layer = it->second;
        queueTime = oldestQueueTime(*layer);
        threshold = computeGpuExecThresholdLocked(*layer);
        name = layer->mName;
        // Handled now: a recorded fence of this layer must not be sent again by the flush.
        layer->mPendingLatchFenceFd = -1;
    }
    if (queueTime == 0 || threshold == 0) return;
    if (!checkAndCacheFenceOrigin(*layer, fenceFd)) return;

    if (platform::now() - queueTime >= threshold) {
        sendDeadline(fenceFd, name);
    } else {
        traceSkip(name);
    }
}

void LayerManager::trackLatchUnsignaledGpuFence(int32_t fenceFd, int32_t layerId) {
    if (!mGpuJankDetect.load()) return;
    sp<LayerInfo> layer = getLayer(layerId);
    if (layer == nullptr) return;
    if (!checkAndCacheFenceOrigin(*layer, fenceFd)) return;

    Mutex::Autolock _l(mLock);
    layer->mPendingLatchFenceFd = fenceFd;
    layer->mPendingLatchFenceTime = oldestQueueTime(*layer);
}

void LayerManager::flushLatchUnsignaledGpuFences() {
    struct Deadline {
        int fd;
        std::string layerName;
    };
    std::vector<Deadline> deadlines;
    {
        Mutex::Autolock _l(mLock);
        const bool enabled = mGpuJankDetect.load();
        const int64_t now = platform::now();
        for (auto& [id, layer] : mLayers) {
            if (layer == nullptr || layer->mPendingLatchFenceFd < 0) continue;
            const int fd = layer->mPendingLatchFenceFd;
            const int64_t queueTime = layer->mPendingLatchFenceTime;
            layer->mPendingLatchFenceFd = -1;
            if (!enabled) continue;
            const int64_t threshold = computeGpuExecThresholdLocked(*layer);
            if (queueTime == 0 || threshold == 0) continue;
            if (now - queueTime < threshold) {
                traceSkip(layer->mName);
            } else {
                deadlines.push_back({fd, layer->mName});
            }
        }
    }
    for (const Deadline& d : deadlines) sendDeadline(d.fd, d.layerName);
}

} // namespace android
