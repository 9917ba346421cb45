#include "platform/Properties.h"

#include <android-base/parsebool.h>
#include <android-base/parseint.h>

#include <condition_variable>
#include <map>
#include <mutex>

#include "platform/HostControl.h"
#include "platform/host/VirtualTime.h"

namespace android::platform {
namespace {

struct Entry {
    std::string value;
    uint32_t serial = 0;
};

// The in-process property service: one store, one condition for every waiter.
class PropertyStore {
public:
    std::string get(const std::string& key) {
        std::lock_guard<std::mutex> lock(mMutex);
        auto it = mEntries.find(key);
        return it == mEntries.end() ? std::string() : it->second.value;
    }

    bool set(const std::string& key, const std::string& value) {
        const bool readOnly = key.rfind("ro.", 0) == 0;
        if (key.empty() || (!readOnly && value.size() >= kPropValueMax)) return false;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            Entry& entry = mEntries[key];
            if (readOnly && entry.serial != 0) return false;
            entry.value = value;
            entry.serial++;
        }
        if (host::VirtualTime* time = host::VirtualTime::active()) time->notify(this, true);
        mChanged.notify_all();
        return true;
    }

    uint32_t serial(const std::string& key) {
        std::lock_guard<std::mutex> lock(mMutex);
        auto it = mEntries.find(key);
        return it == mEntries.end() ? 0 : it->second.serial;
    }

    // Waits until pred(entry) holds; an absent key is seen as an empty, never-set entry.
    template <typename Pred>
    bool waitFor(const std::string& key, std::chrono::milliseconds timeout, Pred pred) {
        std::unique_lock<std::mutex> lock(mMutex);
        auto check = [&] {
            auto it = mEntries.find(key);
            return pred(it == mEntries.end() ? Entry{} : it->second);
        };
        if (host::VirtualTime* time = host::VirtualTime::active()) {
            const int64_t deadline = timeout == kWaitForever
                    ? host::VirtualTime::kNever
                    : time->now() + std::chrono::nanoseconds(timeout).count();
            while (!check()) {
                // No other participant runs between the unlock and the wait: no set is lost.
                lock.unlock();
                const bool changed = time->wait(this, deadline, "property wait");
                lock.lock();
                if (!changed) return check();
            }
            return true;
        }
        if (timeout == kWaitForever) {
            mChanged.wait(lock, check);
            return true;
        }
        return mChanged.wait_for(lock, timeout, check);
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mMutex);
        mEntries.clear();
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::map<std::string, Entry> mEntries;
};

PropertyStore& store() {
    static PropertyStore* sStore = new PropertyStore(); // outlives detached watcher threads
    return *sStore;
}

} // namespace

std::string getProperty(const std::string& key, const std::string& defaultValue) {
    std::string value = store().get(key);
    return value.empty() ? defaultValue : value;
}

bool getBoolProperty(const std::string& key, bool defaultValue) {
    switch (base::ParseBool(store().get(key))) {
        case base::ParseBoolResult::kTrue: return true;
        case base::ParseBoolResult::kFalse: return false;
        case base::ParseBoolResult::kError: break;
    }
    return defaultValue;
}

int64_t getIntProperty(const std::string& key, int64_t defaultValue, int64_t minValue,
                       int64_t maxValue) {
    int64_t value;
    return base::ParseInt(store().get(key), &value, minValue, maxValue) ? value : defaultValue;
}

bool setProperty(const std::string& key, const std::string& value) {
    return store().set(key, value);
}

bool waitForProperty(const std::string& key, const std::string& expected,
                     std::chrono::milliseconds timeout) {
    return store().waitFor(key, timeout, [&](const Entry& e) { return e.value == expected; });
}

uint32_t propertySerial(const std::string& key) {
    return store().serial(key);
}

bool waitForPropertyChange(const std::string& key, uint32_t* serial,
                           std::chrono::milliseconds timeout) {
    uint32_t seen = *serial;
    bool changed = store().waitFor(key, timeout, [&](const Entry& e) {
        seen = e.serial;
        return e.serial != *serial;
    });
    if (changed) *serial = seen;
    return changed;
}

void host::clearProperties() {
    store().clear();
}

} // namespace android::platform
