#pragma once

#include <sys/types.h>

namespace android::platform {

// Pid and uid of the process whose call the current thread is serving (the binder caller on a
// device). Defaults to this process when no caller identity has been set on the thread.
pid_t getCallingPid();
uid_t getCallingUid();

} // namespace android::platform
