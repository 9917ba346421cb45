#include "Cpu.h"

#include <algorithm>
#include <cmath>

#include "ServiceLog.h"

namespace pelyx_sim {
namespace {
int64_t msToNs(double ms) {
    return static_cast<int64_t>(std::llround(ms * 1e6));
}
} // namespace

CpuModel::CpuModel(const DeviceModel& device) : mDevice(device) {}

void CpuModel::onCall(const perfd_stub::Call& call, int64_t nowNs) {
    const int64_t from = nowNs + msToNs(mDevice.cpuRampMs);
    android::Mutex::Autolock lock(mLock);
    if (call.fn == "perf_event" && !call.ints.empty() && call.ints[0] == kEventBoost && call.hasPkg &&
        !call.args.empty()) {
        Span& boost = mBoosts[call.pkg];
        if (call.args[0] == 0) {
            boost.untilNs = std::min(boost.untilNs, nowNs);
        } else {
            boost = {from, from + msToNs(mDevice.cpuBoostMs)};
        }
    } else if (call.fn == "perf_lock_acq" && call.args.size() >= 2 && call.args[0] == kLowLatencyOpcode) {
        mLowLatencyPid = call.args[1];
        mLowLatencyFromNs = from;
    } else if (call.fn == "perf_lock_rel") {
        // The library holds one lock at a time: the low-latency one.
        mLowLatencyPid = -1;
    }
}

double CpuModel::factor(const std::string& package, int32_t pid, int64_t nowNs) const {
    android::Mutex::Autolock lock(mLock);
    double f = 1.0;
    if (auto it = mBoosts.find(package); it != mBoosts.end() && it->second.fromNs <= nowNs &&
                                         nowNs < it->second.untilNs) {
        f = std::max(f, mDevice.cpuBoostFactor);
    }
    if (pid == mLowLatencyPid && mLowLatencyFromNs <= nowNs) f = std::max(f, mDevice.cpuLowLatencyFactor);
    return f;
}

} // namespace pelyx_sim
