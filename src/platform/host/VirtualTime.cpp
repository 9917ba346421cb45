#include "platform/host/VirtualTime.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>

namespace android::platform::host {
namespace {

std::atomic<VirtualTime*> gActive{nullptr};
thread_local VirtualTime::Participant* tSelf = nullptr;

void jitter(int64_t maxUs) {
    if (maxUs <= 0) return;
    thread_local std::minstd_rand random(std::random_device{}());
    std::this_thread::sleep_for(std::chrono::microseconds(random() % (maxUs + 1)));
}

std::string firstLineOf(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

} // namespace

struct VirtualTime::Participant {
    enum class State { kReady, kRunning, kWaiting, kExited };

    std::string name;
    int number = 0;  // 1 + registration order
    std::thread::id id;
    long tid = 0;
    State state = State::kReady;
    int64_t readyAt = 0;
    int64_t deadline = kNever;
    const void* key = nullptr;
    uint64_t waitSeq = 0;
    bool timedOut = false;
    const char* what = "start";
    std::condition_variable turn;
    std::mt19937_64 random;
};

VirtualTime* VirtualTime::active() {
    return gActive.load(std::memory_order_acquire);
}

void VirtualTime::start(VirtualTimeOptions options) {
    auto* time = new VirtualTime(std::move(options));  // lives as long as the process's threads
    std::unique_lock<std::mutex> lock(time->mMutex);
    Participant* self = time->addLocked("main");
    self->id = std::this_thread::get_id();
    self->tid = syscall(SYS_gettid);
    self->state = Participant::State::kRunning;
    time->mRunning = self;
    tSelf = self;
    lock.unlock();
    gActive.store(time, std::memory_order_release);
    if (time->mOptions.watchdogS > 0) std::thread([time] { time->watchdog(); }).detach();
}

VirtualTime::VirtualTime(VirtualTimeOptions options)
      : mOptions(std::move(options)), mNow(mOptions.startNs) {}

int64_t VirtualTime::now() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mNow;
}

void VirtualTime::fatal(const std::string& message) {
    fprintf(stderr, "virtual time: %s\n", message.c_str());
    fflush(stderr);
    _exit(1);
}

VirtualTime::Participant* VirtualTime::selfOrDie(const char* what) {
    if (tSelf == nullptr) {
        fatal(std::string("a thread not started through platform::Thread waits at ") + what +
              "; it cannot take part in the turn");
    }
    return tSelf;
}

void VirtualTime::makeReadyLocked(Participant& p, int64_t at) {
    p.state = Participant::State::kReady;
    p.key = nullptr;
    p.readyAt = at;
    if (mOptions.wakeupLatencyNs) {
        const int64_t latency = mOptions.wakeupLatencyNs(p.random);
        if (latency > 0 && p.readyAt <= kNever - latency) p.readyAt += latency;
    }
}

// Hands the turn to the next participant. The caller has already left the running state.
void VirtualTime::dispatchLocked() {
    for (;;) {
        Participant* ready = nullptr;
        Participant* timed = nullptr;
        for (const auto& owned : mParticipants) {
            Participant* p = owned.get();
            if (p->state == Participant::State::kReady) {
                if (!ready || p->readyAt < ready->readyAt) ready = p;
            } else if (p->state == Participant::State::kWaiting && p->deadline != kNever) {
                if (!timed || p->deadline < timed->deadline) timed = p;
            }
        }
        // A deadline that comes before anything can run wakes its waiter first.
        if (timed && (!ready || timed->deadline <= ready->readyAt)) {
            timed->timedOut = true;
            makeReadyLocked(*timed, timed->deadline);
            continue;
        }
        if (!ready) {
            std::string waits;
            for (const auto& p : mParticipants) {
                if (p->state != Participant::State::kWaiting) continue;
                waits += (waits.empty() ? "" : ", ") + ("\"" + p->name + "\" at " + p->what);
            }
            fatal("every thread waits and none has a deadline: " + waits);
        }
        if (ready->readyAt > mNow) mNow = ready->readyAt;
        ready->state = Participant::State::kRunning;
        if (ready != mLastRunning) ++mHandoffs;
        ++mTurns;
        mRunning = ready;
        mLastRunning = ready;
        ready->turn.notify_one();
        return;
    }
}

void VirtualTime::blockUntilTurnLocked(std::unique_lock<std::mutex>& lock, Participant& self) {
    self.turn.wait(lock, [&self] { return self.state == Participant::State::kRunning; });
}

bool VirtualTime::wait(const void* key, int64_t deadline, const char* what) {
    Participant* self = selfOrDie(what);
    std::unique_lock<std::mutex> lock(mMutex);
    if (deadline <= mNow) return false;
    self->state = Participant::State::kWaiting;
    self->key = key;
    self->deadline = deadline;
    self->waitSeq = mWaitSeq++;
    self->timedOut = false;
    self->what = what;
    mRunning = nullptr;
    dispatchLocked();
    blockUntilTurnLocked(lock, *self);
    const bool signalled = !self->timedOut;
    lock.unlock();
    jitter(mOptions.realJitterUs);
    return signalled;
}

void VirtualTime::notify(const void* key, bool all) {
    std::lock_guard<std::mutex> lock(mMutex);
    notifyLocked(key, all);
}

void VirtualTime::notifyLocked(const void* key, bool all) {
    for (;;) {
        Participant* first = nullptr;
        for (const auto& p : mParticipants) {
            if (p->state == Participant::State::kWaiting && p->key == key && key != nullptr &&
                (!first || p->waitSeq < first->waitSeq)) {
                first = p.get();
            }
        }
        if (!first) return;
        first->timedOut = false;
        makeReadyLocked(*first, mNow);
        if (!all) return;
    }
}

void VirtualTime::setDeadline(const void* key, int64_t deadline) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (const auto& p : mParticipants) {
        if (p->state == Participant::State::kWaiting && p->key == key) p->deadline = deadline;
    }
}

VirtualTime::Participant* VirtualTime::add(const char* name) {
    std::lock_guard<std::mutex> lock(mMutex);
    return addLocked(name);
}

VirtualTime::Participant* VirtualTime::addLocked(const char* name) {
    auto p = std::make_unique<Participant>();
    p->name = name;
    p->number = static_cast<int>(mParticipants.size()) + 1;
    std::seed_seq seed{static_cast<uint32_t>(mOptions.seed), static_cast<uint32_t>(mOptions.seed >> 32),
                       static_cast<uint32_t>(p->number)};
    p->random.seed(seed);
    p->state = Participant::State::kReady;
    p->readyAt = mNow;
    mParticipants.push_back(std::move(p));
    return mParticipants.back().get();
}

void VirtualTime::bind(Participant* participant, std::thread::id id) {
    std::lock_guard<std::mutex> lock(mMutex);
    participant->id = id;
}

void VirtualTime::abandon(Participant* participant) {
    std::lock_guard<std::mutex> lock(mMutex);
    participant->state = Participant::State::kExited;
}

void VirtualTime::enter(Participant* participant) {
    jitter(mOptions.realJitterUs);
    tSelf = participant;
    std::unique_lock<std::mutex> lock(mMutex);
    participant->tid = syscall(SYS_gettid);
    blockUntilTurnLocked(lock, *participant);
}

void VirtualTime::leave(Participant* participant) {
    std::unique_lock<std::mutex> lock(mMutex);
    participant->state = Participant::State::kExited;
    mRunning = nullptr;
    notifyLocked(participant, true);  // its joiners
    dispatchLocked();
    tSelf = nullptr;
}

void VirtualTime::awaitExit(std::thread::id id) {
    Participant* target = nullptr;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& p : mParticipants) {
            if (p->id == id && p->state != Participant::State::kExited) target = p.get();
        }
    }
    if (target == nullptr) return;
    // Only the joined thread's leave() notifies this key, and not before it has exited.
    while (wait(target, kNever, "join")) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (target->state == Participant::State::kExited) return;
    }
}

uint64_t VirtualTime::handoffs() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mHandoffs;
}

int VirtualTime::currentNumber() {
    return tSelf ? tSelf->number : 0;
}

// On real time: a participant that keeps the turn without reaching a seam is blocked outside
// them (a lock held by a waiting participant, a kernel call that waits), and nothing else can run.
void VirtualTime::watchdog() {
    const auto limit = std::chrono::duration<double>(mOptions.watchdogS);
    uint64_t seen = ~uint64_t{0};
    auto since = std::chrono::steady_clock::now();
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::unique_lock<std::mutex> lock(mMutex);
        const auto realNow = std::chrono::steady_clock::now();
        if (mTurns != seen || mRunning == nullptr) {
            seen = mTurns;
            since = realNow;
            continue;
        }
        if (realNow - since < limit) continue;
        const Participant& p = *mRunning;
        const std::string task = "/proc/self/task/" + std::to_string(p.tid);
        const std::string wchan = firstLineOf(task + "/wchan");
        std::string syscallNo = firstLineOf(task + "/syscall");
        syscallNo = syscallNo.substr(0, syscallNo.find(' '));
        char line[512];
        snprintf(line, sizeof(line),
                 "watchdog: thread \"%s\" has held the turn for %.1f s of real time without "
                 "reaching a wait of the virtual clock: it is blocked in the kernel at %s "
                 "(system call %s), since its last wait at %s",
                 p.name.c_str(), mOptions.watchdogS, wchan.empty() ? "?" : wchan.c_str(),
                 syscallNo.empty() ? "?" : syscallNo.c_str(), p.what);
        fatal(line);
    }
}

void startVirtualTime(VirtualTimeOptions options) {
    VirtualTime::start(std::move(options));
}

bool virtualTimeRunning() {
    return VirtualTime::active() != nullptr;
}

uint64_t virtualTimeHandoffs() {
    VirtualTime* time = VirtualTime::active();
    return time ? time->handoffs() : 0;
}

} // namespace android::platform::host
