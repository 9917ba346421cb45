#pragma once

// The host's virtual clock: one scheduler for every thread that takes part (the participants:
// the thread that started it, and every thread started through platform::Thread after that).
// Exactly one participant holds the turn at a time and keeps it until it waits at a seam (sleep,
// condition, loop wait, property wait, join); the turn then goes to the ready participant with
// the earliest ready time, ties to the one registered first. When none is ready, the clock jumps
// to the earliest deadline. A thread woken (by a signal or its deadline) is ready after a
// scheduler wake-up latency drawn from its own generator, so that adding a thread shifts no other
// thread's draws. A run is then a function of its inputs.
//
// State machine of a participant: ready -> running (given the turn) -> waiting (at a seam) ->
// ready (signalled, or its deadline passed) ... -> exited (its body returned).
//
// Locking: mMutex guards every participant's state; a participant blocks on its own condition
// variable until it holds the turn. A seam releases its own lock before wait() and takes it again
// after, with the turn held, so that no other participant runs in between.

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/HostControl.h"

namespace android::platform::host {

class VirtualTime {
public:
    static constexpr int64_t kNever = INT64_MAX;
    struct Participant;

    // The running virtual clock, or nullptr.
    static VirtualTime* active();
    static void start(VirtualTimeOptions options);

    int64_t now();

    // The calling participant gives up the turn until notify(key) (key may be nullptr: a plain
    // sleep) or until `deadline`. Returns false when the deadline ended it. `what` names the
    // seam for the watchdog. A deadline already past returns false at once, turn kept.
    bool wait(const void* key, int64_t deadline, const char* what);
    // Makes the longest-waiting participant on `key` (every one, with `all`) ready.
    void notify(const void* key, bool all);
    // Moves the deadline of the participants waiting on `key`.
    void setDeadline(const void* key, int64_t deadline);

    // Thread seam: add() on the creating thread (the new one is ready at once), bind() once the
    // std::thread exists, enter() first thing on the new thread, leave() last thing.
    Participant* add(const char* name);
    void bind(Participant* participant, std::thread::id id);
    void abandon(Participant* participant);
    void enter(Participant* participant);
    void leave(Participant* participant);
    // Waits (as a seam) until the participant running on `id` has left; at once for any other.
    void awaitExit(std::thread::id id);

    // 1 + the calling participant's registration order; 0 for any other thread.
    int currentNumber();
    uint64_t handoffs();

private:
    explicit VirtualTime(VirtualTimeOptions options);
    Participant* addLocked(const char* name);
    void makeReadyLocked(Participant& p, int64_t at);
    void notifyLocked(const void* key, bool all);
    void dispatchLocked();
    void blockUntilTurnLocked(std::unique_lock<std::mutex>& lock, Participant& self);
    Participant* selfOrDie(const char* what);
    [[noreturn]] void fatal(const std::string& message);
    void watchdog();

    const VirtualTimeOptions mOptions;
    std::mutex mMutex;
    int64_t mNow;
    uint64_t mWaitSeq = 0;
    uint64_t mTurns = 0;     // every dispatch, for the watchdog
    uint64_t mHandoffs = 0;  // those that moved the turn to another thread
    Participant* mRunning = nullptr;
    Participant* mLastRunning = nullptr;
    std::vector<std::unique_ptr<Participant>> mParticipants;  // registration order; never shrinks
};

} // namespace android::platform::host
