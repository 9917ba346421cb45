#pragma once

// Host shape of the performance HAL's callback interface: what the service calls to push
// per-app configuration hints to a registered client.

#include <android/binder_shape.h>

#include <cstdint>
#include <string>
#include <vector>

namespace aidl::vendor::tvo::hardware::perf2 {

class IPerfCallback : public ndk::ICInterface {
public:
    virtual ::ndk::ScopedAStatus notifyCallback(int32_t hintId, const std::string& text,
                                                int32_t value, int32_t value2,
                                                const std::vector<int32_t>& values) = 0;
};

} // namespace aidl::vendor::tvo::hardware::perf2
