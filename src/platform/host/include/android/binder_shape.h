#pragma once

// Host stand-in for the shape of the binder NDK types the callback interface uses: a status
// object and shared, reference-counted interface objects. No IPC happens on the host; the
// performance-service stand-in calls the interface directly.

#include <memory>
#include <new>
#include <utility>

namespace ndk {

class ScopedAStatus {
public:
    static ScopedAStatus ok() { return ScopedAStatus(true); }
    static ScopedAStatus fromServiceSpecificError(int32_t error) {
        ScopedAStatus status(false);
        status.mError = error;
        return status;
    }
    bool isOk() const { return mOk; }
    int32_t getServiceSpecificError() const { return mError; }

private:
    explicit ScopedAStatus(bool ok) : mOk(ok) {}
    bool mOk;
    int32_t mError = 0;
};

class SharedRefBase : public std::enable_shared_from_this<SharedRefBase> {
public:
    virtual ~SharedRefBase() = default;

    template <typename T, typename... Args>
    static std::shared_ptr<T> make(Args&&... args) {
        return std::shared_ptr<T>(new (std::nothrow) T(std::forward<Args>(args)...));
    }
};

class ICInterface : public SharedRefBase {};

} // namespace ndk
