// Waiting for any change of one property: the property area's serial, as libbase's own cached
// properties read it. Bionic only.

#include <sys/system_properties.h>

#include <android-base/properties.h>

#include <chrono>
#include <ctime>

#include "platform/Properties.h"

namespace android::platform {
namespace {

timespec toTimespec(std::chrono::milliseconds timeout) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(seconds.count());
    ts.tv_nsec = static_cast<long>((timeout - seconds).count() * 1'000'000);
    return ts;
}

} // namespace

uint32_t propertySerial(const std::string& key) {
    const prop_info* info = __system_property_find(key.c_str());
    return info ? __system_property_serial(info) : 0;
}

bool waitForPropertyChange(const std::string& key, uint32_t* serial,
                           std::chrono::milliseconds timeout) {
    const prop_info* info = __system_property_find(key.c_str());
    if (!info) {
        // Never set yet: its creation is the first change.
        if (!android::base::WaitForPropertyCreation(key, timeout)) return false;
        *serial = propertySerial(key);
        return true;
    }
    const timespec ts = toTimespec(timeout);
    const bool forever = timeout == kWaitForever;
    uint32_t next = 0;
    if (!__system_property_wait(info, *serial, &next, forever ? nullptr : &ts)) return false;
    *serial = next;
    return true;
}

} // namespace android::platform
