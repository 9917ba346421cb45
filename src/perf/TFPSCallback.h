#pragma once

#include <aidl/vendor/tvo/hardware/perf2/BnPerfCallback.h>

namespace aidl::vendor::tvo::hardware::perf2 {

// Receives per-app configuration pushed by the performance service (on one of its binder
// threads) and hands it to FeatureManager. Never throws back to the service.
class TFPSCallback : public BnPerfCallback {
public:
    ::ndk::ScopedAStatus notifyCallback(int32_t hintId, const std::string& text, int32_t value,
                                        int32_t value2,
                                        const std::vector<int32_t>& values) override;
};

} // namespace aidl::vendor::tvo::hardware::perf2
