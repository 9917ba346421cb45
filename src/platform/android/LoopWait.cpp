#include "platform/LoopWait.h"

#include "platform/common/Kernel.h"

namespace android::platform {

std::unique_ptr<LoopWait> LoopWait::create() {
    auto wait = std::make_unique<kernel::KernelLoopWait>();
    if (!wait->open()) return nullptr;
    return wait;
}

} // namespace android::platform
