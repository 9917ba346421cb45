#pragma once

// Plays the devices behind the library's ioctl table: the GPU boost device "/dev/vorla", whose
// records are kept with their time, and the GPU fences of queued buffers, answering the
// sync-file requests. A deadline request on a late fence makes the fake GPU hurry: the rest of
// its work takes half as long. Every other descriptor goes to the real calls.
// Thread-safe: the library calls in from its threads, the simulator from its own.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <cstdint>
#include <map>
#include <vector>

#include "Stats.h"

namespace pelyx_sim {

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

    // Installs the table (and forgets earlier records); uninstall restores the real calls.
    void install();
    void uninstall();

    std::vector<BoostRecord> boostRecords() const EXCLUDES(mLock);
    int boostOpens() const EXCLUDES(mLock);

    // A fence of `layer` (any index the caller chooses) that signals at `signalNs` (monotonic).
    int createFence(int layer, int64_t signalNs) EXCLUDES(mLock);
    // When the fence signals, after any hurry; -1 for an unknown descriptor.
    int64_t signalTime(int fd) const EXCLUDES(mLock);
    void releaseFence(int fd) EXCLUDES(mLock);
    // Deadline requests the library made on fences of `layer`.
    int deadlineRequests(int layer) const EXCLUDES(mLock);
    // Fence-info queries answered (the library looks a layer's fence origin up once).
    int fenceQueries() const EXCLUDES(mLock);

    // The table's entries, public for tests.
    static int fakeOpen(const char* path, int flags);
    static int fakeIoctl(int fd, unsigned long request, void* arg);
    static int fakeClose(int fd);

private:
    struct Fence {
        int layer = 0;
        int64_t signalNs = 0;
    };

    FakeDevices() = default;
    bool isFence(int fd) const { return fd >= kFirstFenceFd && fd < kFirstFenceFd + kFenceFdRange; }
    int ioctlLocked(int fd, unsigned long request, void* arg) REQUIRES(mLock);

    mutable android::Mutex mLock;
    std::vector<BoostRecord> mBoosts GUARDED_BY(mLock);
    int mBoostOpens GUARDED_BY(mLock) = 0;
    std::map<int, Fence> mFences GUARDED_BY(mLock);
    int mNextFence GUARDED_BY(mLock) = 0;
    std::map<int, int> mDeadlines GUARDED_BY(mLock);
    int mFenceQueries GUARDED_BY(mLock) = 0;
};

} // namespace pelyx_sim
