#pragma once

#include <cstdint>

namespace pelyx_test {

// Replaces platform::now() with a settable time for the life of the object.
class ManualClock {
public:
    explicit ManualClock(int64_t start = 1'000'000'000);
    ~ManualClock();
    void set(int64_t now);
    void advance(int64_t delta);
    int64_t now() const;
};

} // namespace pelyx_test
