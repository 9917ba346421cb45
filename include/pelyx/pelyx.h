#ifndef PELYX_PELYX_H
#define PELYX_PELYX_H

/*
 * libpelyx: frame pacing and performance hints for the display compositor.
 *
 * The compositor calls the pelyx* functions from its own threads; aPelyxAppInit is the start-up
 * of the app-side smart-touch functions inside an application process. Every pelyx* function
 * may be called before pelyxInit and with the library disabled: it then does nothing (or
 * answers from its switches). No function reports an error or lets an exception escape.
 * Strings and descriptors passed in stay the caller's; none is kept or closed by the call.
 */

#include <stdbool.h>
#include <stdint.h>

#define PELYX_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Layer bounds in display pixels. */
typedef struct PelyxRect {
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
} PelyxRect;

/*
 * One-time start-up with the display size in pixels. Returns whether the library is enabled.
 * Disabled: nothing starts and a later call asks again. Enabled: the first call registers with
 * the performance service, starts the layer registry and a property watcher thread; later
 * calls return at once. Any thread; concurrent callers wait for the first one to finish.
 */
PELYX_EXPORT bool pelyxInit(int32_t width, int32_t height);

/*
 * A buffer was queued to layer `layerId` named `layerName` (NUL-terminated) by the process whose
 * binder call the current thread is serving. `flag` and `value` come from the compositor's
 * queue path, `timestamp` is monotonic ns. Compositor queue (binder) threads.
 * MAY BLOCK: a buffer queued too far ahead of its presentation (or ahead of a target frame
 * rate's pacing) is held here until the headroom monitor or a vsync releases it.
 */
PELYX_EXPORT void pelyxTrackBufferIncrement(const char* layerName, int32_t layerId, bool flag,
                                            uint32_t value, int64_t timestamp);

/*
 * A buffer of layer `layerId` was latched; `pendingCount` buffers are still queued. `bounds`
 * (may be null: unknown) is the layer's screen rectangle, `focused` and `visible` its state.
 * Compositor main thread; does not block beyond a short registry lock.
 */
PELYX_EXPORT void pelyxTrackBufferDecrement(const char* layerName, int32_t layerId,
                                            int32_t pendingCount, const PelyxRect* bounds,
                                            bool focused, bool visible);

/* A vsync happened now. Compositor vsync thread; does not block beyond a short lock. */
PELYX_EXPORT void pelyxTrackVsyncSignal(void);

/* The display's vsync period in ns. Compositor main thread; non-blocking. */
PELYX_EXPORT void pelyxSetVsyncPeriod(int64_t vsyncPeriodNs);

/*
 * Releases every queue thread held for headroom (a touch needs the next frame now) while smart
 * touch is on. Compositor input path; non-blocking.
 */
PELYX_EXPORT void pelyxUnblockPendingBuffer(void);

/* Whether smart touch is switched on in this process. Any thread; non-blocking. */
PELYX_EXPORT bool pelyxSmartTouchEnabled(void);

/*
 * Whether target-fps pacing is on and the performance service configured a target rate.
 * Any thread; takes one short lock.
 */
PELYX_EXPORT bool pelyxIsTargetFpsActive(void);

/*
 * The GPU fence `fenceFd` of layer `layerId` was still unsignalled at latch time: asks the
 * driver to hurry when the GPU has had its minimum execution time. fenceFd must be at least 0
 * and layerId at least 1. Compositor main thread; one or two ioctls on the fence, no waiting.
 */
PELYX_EXPORT void pelyxNotifyGpuFenceUnsignaled(int32_t fenceFd, int32_t layerId);

/*
 * Records an unsignalled GPU fence found while latching, for pelyxFlushLatchUnsignaledGpuFences.
 * fenceFd must stay valid until the flush. Same argument rules and thread as above.
 */
PELYX_EXPORT void pelyxTrackLatchUnsignaledGpuFence(int32_t fenceFd, int32_t layerId);

/*
 * Treats the fences recorded since the last flush (or latch of their layer) in one pass.
 * Compositor main thread, after latching; one ioctl per late fence, no waiting.
 */
PELYX_EXPORT void pelyxFlushLatchUnsignaledGpuFences(void);

/*
 * App-side start-up in an application process: reads the smart-touch switches and starts two
 * property watcher threads. Call once, from the app's main thread; non-blocking.
 */
PELYX_EXPORT void aPelyxAppInit(void);

/*
 * App-side smart touch. Called by the app's buffer-queue code on its input and render threads;
 * none blocks, takes a lock or allocates. All but aPelyxQueueBuffer and aPelyxSetVsyncTime do
 * nothing until aPelyxAppInit has run in the process.
 */

/* Whether aPelyxAppInit has run in this process. */
PELYX_EXPORT bool aPelyxSmartTouchActive(void);

/* Around each queued buffer: true when its queueing starts, false when it is queued. */
PELYX_EXPORT void aPelyxQueueBuffer(bool preQueue);

/* A motion-event action code (down 0, up 1, move 2, pointer down 5, pointer up 6, hover
 * move 7); a down or up after a pause boosts the compositor and makes the next buffer instant. */
PELYX_EXPORT void aPelyxSetTouchEvent(int action);

/* The time (ns, monotonic) of the vsync the app's next frame is drawn for. */
PELYX_EXPORT void aPelyxSetVsyncTime(int64_t vsyncTime);

/* For the buffer being queued: may turn an automatic timestamp into a present time in the past
 * (an instant buffer) and clears bit 5 of *flags. A buffer with the app's own present time is
 * left alone. */
PELYX_EXPORT void aPelyxFilterBuffer(bool* isAutoTimestamp, int64_t* desiredPresentTime,
                                     uint32_t* flags);

/* For a pending MOVE batch: writes whether the app consumes it now or holds it until its next
 * frame is near; leaves *consumeNow unwritten when it has no opinion. */
PELYX_EXPORT void aPelyxConsumeInputNow(bool* consumeNow);

#ifdef __cplusplus
}
#endif

#endif /* PELYX_PELYX_H */
