#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace android {

// Queue times of a layer's pending buffers, oldest first. A ring that grows only while it is
// full, so the per-frame push/pop pair allocates nothing once warm. A compositor that stops
// latching cannot make it grow without bound: past kMaxEntries the oldest time is dropped.
class QueueTimes {
public:
    static constexpr size_t kMaxEntries = 128;

    bool empty() const { return mSize == 0; }
    size_t size() const { return mSize; }
    int64_t front() const { return mRing[mHead]; }

    void push_back(int64_t time) {
        if (mSize == mRing.size()) {
            if (mSize == kMaxEntries) {
                pop_front();
            } else {
                grow();
            }
        }
        mRing[(mHead + mSize) & (mRing.size() - 1)] = time;
        mSize++;
    }

    void pop_front() {
        mHead = (mHead + 1) & (mRing.size() - 1);
        mSize--;
    }

private:
    void grow() {
        std::vector<int64_t> bigger(mRing.empty() ? 4 : mRing.size() * 2);
        for (size_t i = 0; i < mSize; i++) bigger[i] = mRing[(mHead + i) & (mRing.size() - 1)];
        mRing.swap(bigger);
        mHead = 0;
    }

    std::vector<int64_t> mRing; // capacity is a power of two
    size_t mHead = 0;
    size_t mSize = 0;
};

} // namespace android
