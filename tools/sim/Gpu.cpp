#include "Gpu.h"

#include <algorithm>
#include <cmath>

namespace pelyx_sim {

Gpu::Gpu(double baseMhz, double maxMhz, int64_t rampNs, int64_t withdrawNs)
      : mBaseMhz(baseMhz), mMaxMhz(std::max(baseMhz, maxMhz)), mRampNs(rampNs), mWithdrawNs(withdrawNs) {}

uint64_t Gpu::submit(int64_t submitNs, int64_t workNs, int64_t notBeforeNs) {
    settle(submitNs);
    Job job;
    job.id = mNextId++;
    job.submitNs = submitNs;
    job.notBeforeNs = notBeforeNs;
    job.workNs = std::max<int64_t>(0, workNs);
    mJobs.push_back(job);
    schedule();
    return job.id;
}

const Gpu::Job* Gpu::find(uint64_t job, int64_t nowNs) {
    settle(nowNs);
    if (auto it = mDone.find(job); it != mDone.end()) return &it->second;
    for (const Job& j : mJobs) {
        if (j.id == job) return &j;
    }
    return nullptr;
}

int64_t Gpu::endOf(uint64_t job, int64_t nowNs) {
    const Job* j = find(job, nowNs);
    return j ? j->endNs : -1;
}

int64_t Gpu::startOf(uint64_t job, int64_t nowNs) {
    const Job* j = find(job, nowNs);
    return j ? j->startNs : -1;
}

void Gpu::request(int64_t nowNs, double mhz) {
    settle(nowNs);
    const int64_t at = nowNs + (mhz > 0 ? mRampNs : mWithdrawNs);
    // A later request supersedes any still ramping.
    while (!mChanges.empty() && mChanges.back().atNs >= at) mChanges.pop_back();
    mChanges.push_back({at, std::max(0.0, mhz)});
    schedule();
}

void Gpu::hurry(uint64_t job, int64_t nowNs) {
    settle(nowNs);
    for (Job& j : mJobs) {
        if (j.id == job) j.hurryFromNs = std::min(j.hurryFromNs, nowNs + mRampNs);
    }
    schedule();
}

void Gpu::forget(uint64_t job) {
    mDone.erase(job);
}

double Gpu::requestedMhzAt(int64_t t) const {
    double mhz = 0;
    for (const Change& c : mChanges) {
        if (c.atNs > t) break;
        mhz = c.mhz;
    }
    return std::clamp(std::max(mhz, mBaseMhz), mBaseMhz, mMaxMhz);
}

// A deadline raise lasts until its job ends, and the jobs before it run first: while job i runs,
// the clock is at its maximum if any job from i on has been hurried by then.
double Gpu::clockAt(int64_t t, size_t job) const {
    for (size_t j = job; j < mJobs.size(); ++j) {
        if (mJobs[j].hurryFromNs <= t) return mMaxMhz;
    }
    return requestedMhzAt(t);
}

int64_t Gpu::nextChangeAfter(int64_t t, size_t job) const {
    int64_t next = INT64_MAX;
    for (const Change& c : mChanges) {
        if (c.atNs > t) {
            next = c.atNs;
            break;
        }
    }
    for (size_t j = job; j < mJobs.size(); ++j) {
        if (mJobs[j].hurryFromNs > t) next = std::min(next, mJobs[j].hurryFromNs);
    }
    return next;
}

// Recomputes every queued job's start and end from the clock's history, which only ever changes
// from a ramp time ahead of the latest call, so the jobs already finished stay as they were.
void Gpu::schedule() {
    int64_t t = mIdleFromNs;
    for (size_t i = 0; i < mJobs.size(); ++i) {
        Job& job = mJobs[i];
        t = std::max({t, job.submitNs, job.notBeforeNs});
        job.startNs = t;
        double left = static_cast<double>(job.workNs);  // ns of work at the base clock
        while (left > 0) {
            const double speed = clockAt(t, i) / mBaseMhz;
            const int64_t next = nextChangeAfter(t, i);
            const double needed = left / speed;
            if (next == INT64_MAX || static_cast<double>(next - t) >= needed) {
                t += static_cast<int64_t>(std::ceil(needed));
                left = 0;
            } else {
                left -= static_cast<double>(next - t) * speed;
                t = next;
            }
        }
        job.endNs = t;
    }
}

void Gpu::settle(int64_t nowNs) {
    while (!mJobs.empty() && mJobs.front().endNs <= nowNs) {
        mIdleFromNs = mJobs.front().endNs;
        mDone[mJobs.front().id] = mJobs.front();
        mJobs.pop_front();
    }
    // Changes before the idle point matter no more, except the one in force then.
    while (mChanges.size() > 1 && mChanges[1].atNs <= mIdleFromNs) mChanges.erase(mChanges.begin());
}

} // namespace pelyx_sim
