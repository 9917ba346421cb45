#pragma once

// Watches worker threads that call into the library: each marks when it enters a call, and the
// watchdog reports a thread that stays inside one call longer than the bound.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace pelyx_test {

class Watchdog {
public:
    struct Beat {
        std::atomic<int64_t> enteredNs{0}; // 0 while outside the library
        std::string role;
    };

    // Marks one library call of a worker for its scope.
    class Call {
    public:
        explicit Call(Beat& beat) : mBeat(beat) { mBeat.enteredNs.store(steadyNs()); }
        ~Call() { mBeat.enteredNs.store(0); }

    private:
        Beat& mBeat;
    };

    Watchdog(size_t workers, std::chrono::milliseconds bound) : mBeats(workers), mBound(bound) {}

    Beat& beat(size_t worker, std::string role) {
        mBeats[worker].role = std::move(role);
        return mBeats[worker];
    }

    // The role of a thread blocked for longer than the bound, or empty.
    std::string blocked() const {
        const int64_t now = steadyNs();
        for (const Beat& beat : mBeats) {
            const int64_t entered = beat.enteredNs.load();
            if (entered != 0 && now - entered > std::chrono::nanoseconds(mBound).count()) {
                return beat.role;
            }
        }
        return {};
    }

    static int64_t steadyNs() {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::steady_clock::now().time_since_epoch())
                .count();
    }

private:
    std::vector<Beat> mBeats;
    std::chrono::milliseconds mBound;
};

} // namespace pelyx_test
