// Properties on a device: libbase over the property service.

#include "platform/Properties.h"

#include <android-base/properties.h>

namespace android::platform {

std::string getProperty(const std::string& key, const std::string& defaultValue) {
    return android::base::GetProperty(key, defaultValue);
}

bool getBoolProperty(const std::string& key, bool defaultValue) {
    return android::base::GetBoolProperty(key, defaultValue);
}

int64_t getIntProperty(const std::string& key, int64_t defaultValue, int64_t minValue,
                       int64_t maxValue) {
    return android::base::GetIntProperty(key, defaultValue, minValue, maxValue);
}

bool setProperty(const std::string& key, const std::string& value) {
    return android::base::SetProperty(key, value);
}

bool waitForProperty(const std::string& key, const std::string& expected,
                     std::chrono::milliseconds timeout) {
    return android::base::WaitForProperty(key, expected, timeout);
}

} // namespace android::platform
