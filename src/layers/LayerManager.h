#pragma once

#include <atomic>
#include <string>

#include "config/FeatureManager.h"

namespace android {

// The registry of layers that produce frames. Lives for the process once created.
//
// Threading: compositor threads, the boost thread and the service's callback thread call in.
class LayerManager {
public:
    static LayerManager* getInstance();

    bool isInitialized() const { return mInitialized.load(); }

    // Re-applies per-app configuration after FeatureManager stored a change. An empty package
    // name stands for the global entry. Called without any FeatureManager lock held.
    void onFeatureConfigChanged(Feature feature, const std::string& packageName);

private:
    LayerManager() = default;
    LayerManager(const LayerManager&) = delete;
    LayerManager& operator=(const LayerManager&) = delete;

    std::atomic<bool> mInitialized{false};
};

} // namespace android
