#pragma once

// Watches worker threads that call into the library: each marks when it enters a call, and the
// watchdog reports a thread that stays inside one call longer than the bound.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace pelyx_test {

// The run length from the environment variable, or the default.
inline int secondsFromEnv(const char* name, int fallback) {
    const char* env = getenv(name);
    const int seconds = env ? atoi(env) : 0;
    return seconds > 0 ? seconds : fallback;
}

class Watchdog {
    using Clock = std::chrono::steady_clock;

public:
    struct Beat {
        std::atomic<Clock::rep> entered{0}; // 0 while outside the library
        std::string role;
    };
    // Marks one library call of a worker for its scope.
    struct Call {
        explicit Call(Beat& b) : beat(b) { beat.entered = Clock::now().time_since_epoch().count(); }
        ~Call() { beat.entered = 0; }
        Beat& beat;
    };

    Watchdog(size_t workers, Clock::duration bound) : mBeats(workers), mBound(bound) {}
    Beat& beat(size_t worker, std::string role) {
        mBeats[worker].role = std::move(role);
        return mBeats[worker];
    }
    // A worker that runs `step` inside the library, `pause` apart, until `running` clears.
    template <typename Step>
    std::thread periodic(size_t worker, std::string role, const std::atomic<bool>& running,
                         Clock::duration pause, Step step) {
        return std::thread([&b = beat(worker, std::move(role)), &running, pause, step]() mutable {
            while (running.load()) {
                {
                    Call call(b);
                    step();
                }
                std::this_thread::sleep_for(pause);
            }
        });
    }
    // The role of a thread blocked for longer than the bound, or empty.
    std::string blocked() const {
        const Clock::rep now = Clock::now().time_since_epoch().count();
        for (const Beat& beat : mBeats) {
            const Clock::rep entered = beat.entered;
            if (entered != 0 && now - entered > mBound.count()) return beat.role;
        }
        return {};
    }
    // A thread that never returns cannot be joined: report it and leave at once.
    void exitIfBlocked() const {
        const std::string role = blocked();
        if (role.empty()) return;
        fprintf(stderr, "thread '%s' blocked inside the library\n", role.c_str());
        _exit(1);
    }

private:
    std::vector<Beat> mBeats;
    Clock::duration mBound;
};

} // namespace pelyx_test
