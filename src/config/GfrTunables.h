#pragma once

#include <cstdint>
#include <vector>

namespace android {

// Per-app game-frame-rescue tuning, as pushed by the performance service. Handed out by copy.
struct GfrTunables {
    int32_t flag = 0;                                // 0 removes the app's entry; 1 or 2 enable
    std::vector<float> jankThresholds{1.2f, 1.6f, 2.0f}; // vsync periods, strictly increasing
    std::vector<int32_t> baseFreq{300, 500, 2000};   // 1 to 3 values, each >= 1
    bool dynamic = false;
    bool lowerBoost = false;
    float golden = 0.6f;   // vsync periods, [0.2, 1.3]
    float minDelay = 1.0f; // vsync periods, [0.5, 1.5]
    float kFactor = 1.0f;  // [0.0, 5.0]
    bool histJank = false;
    int64_t updateTime = 0; // monotonic ns of the last store into the table

    GfrTunables() = default;
    GfrTunables(const GfrTunables& other) = default;
    GfrTunables& operator=(const GfrTunables& other) = default;
    ~GfrTunables() = default;
};

} // namespace android
