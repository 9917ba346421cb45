// Tunables texts come from the performance service: any bytes must parse or be refused
// without a crash, and a refusal must leave the record exactly as it was.
#include <cstdlib>

#include "FuzzSupport.h"
#include "config/FeatureManager.h"

using android::FeatureManager;
using android::GfrTunables;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pelyx_fuzz::silenceLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    GfrTunables start;
    start.golden = 0.75f;
    GfrTunables out = start;
    if (!FeatureManager::parseGFRTunables(text, &out)) {
        if (out.golden != start.golden || out.jankThresholds != start.jankThresholds ||
            out.baseFreq != start.baseFreq || out.flag != start.flag) {
            abort(); // a refused text changed the record
        }
        return 0;
    }
    // Whatever was accepted holds the documented invariants.
    if (out.flag < 0 || out.flag > 2) abort();
    if (out.jankThresholds.empty() || !(out.jankThresholds[0] > 1.0f)) abort();
    for (size_t i = 1; i < out.jankThresholds.size(); i++) {
        if (!(out.jankThresholds[i] > out.jankThresholds[i - 1])) abort();
    }
    if (out.baseFreq.empty() || out.baseFreq.size() > 3) abort();
    for (int f : out.baseFreq) {
        if (f < 1) abort();
    }
    if (!(out.golden >= 0.2f && out.golden <= 1.3f)) abort();
    if (!(out.minDelay >= 0.5f && out.minDelay <= 1.5f)) abort();
    if (!(out.kFactor >= 0.0f && out.kFactor <= 5.0f)) abort();
    return 0;
}
