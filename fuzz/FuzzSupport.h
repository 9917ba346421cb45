#pragma once

#include <android/log.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace pelyx_fuzz {

// Log lines are formatted but not printed: the fuzzer's output stays readable.
inline void silenceLogs() {
    __android_log_set_logger([](const struct __android_logger_data*, const char*) {});
}

// Consumes a fuzzer input front to back; runs dry into zeros and empty strings.
class Input {
public:
    Input(const uint8_t* data, size_t size) : mData(data), mSize(size) {}

    template <typename T>
    T take() {
        T value{};
        const size_t n = std::min(sizeof(T), mSize - mPos);
        memcpy(&value, mData + mPos, n);
        mPos += n;
        return value;
    }

    // A string whose length is the next byte pair (bounded by what is left).
    std::string takeString() {
        const size_t len = std::min<size_t>(take<uint16_t>(), mSize - mPos);
        std::string s(reinterpret_cast<const char*>(mData + mPos), len);
        mPos += len;
        return s;
    }

    std::vector<int> takeInts(size_t maxCount) {
        std::vector<int> values(std::min<size_t>(take<uint8_t>(), maxCount));
        for (int& v : values) v = take<int>();
        return values;
    }

private:
    const uint8_t* mData;
    size_t mSize;
    size_t mPos = 0;
};

} // namespace pelyx_fuzz
