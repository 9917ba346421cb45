// The real kernel calls; nothing on a device replaces them.

#include "platform/Ioctl.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace android::platform {
namespace {
int realOpen(const char* path, int flags) { return ::open(path, flags); }
int realIoctl(int fd, unsigned long request, void* arg) { return ::ioctl(fd, request, arg); }
int realClose(int fd) { return ::close(fd); }
} // namespace

const IoctlTable& ioctlTable() {
    static const IoctlTable kTable{realOpen, realIoctl, realClose};
    return kTable;
}

} // namespace android::platform
