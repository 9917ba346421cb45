#pragma once

// Plays the devices behind the library's ioctl table: the GPU boost device "/dev/vorla", whose
// records are kept with their time and set the GPU's clock, and the fences of the GPU work of
// queued buffers, answering the sync-file requests; a deadline request on a fence raises the
// GPU's clock until it signals. Every other descriptor goes to the real calls.
// Thread-safe: the library calls in from its threads, the simulator from its own.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "Gpu.h"
#include "Stats.h"

namespace pelyx_sim {

struct DeadlineRequest {
    int64_t timeNs = 0;
    int layer = 0;
};

class FakeDevices {
public:
    static constexpr const char* kBoostDevicePath = "/dev/vorla";
    static constexpr unsigned long kBoostRequest = 0x400C6701;
    static constexpr unsigned long kSyncFileInfo = 0xC0383E04;
    static constexpr unsigned long kSyncSetDeadline = 0x40103E05;
    static constexpr const char* kFenceTimeline = "mavu-timeline";
    // Far above any descriptor the process really opens.
    static constexpr int kBoostFd = 1 << 20;
    static constexpr int kFirstFenceFd = 1 << 21;
    static constexpr int kFenceFdRange = 1 << 16;

    static FakeDevices& instance();

    // Installs the table with a fresh GPU (and forgets earlier records); uninstall restores the
    // real calls.
    void install(double gpuBaseMhz = 250, double gpuMaxMhz = 1000, int64_t gpuRampNs = 0,
                 int64_t gpuWithdrawNs = 0, GpuGovernor gpuGovernor = GpuGovernor{0});
    void uninstall();

    std::vector<BoostRecord> boostRecords() const EXCLUDES(mLock);
    int boostOpens() const EXCLUDES(mLock);

    // GPU work of `layer` (any index the caller chooses), `workNs` at the base clock, submitted
    // now and not to start before `notBeforeNs`; returns the fence that signals when it is done.
    int submitGpuWork(int layer, int64_t workNs, int64_t notBeforeNs) EXCLUDES(mLock);
    // When the fence signals, as far as is known now; -1 for an unknown descriptor.
    int64_t signalTime(int fd) const EXCLUDES(mLock);
    // When the GPU started the fence's work; -1 for an unknown descriptor.
    int64_t gpuStartTime(int fd) const EXCLUDES(mLock);
    void releaseFence(int fd) EXCLUDES(mLock);
    // Deadline requests the library made on fences of `layer`.
    int deadlineRequests(int layer) const EXCLUDES(mLock);
    // When the library made its first deadline request; -1: none.
    int64_t firstDeadlineNs() const EXCLUDES(mLock);
    // Every deadline request, oldest first.
    std::vector<DeadlineRequest> deadlineLog() const EXCLUDES(mLock);
    // Fence-info queries answered (the library looks a layer's fence origin up once).
    int fenceQueries() const EXCLUDES(mLock);

    // The table's entries, public for tests.
    static int fakeOpen(const char* path, int flags);
    static int fakeIoctl(int fd, unsigned long request, void* arg);
    static int fakeClose(int fd);

private:
    struct Fence {
        int layer = 0;
        uint64_t job = 0;
    };

    FakeDevices() = default;
    bool isFence(int fd) const { return fd >= kFirstFenceFd && fd < kFirstFenceFd + kFenceFdRange; }
    int ioctlLocked(int fd, unsigned long request, void* arg) REQUIRES(mLock);

    mutable android::Mutex mLock;
    std::unique_ptr<Gpu> mGpu GUARDED_BY(mLock);
    std::vector<BoostRecord> mBoosts GUARDED_BY(mLock);
    int mBoostOpens GUARDED_BY(mLock) = 0;
    std::map<int, Fence> mFences GUARDED_BY(mLock);
    int mNextFence GUARDED_BY(mLock) = 0;
    std::vector<DeadlineRequest> mDeadlines GUARDED_BY(mLock);
    int mFenceQueries GUARDED_BY(mLock) = 0;
};

} // namespace pelyx_sim
