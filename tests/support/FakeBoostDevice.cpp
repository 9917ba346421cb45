#include "support/FakeBoostDevice.h"

#include <cstring>
#include <mutex>

#include "platform/HostControl.h"

namespace pelyx_test {
namespace {
constexpr unsigned long kBoostRequest = 0x400C6701;
std::mutex gMutex;
std::vector<FakeBoostDevice::Hint> gHints;

int deviceIoctl(int, unsigned long request, void* arg) {
    if (request != kBoostRequest) return -1;
    FakeBoostDevice::Hint hint;
    memcpy(hint.data(), arg, sizeof(hint));
    std::lock_guard<std::mutex> lock(gMutex);
    gHints.push_back(hint);
    return 0;
}

const android::platform::IoctlTable kDevice{[](const char*, int) { return 77; }, deviceIoctl,
                                            [](int) { return 0; }};
} // namespace

FakeBoostDevice::FakeBoostDevice() {
    android::platform::host::setIoctlTable(&kDevice);
}

FakeBoostDevice::~FakeBoostDevice() {
    android::platform::host::setIoctlTable(nullptr);
}

std::vector<FakeBoostDevice::Hint> FakeBoostDevice::hints() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gHints;
}

void FakeBoostDevice::clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    gHints.clear();
}

} // namespace pelyx_test
