#include "support/ManualClock.h"

#include <atomic>

#include "platform/HostControl.h"

namespace pelyx_test {
namespace {
std::atomic<int64_t> gNow{0};
int64_t readManual() { return gNow.load(); }
} // namespace

ManualClock::ManualClock(int64_t start) {
    gNow.store(start);
    android::platform::host::setClock(&readManual);
}

ManualClock::~ManualClock() { android::platform::host::setClock(nullptr); }
void ManualClock::set(int64_t now) { gNow.store(now); }
void ManualClock::advance(int64_t delta) { gNow.fetch_add(delta); }
int64_t ManualClock::now() const { return gNow.load(); }

} // namespace pelyx_test
