#include "platform/Ioctl.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>

#include "platform/HostControl.h"

namespace android::platform {
namespace {
int realOpen(const char* path, int flags) { return ::open(path, flags); }
int realIoctl(int fd, unsigned long request, void* arg) { return ::ioctl(fd, request, arg); }
int realClose(int fd) { return ::close(fd); }

const IoctlTable kRealTable{realOpen, realIoctl, realClose};
std::atomic<const IoctlTable*> gTable{&kRealTable};
} // namespace

const IoctlTable& ioctlTable() {
    return *gTable.load(std::memory_order_acquire);
}

void host::setIoctlTable(const IoctlTable* table) {
    gTable.store(table ? table : &kRealTable, std::memory_order_release);
}

} // namespace android::platform
