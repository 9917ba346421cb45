#pragma once

// What the library made visible during a run, in time order, one record per line: the calls it
// made into the performance service, GPU boosts, fence deadline requests, buffer holds and its
// log lines. On the virtual clock the file is the same from one run to the next, which is what
// the scenario goldens compare. Thread-safe: the library reaches the service and the log from
// any of its threads.

#include <android-base/thread_annotations.h>
#include <utils/Mutex.h>

#include <cstdint>
#include <string>
#include <vector>

#include <PerfdControl.h>

namespace pelyx_sim {

class RecordLog {
public:
    void add(int64_t timeNs, std::string text) EXCLUDES(mLock);
    void addCall(int64_t timeNs, const perfd_stub::Call& call) EXCLUDES(mLock);
    // Writes the records sorted by time (ties keep their arrival order), times in seconds from
    // `originNs`. Throws std::runtime_error when the file cannot be written.
    void write(const std::string& path, int64_t originNs) const EXCLUDES(mLock);

private:
    struct Record {
        int64_t timeNs;
        std::string text;
    };
    mutable android::Mutex mLock;
    std::vector<Record> mRecords GUARDED_BY(mLock);
};

} // namespace pelyx_sim
