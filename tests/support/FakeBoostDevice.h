#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace pelyx_test {

// Plays the GPU boost device behind the platform ioctl table for the life of the object:
// opening it succeeds and every request 0x400C6701 is recorded as {level, headroom, frequency}.
class FakeBoostDevice {
public:
    using Hint = std::array<int32_t, 3>;

    FakeBoostDevice();
    ~FakeBoostDevice();
    static std::vector<Hint> hints();
    static void clear();
};

} // namespace pelyx_test
