#define LOG_TAG "Pelyx.LayerManager"

#include "layers/LayerManager.h"

#include <log/log.h>

#include <mutex>

namespace android {
namespace {
std::mutex gInstanceMutex;
std::atomic<LayerManager*> gInstance{nullptr};
} // namespace

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

void LayerManager::onFeatureConfigChanged(Feature feature, const std::string& packageName) {
    if (!isInitialized()) {
        ALOGE("LayerManager not initialized");
        return;
    }
}

} // namespace android
