#pragma once

#include <functional>
#include <thread>

namespace android::platform {

// A thread of the library or of its host: std::thread, except that on a host running virtual
// time the thread takes part in the virtual clock's turn from its first instruction on, and a
// join waits for it on that clock. Like std::thread, it must be joined or detached before it goes.
// Not thread-safe: one owner starts, joins or detaches it.
class Thread {
public:
    // Starts `body` on a new thread; `name` labels it for the virtual clock's watchdog (the body
    // still names itself with setThreadName). False when the thread cannot be created.
    bool start(const char* name, std::function<void()> body);
    bool joinable() const { return mThread.joinable(); }
    // True on the thread itself: it cannot join itself.
    bool isCurrent() const { return mThread.get_id() == std::this_thread::get_id(); }
    void join();
    void detach() { mThread.detach(); }

private:
    std::thread mThread;
};

} // namespace android::platform
