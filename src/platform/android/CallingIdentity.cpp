// The binder caller of the current thread.

#include "platform/CallingIdentity.h"

#include <binder/IPCThreadState.h>

namespace android::platform {

pid_t getCallingPid() {
    return IPCThreadState::self()->getCallingPid();
}

uid_t getCallingUid() {
    return IPCThreadState::self()->getCallingUid();
}

} // namespace android::platform
