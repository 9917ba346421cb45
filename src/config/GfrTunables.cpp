#define LOG_TAG "Pelyx.FeatureManager"

#include "config/GfrTunables.h"

#include <log/log.h>

#include <stdexcept>
#include <string>

#include "config/FeatureManager.h"

namespace android {
namespace {

// ';'-separated elements; empty elements are skipped.
std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find(';', pos);
        if (end == std::string::npos) end = text.size();
        if (end > pos) items.push_back(text.substr(pos, end - pos));
        pos = end + 1;
    }
    return items;
}

bool inRange(float value, float low, float high) {
    return value >= low && value <= high;
}

// Applies one known key to *t. Returns false (after logging) when the value is out of range;
// conversion errors surface as exceptions from std::stoi/std::stof.
bool applyItem(const std::string& key, const std::string& value, GfrTunables* t) {
    if (key == "flag") {
        const int flag = std::stoi(value);
        if (static_cast<unsigned>(flag) > 2u) {
            ALOGE("parseGFRTunables: invalid flag=%d", flag);
            return false;
        }
        t->flag = flag;
    } else if (key == "jank") {
        std::vector<float> thresholds;
        for (const std::string& item : splitList(value)) thresholds.push_back(std::stof(item));
        if (thresholds.empty()) {
            ALOGE("parseGFRTunables: empty jank thresholds");
            return false;
        }
        if (!(thresholds[0] > 1.0f)) {
            ALOGE("parseGFRTunables: first jank threshold %.2f must be > 1.0", thresholds[0]);
            return false;
        }
        for (size_t i = 1; i < thresholds.size(); i++) {
            if (!(thresholds[i] > thresholds[i - 1])) {
                ALOGE("parseGFRTunables: jank thresholds not strictly increasing");
                return false;
            }
        }
        t->jankThresholds = std::move(thresholds);
    } else if (key == "baseFreq") {
        std::vector<int32_t> freqs;
        for (const std::string& item : splitList(value)) {
            const int freq = std::stoi(item);
            if (freq < 1) {
                ALOGE("parseGFRTunables: baseFreq value must be > 0");
                return false;
            }
            freqs.push_back(freq);
        }
        if (freqs.empty() || freqs.size() > 3) {
            ALOGE("parseGFRTunables: baseFreq must have 1 to 3 values");
            return false;
        }
        t->baseFreq = std::move(freqs);
    } else if (key == "dynamic") {
        t->dynamic = std::stoi(value) != 0;
    } else if (key == "lowerBoost") {
        t->lowerBoost = std::stoi(value) != 0;
    } else if (key == "histJank") {
        t->histJank = std::stoi(value) != 0;
    } else if (key == "golden") {
        const float golden = std::stof(value);
        if (!inRange(golden, 0.2f, 1.3f)) {
            ALOGE("parseGFRTunables: golden=%.2fvsync out of range [0.2, 1.3]", golden);
            return false;
        }
        t->golden = golden;
    } else if (key == "minDelay") {
        const float minDelay = std::stof(value);
        if (!inRange(minDelay, 0.5f, 1.5f)) {
            ALOGE("parseGFRTunables: minDelay=%.2fvsync out of range [0.5, 1.5]", minDelay);
            return false;
        }
        t->minDelay = minDelay;
    } else if (key == "kFactor") {
        const float kFactor = std::stof(value);
        if (!inRange(kFactor, 0.0f, 5.0f)) {
            ALOGE("parseGFRTunables: kFactor=%.2f out of range [0.0, 5.0]", kFactor);
            return false;
        }
        t->kFactor = kFactor;
    }
    return true;
}

bool isKnownKey(const std::string& key) {
    static const char* const kKeys[] = {"flag",     "jank",       "dynamic", "kFactor", "baseFreq",
                                        "minDelay", "lowerBoost", "golden",  "histJank"};
    for (const char* known : kKeys) {
        if (key == known) return true;
    }
    return false;
}

} // namespace

bool FeatureManager::parseGFRTunables(const std::string& text, GfrTunables* out) {
    GfrTunables working = *out;
    bool anyValid = false;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find('_', pos);
        if (end == std::string::npos) end = text.size();
        const std::string item = text.substr(pos, end - pos);
        pos = end + 1;

        const size_t eq = item.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = item.substr(0, eq);
        const std::string value = item.substr(eq + 1);
        if (value.empty()) {
            ALOGE("parseGFRTunables: empty value for key '%s'", key.c_str());
            return false;
        }
        if (!isKnownKey(key)) continue;
        try {
            if (!applyItem(key, value, &working)) return false;
        } catch (const std::exception& e) {
            ALOGE("parseGFRTunables: failed to parse '%s=%s': %s", key.c_str(), value.c_str(),
                  e.what());
            return false;
        }
        anyValid = true;
    }
    if (!anyValid) {
        ALOGE("parseGFRTunables: no valid tunable found in '%s'", text.c_str());
        return false;
    }
    *out = std::move(working);
    return true;
}

} // namespace android
