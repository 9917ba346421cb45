#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "platform/HostControl.h"

namespace pelyx_test {

// Plays the GPU boost device behind the platform ioctl table for the life of the object:
// opening it succeeds and every request 0x400C6701 is recorded as {level, headroom, frequency}.
class FakeBoostDevice {
public:
    using Hint = std::array<int32_t, 3>;

    FakeBoostDevice() { android::platform::host::setIoctlTable(&kTable); }
    ~FakeBoostDevice() { android::platform::host::setIoctlTable(nullptr); }
    static std::vector<Hint> hints() {
        std::lock_guard<std::mutex> lock(sMutex);
        return sHints;
    }
    static void clear() {
        std::lock_guard<std::mutex> lock(sMutex);
        sHints.clear();
    }

private:
    static int deviceIoctl(int, unsigned long request, void* arg) {
        if (request != 0x400C6701) return -1;
        Hint hint;
        memcpy(hint.data(), arg, sizeof(hint));
        std::lock_guard<std::mutex> lock(sMutex);
        sHints.push_back(hint);
        return 0;
    }
    static inline std::mutex sMutex;
    static inline std::vector<Hint> sHints;
    static inline const android::platform::IoctlTable kTable{
            [](const char*, int) { return 77; }, deviceIoctl, [](int) { return 0; }};
};

} // namespace pelyx_test
