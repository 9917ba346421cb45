#pragma once

// GPU fence jank detection: the kernel sync-file records and the fence-origin check.

#include <linux/sync_file.h>
#include <linux/types.h>

#include <cstdint>

// Older distribution kernel headers predate the deadline request; the record and request are
// the kernel's own.
#ifndef SYNC_IOC_SET_DEADLINE
struct sync_set_deadline {
    __u64 deadline_ns;
    __u64 pad;
};
#define SYNC_IOC_SET_DEADLINE _IOW(SYNC_IOC_MAGIC, 5, struct sync_set_deadline)
#endif

static_assert(SYNC_IOC_FILE_INFO == 0xC0383E04u, "sync_file info request");
static_assert(SYNC_IOC_SET_DEADLINE == 0x40103E05u, "sync_file deadline request");
static_assert(sizeof(struct sync_file_info) == 56, "sync_file_info layout");
static_assert(sizeof(struct sync_set_deadline) == 16, "sync_set_deadline layout");

namespace android {

class LayerInfo;

// Values of LayerInfo::mFenceOrigin.
constexpr uint8_t kFenceOriginUnknown = 0;
constexpr uint8_t kFenceOriginGpu = 1;
constexpr uint8_t kFenceOriginOther = 255;

// True when the fence on fd must be treated as a GPU fence. Asks the kernel for the fence's name
// unless the layer's origin is already cached: a GPU-driver timeline fence caches "GPU", a
// detached fence is GPU but never cached, anything else caches "other". A failed query counts as
// GPU and caches nothing. fd stays the caller's and must be valid for the call.
//
// Any thread; call it without the LayerManager registry mutex (it makes a kernel call). The
// caller keeps the layer alive.
bool checkAndCacheFenceOrigin(LayerInfo& layer, int fd);

} // namespace android
