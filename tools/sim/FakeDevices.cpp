#include "FakeDevices.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Clock.h"
#include "platform/HostControl.h"
#include "platform/Ioctl.h"

namespace pelyx_sim {
namespace {

// The kernel's sync-file records (linux/sync_file.h), spelt out because older headers lack the
// deadline request.
struct SyncFileInfo {
    char name[32];
    int32_t status;
    uint32_t flags;
    uint32_t numFences;
    uint32_t pad;
    uint64_t syncFenceInfo;
};
static_assert(sizeof(SyncFileInfo) == 56, "sync_file_info is 56 bytes");

const android::platform::IoctlTable kTable{&FakeDevices::fakeOpen, &FakeDevices::fakeIoctl,
                                           &FakeDevices::fakeClose};

} // namespace

FakeDevices& FakeDevices::instance() {
    static FakeDevices* sDevices = new FakeDevices();  // the library may call in until exit
    return *sDevices;
}

void FakeDevices::install(double gpuBaseMhz, double gpuMaxMhz, int64_t gpuRampNs, int64_t gpuWithdrawNs,
                          GpuGovernor gpuGovernor) {
    {
        android::Mutex::Autolock lock(mLock);
        mGpu = std::make_unique<Gpu>(gpuBaseMhz, gpuMaxMhz, gpuRampNs, gpuWithdrawNs, gpuGovernor);
        mBoosts.clear();
        mBoostOpens = 0;
        mFences.clear();
        mDeadlines.clear();
        mFenceQueries = 0;
    }
    android::platform::host::setIoctlTable(&kTable);
}

void FakeDevices::uninstall() {
    android::platform::host::setIoctlTable(nullptr);
}

std::vector<BoostRecord> FakeDevices::boostRecords() const {
    android::Mutex::Autolock lock(mLock);
    return mBoosts;
}

int FakeDevices::boostOpens() const {
    android::Mutex::Autolock lock(mLock);
    return mBoostOpens;
}

int FakeDevices::submitGpuWork(int layer, int64_t workNs, int64_t notBeforeNs) {
    android::Mutex::Autolock lock(mLock);
    for (int tries = 0; tries < kFenceFdRange; ++tries) {
        const int fd = kFirstFenceFd + mNextFence;
        mNextFence = (mNextFence + 1) % kFenceFdRange;
        if (mFences.count(fd)) continue;
        mFences[fd] = Fence{layer, mGpu->submit(android::platform::now(), workNs, notBeforeNs)};
        return fd;
    }
    return -1;  // every descriptor in use: the buffer goes without a fence
}

int64_t FakeDevices::signalTime(int fd) const {
    android::Mutex::Autolock lock(mLock);
    auto it = mFences.find(fd);
    return it == mFences.end() ? -1 : mGpu->endOf(it->second.job, android::platform::now());
}

int64_t FakeDevices::gpuStartTime(int fd) const {
    android::Mutex::Autolock lock(mLock);
    auto it = mFences.find(fd);
    return it == mFences.end() ? -1 : mGpu->startOf(it->second.job, android::platform::now());
}

void FakeDevices::releaseFence(int fd) {
    android::Mutex::Autolock lock(mLock);
    auto it = mFences.find(fd);
    if (it == mFences.end()) return;
    mGpu->forget(it->second.job);
    mFences.erase(it);
}

int FakeDevices::deadlineRequests(int layer) const {
    android::Mutex::Autolock lock(mLock);
    return static_cast<int>(std::count_if(mDeadlines.begin(), mDeadlines.end(),
                                          [layer](const DeadlineRequest& d) { return d.layer == layer; }));
}

std::vector<DeadlineRequest> FakeDevices::deadlineLog() const {
    android::Mutex::Autolock lock(mLock);
    return mDeadlines;
}

int64_t FakeDevices::firstDeadlineNs() const {
    android::Mutex::Autolock lock(mLock);
    return mDeadlines.empty() ? -1 : mDeadlines.front().timeNs;
}

int FakeDevices::fenceQueries() const {
    android::Mutex::Autolock lock(mLock);
    return mFenceQueries;
}

int FakeDevices::fakeOpen(const char* path, int flags) {
    if (path && strcmp(path, kBoostDevicePath) == 0) {
        FakeDevices& self = instance();
        android::Mutex::Autolock lock(self.mLock);
        ++self.mBoostOpens;
        return kBoostFd;
    }
    return ::open(path, flags);
}

int FakeDevices::fakeClose(int fd) {
    FakeDevices& self = instance();
    if (fd == kBoostFd || self.isFence(fd)) return 0;
    return ::close(fd);
}

int FakeDevices::fakeIoctl(int fd, unsigned long request, void* arg) {
    FakeDevices& self = instance();
    if (fd != kBoostFd && !self.isFence(fd)) return ::ioctl(fd, request, arg);
    android::Mutex::Autolock lock(self.mLock);
    return self.ioctlLocked(fd, request, arg);
}

int FakeDevices::ioctlLocked(int fd, unsigned long request, void* arg) {
    const int64_t now = android::platform::now();
    if (fd == kBoostFd && request == kBoostRequest && arg) {
        int32_t record[3];
        memcpy(record, arg, sizeof(record));
        mBoosts.push_back({now, record[0], record[1], record[2]});
        if (record[0] >= 0 && record[0] <= 3) mGpu->request(now, record[0] == 0 ? 0 : record[2]);
        return 0;
    }
    auto fence = mFences.find(fd);
    if (fence == mFences.end() || !arg) {
        errno = fence == mFences.end() ? EBADF : EFAULT;
        return -1;
    }
    if (request == kSyncFileInfo) {
        ++mFenceQueries;
        SyncFileInfo info{};
        strncpy(info.name, kFenceTimeline, sizeof(info.name) - 1);
        info.status = mGpu->endOf(fence->second.job, now) <= now ? 1 : 0;
        memcpy(arg, &info, sizeof(info));
        return 0;
    }
    if (request == kSyncSetDeadline) {
        mDeadlines.push_back({now, fence->second.layer});
        mGpu->hurry(fence->second.job, now);
        return 0;
    }
    errno = ENOTTY;
    return -1;
}

} // namespace pelyx_sim
