#define LOG_TAG "TFPS_CALLBACK"

#include "perf/TFPSCallback.h"

#include <log/log.h>

#include <exception>

#include "config/FeatureManager.h"

namespace aidl::vendor::tvo::hardware::perf2 {

::ndk::ScopedAStatus TFPSCallback::notifyCallback(int32_t hintId, const std::string& text,
                                                  int32_t value, int32_t value2,
                                                  const std::vector<int32_t>& values) {
    try {
        if (auto* features = android::FeatureManager::peekInstance()) {
            features->setCallbackHintValue(hintId, text, value, value2, values);
        }
    } catch (const std::exception& e) {
        ALOGE("Exception caught: %s in %s", e.what(), "notifyCallback");
    } catch (...) {
        ALOGE("Exception caught in %s", "notifyCallback");
    }
    return ::ndk::ScopedAStatus::ok();
}

} // namespace aidl::vendor::tvo::hardware::perf2
