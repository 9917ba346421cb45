// Decodes bytes into a deterministic sequence of exported calls on a manual clock: queues,
// latches, vsyncs, fences, configuration pushes, smart-touch calls and time steps. Whatever the
// order and arguments, nothing may crash, leak or leave a thread blocked.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "FuzzSupport.h"
#include "PerfdControl.h"
#include "layers/LayerManager.h"
#include "pelyx/pelyx.h"
#include "platform/HostControl.h"
#include "platform/Properties.h"

using namespace android;

namespace {
std::atomic<int64_t> gNow{1'000'000'000};
int64_t manualNow() { return gNow.load(); }

const char* const kNames[] = {
        "com.game/com.game.Main#1", "SurfaceView[com.game/com.game.Main]#2",
        "com.video/com.video.Player#3", "SurfaceView[com.tencent.mm/x.AppBrandUI]#4",
        "Wallpaper#5", "InputMethod#6", "VRI-com.app/com.app.A#7", ""};

int fenceIoctl(int fd, unsigned long request, void* arg) {
    if (request == 0xC0383E04) {
        memset(arg, 0, 56);
        strcpy(static_cast<char*>(arg), fd % 3 == 0 ? "mavu-timeline" : fd % 3 == 1 ? "detached" : "other");
    }
    return fd % 5 == 0 ? -1 : 0;
}
const platform::IoctlTable kDevices{[](const char*, int) { return 77; }, fenceIoctl,
                                    [](int) { return 0; }};
} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    pelyx_fuzz::silenceLogs();
    platform::host::setClock(&manualNow);
    platform::host::setIoctlTable(&kDevices);
    perfd_stub::setProp("vendor.perf.phr.enable", "1");
    perfd_stub::setProp("vendor.ruvo.enable.target_fps", "1");
    perfd_stub::setProp("vendor.perf.gpu_jank_detect.enable", "1");
    perfd_stub::setGame("com.game", true);
    perfd_stub::setGameWeight("com.game", 2);
    platform::setProperty("debug.vendor.perf.smart_touch", "1");
    platform::setProperty("debug.vendor.perf.smart_touch.move", "1");
    pelyxInit(1080, 2400);
    aPelyxAppInit();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    pelyx_fuzz::Input in(data, size);
    for (int step = 0; step < 256; step++) {
        const uint8_t op = in.take<uint8_t>();
        const uint8_t arg = in.take<uint8_t>();
        const int32_t id = 1 + arg % 8;
        const char* name = kNames[arg % 8];
        const PelyxRect bounds{0, 0, 1080 - (arg & 0x30) * 10, 2400 - (arg & 0xC0) * 4};
        switch (op % 12) {
            case 0: case 1: case 2:
                pelyxTrackBufferIncrement(name, id, arg & 1, arg & 2, manualNow());
                break;
            case 3: case 4:
                pelyxTrackBufferDecrement(name, id, arg % 4 - 1, &bounds, arg & 1, !(arg & 2));
                break;
            case 5: pelyxTrackVsyncSignal(); break;
            case 6: pelyxSetVsyncPeriod(arg & 1 ? 16'666'666 : 8'333'333); break;
            case 7:
                pelyxNotifyGpuFenceUnsignaled(arg, id);
                pelyxTrackLatchUnsignaledGpuFence(arg + 1, id);
                if (arg & 1) pelyxFlushLatchUnsignaledGpuFences();
                break;
            case 8: {
                static const int kHints[] = {4171, 4187, 4189, 4192};
                perfd_stub::pushHint(kHints[arg % 4], arg & 4 ? "com.game:golden=0.8" : "com.game",
                                     in.take<int16_t>(), in.take<int8_t>(), in.takeInts(6));
                perfd_stub::clearCalls();
                break;
            }
            case 9: {
                aPelyxSetTouchEvent(arg % 8);
                aPelyxQueueBuffer(arg & 1);
                bool autoTs = arg & 2;
                int64_t present = 0;
                uint32_t flags = arg;
                aPelyxFilterBuffer(&autoTs, &present, &flags);
                bool consume = false;
                aPelyxConsumeInputNow(&consume);
                aPelyxSetVsyncTime(manualNow() - arg * 100'000);
                break;
            }
            case 10: pelyxUnblockPendingBuffer(); break;
            default:
                // Time moves in frame-sized steps, now and then by seconds (clean-ups, windows).
                gNow.fetch_add(arg < 250 ? 1'000'000 + arg * 100'000 : 2'000'000'000);
                break;
        }
        if (in.take<uint8_t>() == 0xFF) break;
    }
    return 0;
}
