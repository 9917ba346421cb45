#pragma once

#include <cstdint>

namespace android {

// Per-app target frame rate pushed by the performance service.
struct TfpsConfig {
    float targetFps = 0.0f; // (0, 240]
    int64_t updateTime = 0; // monotonic ns of the last update
};

// Per-app minimum pre-present headroom rates for quick touch.
struct PhrConfig {
    float phrMinRate = 0.0f;        // displays below 61 fps
    float highFpsPhrMinRate = 0.0f; // displays at 61 fps and above
    int64_t updateTime = 0;
};

} // namespace android
