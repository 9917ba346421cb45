#include "platform/CallingIdentity.h"

#include <unistd.h>

#include "platform/HostControl.h"

namespace android::platform {
namespace {
struct Identity {
    bool set = false;
    pid_t pid = 0;
    uid_t uid = 0;
};
thread_local Identity tIdentity;
} // namespace

pid_t getCallingPid() {
    return tIdentity.set ? tIdentity.pid : getpid();
}

uid_t getCallingUid() {
    return tIdentity.set ? tIdentity.uid : getuid();
}

void host::setCallingIdentity(pid_t pid, uid_t uid) {
    tIdentity = Identity{true, pid, uid};
}

void host::clearCallingIdentity() {
    tIdentity = Identity{};
}

} // namespace android::platform
