#pragma once

// The device's one GPU: it runs the work of every layer in submission order, one job at a time,
// each at the clock it has while it runs. A job's work is given in ns at the base clock; at f MHz
// it takes base/f of that. The clock is the device governor's, raised to the frequency a
// boost-device record asks for until a withdrawal, and to the maximum while a deadline request on
// a fence is pending, as kernel GPU drivers do. Every raise takes effect a ramp time after it is
// asked for; a withdrawal only after the governor's next sample (`withdrawNs`).
// The governor steps the clock with utilisation on its own: at every multiple of its sample time
// it looks at how busy the GPU was over the window just ended and moves one operating point up
// (busy at least `up`), down (below `down`) or stays; the new point holds from that instant.
// Times are explicit (no clock is read), so the model is exact and testable; not thread-safe.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <vector>

namespace pelyx_sim {

struct GpuGovernor {
    int64_t sampleNs = 16'000'000;  // 0: no governor, the clock stays at base unless asked
    double up = 0.9;                // busy fraction of a window that steps up
    double down = 0.5;              // below it, one step down
    int steps = 4;                  // operating points above base, evenly up to the maximum
};

class Gpu {
public:
    Gpu(double baseMhz, double maxMhz, int64_t rampNs, int64_t withdrawNs,
        GpuGovernor governor = GpuGovernor{0});

    // Work submitted at `submitNs`, which may not start before `notBeforeNs` (the release fence of
    // the buffer it draws into). Returns the job's id.
    uint64_t submit(int64_t submitNs, int64_t workNs, int64_t notBeforeNs);
    // When the job's fence signals, as far as is known at `nowNs`; -1 for an unknown job.
    int64_t endOf(uint64_t job, int64_t nowNs);
    int64_t startOf(uint64_t job, int64_t nowNs);
    // A boost-device record at `nowNs`: MHz to run at, 0 to withdraw.
    void request(int64_t nowNs, double mhz);
    // A deadline request on the job's fence at `nowNs`.
    void hurry(uint64_t job, int64_t nowNs);
    // Forgets a finished job the caller no longer asks about.
    void forget(uint64_t job);

    double baseMhz() const { return mBaseMhz; }
    double maxMhz() const { return mMaxMhz; }
    // The clock at `t` with nothing hurried (requests only).
    double requestedMhzAt(int64_t t) const;

private:
    // The governor as of some instant: its point and the busy time of the window under way.
    struct Governed {
        int64_t sampleAtNs = INT64_MAX;  // the end of the window under way
        int level = 0;
        int64_t busyNs = 0;
    };
    struct Job {
        uint64_t id = 0;
        int64_t submitNs = 0;
        int64_t notBeforeNs = 0;
        int64_t workNs = 0;
        int64_t hurryFromNs = INT64_MAX;
        int64_t startNs = 0;
        int64_t endNs = 0;
        Governed governedAtEnd;
    };
    struct Change {
        int64_t atNs;
        double mhz;  // 0: back to base
    };

    // The job as known at `nowNs`, finished or not; null when unknown.
    const Job* find(uint64_t job, int64_t nowNs);
    void settle(int64_t nowNs);
    void schedule();
    double clockAt(int64_t t, size_t job, int level) const;
    int64_t nextChangeAfter(int64_t t, size_t job) const;
    double levelMhz(int level) const;
    int decide(int level, int64_t busyNs) const;
    void sampleUntil(Governed& g, int64_t t) const;
    void addBusy(Governed& g, int64_t fromNs, int64_t toNs) const;

    const double mBaseMhz;
    const double mMaxMhz;
    const int64_t mRampNs;
    const int64_t mWithdrawNs;
    const GpuGovernor mGovernor;
    uint64_t mNextId = 1;
    int64_t mIdleFromNs = INT64_MIN;  // the end of the last job that left the queue
    Governed mGoverned;                // frozen there
    std::deque<Job> mJobs;             // not finished at the last settle, in submission order
    std::vector<Change> mChanges;      // by time
    std::map<uint64_t, Job> mDone;     // finished, until forgotten
};

} // namespace pelyx_sim
