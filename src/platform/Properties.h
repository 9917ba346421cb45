#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace android::platform {

// System properties with the device's semantics: an unset or empty value reads as the default,
// values are at most kPropValueMax - 1 bytes, "ro." properties can be set once, and every set
// (even to the same value) wakes waiters. Thread-safe; the waits block the calling thread.
constexpr size_t kPropValueMax = 92;
constexpr std::chrono::milliseconds kWaitForever = std::chrono::milliseconds::max();

std::string getProperty(const std::string& key, const std::string& defaultValue);
// "1", "y", "yes", "on", "true" are true; "0", "n", "no", "off", "false" false; else the default.
bool getBoolProperty(const std::string& key, bool defaultValue);
// Decimal integer in [minValue, maxValue], else the default.
int64_t getIntProperty(const std::string& key, int64_t defaultValue,
                       int64_t minValue = INT64_MIN, int64_t maxValue = INT64_MAX);
bool setProperty(const std::string& key, const std::string& value);

// Blocks until `key` holds exactly `expected` or the timeout passes; true when it matched.
bool waitForProperty(const std::string& key, const std::string& expected,
                     std::chrono::milliseconds timeout = kWaitForever);

// Change counter of one property (0 while it has never been set).
uint32_t propertySerial(const std::string& key);
// Blocks until the property's serial differs from `*serial`; stores the new serial and returns
// true, or returns false on timeout.
bool waitForPropertyChange(const std::string& key, uint32_t* serial,
                           std::chrono::milliseconds timeout = kWaitForever);

} // namespace android::platform
