#pragma once

// How fast the apps' render threads run: their work is divided by a factor above 1 while the
// service boosts the app (a boost event for its package, until a level-0 event or the boost's
// hold time) and while its pid holds the low-latency lock. A raise takes effect a ramp time after
// it is asked for. Fed from the service's call record; thread-safe.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <PerfdControl.h>

#include <cstdint>
#include <map>
#include <string>

#include "Scenario.h"

namespace pelyx_sim {

class CpuModel {
public:
    explicit CpuModel(const DeviceModel& device);

    void onCall(const perfd_stub::Call& call, int64_t nowNs) EXCLUDES(mLock);
    double factor(const std::string& package, int32_t pid, int64_t nowNs) const EXCLUDES(mLock);

private:
    struct Span {
        int64_t fromNs = 0;
        int64_t untilNs = 0;
    };

    const DeviceModel mDevice;
    mutable android::Mutex mLock;
    std::map<std::string, Span> mBoosts GUARDED_BY(mLock);
    int32_t mLowLatencyPid GUARDED_BY(mLock) = -1;
    int64_t mLowLatencyFromNs GUARDED_BY(mLock) = 0;
};

} // namespace pelyx_sim
