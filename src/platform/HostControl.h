#pragma once

// Host build only: how the simulator and the tests play the device's part behind the seams.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <random>
#include <string>

#include "platform/Ioctl.h"

namespace android::platform::host {

// Replaces the clock behind platform::now(); nullptr restores the monotonic clock.
using ClockFn = int64_t (*)();
void setClock(ClockFn clock);

// The virtual clock (host/VirtualTime.h). Once started it runs every wait of the calling thread
// and of every thread started through platform::Thread after it, for the rest of the process.
struct VirtualTimeOptions {
    int64_t startNs = 1'000'000'000'000;  // virtual "now" at the start
    uint64_t seed = 1;
    // The scheduler's wake-up latency, drawn with the woken thread's own generator on each
    // wake-up; empty: none.
    std::function<int64_t(std::mt19937_64&)> wakeupLatencyNs;
    // A thread that holds the turn this long in real time without reaching a wait ends the
    // process with status 1 and a line naming it; 0: never.
    double watchdogS = 10.0;
    // Up to this many microseconds of real time, at random, at each thread's start and each
    // turn it takes: disturbs the host's timing, which must change nothing of a run.
    int64_t realJitterUs = 0;
};
void startVirtualTime(VirtualTimeOptions options);
bool virtualTimeRunning();
// Turns handed from one thread to another so far (0 on real time).
uint64_t virtualTimeHandoffs();

// Identity reported by getCallingPid/getCallingUid on the calling thread until cleared.
void setCallingIdentity(pid_t pid, uid_t uid);
void clearCallingIdentity();

// Opens (truncating) a Trace Event Format file; tracing is on until traceClose(), which
// completes the JSON. Returns false with errno set when the file cannot be created.
bool traceOpen(const std::string& path);
void traceClose();
// Also hands every trace event to `listener` (null: none), under the writer's lock; tracing is
// on while a listener is set.
void setTraceListener(std::function<void(char phase, const char* name, int64_t value)> listener);

// Every notifyPowerBoost is counted and handed to the listener, if any (called on the caller's
// thread; keep it short).
uint64_t powerBoostCount();
void setPowerBoostListener(std::function<void(int32_t)> listener);

// Installs another ioctl table; nullptr restores the real calls. The table must outlive its use.
void setIoctlTable(const IoctlTable* table);

// Forgets every property (tests start from a clean store).
void clearProperties();

} // namespace android::platform::host
