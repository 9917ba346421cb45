#include "platform/PowerBoost.h"

#include <atomic>
#include <mutex>

#include "platform/HostControl.h"

namespace android::platform {
namespace {
std::atomic<uint64_t> gBoostCount{0};
std::mutex gListenerMutex;
std::function<void(int32_t)> gListener;
} // namespace

void notifyPowerBoost(int32_t boostId) {
    gBoostCount.fetch_add(1, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(gListenerMutex);
    if (gListener) gListener(boostId);
}

uint64_t host::powerBoostCount() {
    return gBoostCount.load(std::memory_order_relaxed);
}

void host::setPowerBoostListener(std::function<void(int32_t)> listener) {
    std::lock_guard<std::mutex> lock(gListenerMutex);
    gListener = std::move(listener);
}

} // namespace android::platform
