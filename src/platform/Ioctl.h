#pragma once

namespace android::platform {

// The kernel calls made on devices and fence descriptors (boost device, sync files). The real
// calls by default; a host test or the simulator may install another table to play the device.
struct IoctlTable {
    int (*open)(const char* path, int flags);
    int (*ioctl)(int fd, unsigned long request, void* arg);
    int (*close)(int fd);
};

const IoctlTable& ioctlTable();

} // namespace android::platform
