#include "Gpu.h"

#include <algorithm>
#include <cmath>

namespace pelyx_sim {

namespace {

GpuGovernor usable(GpuGovernor g) {
    g.sampleNs = std::max<int64_t>(0, g.sampleNs);
    g.steps = std::max(0, g.steps);
    return g;
}

} // namespace

Gpu::Gpu(double baseMhz, double maxMhz, int64_t rampNs, int64_t withdrawNs, GpuGovernor governor)
      : mBaseMhz(baseMhz), mMaxMhz(std::max(baseMhz, maxMhz)), mRampNs(rampNs), mWithdrawNs(withdrawNs),
        mGovernor(usable(governor)) {
    if (mGovernor.sampleNs > 0) mGoverned.sampleAtNs = mGovernor.sampleNs;
}

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
double Gpu::clockAt(int64_t t, size_t job, int level) const {
    for (size_t j = job; j < mJobs.size(); ++j) {
        if (mJobs[j].hurryFromNs <= t) return mMaxMhz;
    }
    return std::max(levelMhz(level), requestedMhzAt(t));
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

double Gpu::levelMhz(int level) const {
    if (mGovernor.steps == 0) return mBaseMhz;
    return mBaseMhz + (mMaxMhz - mBaseMhz) * level / mGovernor.steps;
}

int Gpu::decide(int level, int64_t busyNs) const {
    // A quotient, not busy >= up * sample: 0.9 * 16 ms rounds above 14.4 ms.
    const double busy = static_cast<double>(busyNs) / static_cast<double>(mGovernor.sampleNs);
    if (busy >= mGovernor.up) return std::min(mGovernor.steps, level + 1);
    if (busy < mGovernor.down) return std::max(0, level - 1);
    return level;
}

// Takes the samples due by `t`, the GPU idle since the busy time counted. Once an idle window
// leaves the point as it is, so do all the idle ones after it: they are skipped at once, so a
// long idle spell costs at most a sample per operating point.
void Gpu::sampleUntil(Governed& g, int64_t t) const {
    while (g.sampleAtNs <= t) {
        const int next = decide(g.level, g.busyNs);
        if (g.busyNs == 0 && next == g.level) {
            g.sampleAtNs += ((t - g.sampleAtNs) / mGovernor.sampleNs + 1) * mGovernor.sampleNs;
            break;
        }
        g.level = next;
        g.busyNs = 0;
        g.sampleAtNs += mGovernor.sampleNs;
    }
}

// Running from `fromNs` to `toNs`, no later than the window's end; before time 0 is no window.
void Gpu::addBusy(Governed& g, int64_t fromNs, int64_t toNs) const {
    if (mGovernor.sampleNs == 0) return;
    g.busyNs += std::max<int64_t>(0, toNs - std::max(fromNs, g.sampleAtNs - mGovernor.sampleNs));
}

// Recomputes every queued job's start and end from the clock's history, which only ever changes
// from a ramp time ahead of the latest call, so the jobs already finished stay as they were. The
// governor is replayed from its state at the idle point: its samples up to any instant depend on
// the work run by then, which was all submitted by then.
void Gpu::schedule() {
    int64_t t = mIdleFromNs;
    Governed g = mGoverned;
    for (size_t i = 0; i < mJobs.size(); ++i) {
        Job& job = mJobs[i];
        t = std::max({t, job.submitNs, job.notBeforeNs});
        job.startNs = t;
        double left = static_cast<double>(job.workNs);  // ns of work at the base clock
        while (left > 0) {
            sampleUntil(g, t);
            const double speed = clockAt(t, i, g.level) / mBaseMhz;
            const int64_t next = std::min(nextChangeAfter(t, i), g.sampleAtNs);
            const double needed = left / speed;
            if (next == INT64_MAX || static_cast<double>(next - t) >= needed) {
                const int64_t end = t + static_cast<int64_t>(std::ceil(needed));
                addBusy(g, t, end);
                t = end;
                left = 0;
            } else {
                left -= static_cast<double>(next - t) * speed;
                addBusy(g, t, next);
                t = next;
            }
        }
        job.endNs = t;
        job.governedAtEnd = g;
    }
}

void Gpu::settle(int64_t nowNs) {
    while (!mJobs.empty() && mJobs.front().endNs <= nowNs) {
        mIdleFromNs = mJobs.front().endNs;
        mGoverned = mJobs.front().governedAtEnd;
        mDone[mJobs.front().id] = mJobs.front();
        mJobs.pop_front();
    }
    // Changes before the idle point matter no more, except the one in force then.
    while (mChanges.size() > 1 && mChanges[1].atNs <= mIdleFromNs) mChanges.erase(mChanges.begin());
}

} // namespace pelyx_sim
