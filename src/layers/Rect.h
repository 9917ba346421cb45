#pragma once

#include <cstdint>

namespace android {

// Layer bounds in display pixels, laid out as the compositor passes them (four int32).
struct Rect {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;

    static const Rect INVALID_RECT;

    int32_t getWidth() const { return right - left; }
    int32_t getHeight() const { return bottom - top; }
    bool isEmpty() const { return right <= left || bottom <= top; }
    bool operator==(const Rect& o) const {
        return left == o.left && top == o.top && right == o.right && bottom == o.bottom;
    }
};

inline constexpr Rect Rect::INVALID_RECT{0, 0, -1, -1};

} // namespace android
