#pragma once

#include <atomic>
#include <cstdint>

#include "platform/HostControl.h"

namespace pelyx_test {

// Replaces platform::now() with a settable time for the life of the object.
class ManualClock {
public:
    explicit ManualClock(int64_t start = 1'000'000'000) {
        sNow.store(start);
        android::platform::host::setClock([] { return sNow.load(); });
    }
    ~ManualClock() { android::platform::host::setClock(nullptr); }
    void set(int64_t now) { sNow.store(now); }
    void advance(int64_t delta) { sNow.fetch_add(delta); }
    int64_t now() const { return sNow.load(); }

private:
    static inline std::atomic<int64_t> sNow{0};
};

} // namespace pelyx_test
