#include "Records.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace pelyx_sim {

namespace {

std::string list(const std::vector<int>& values) {
    std::string out = "[";
    for (size_t i = 0; i < values.size(); ++i) out += (i ? "," : "") + std::to_string(values[i]);
    return out + "]";
}

} // namespace

void RecordLog::add(int64_t timeNs, std::string text) {
    android::Mutex::Autolock lock(mLock);
    mRecords.push_back({timeNs, std::move(text)});
}

void RecordLog::addCall(int64_t timeNs, const perfd_stub::Call& call) {
    std::string text = "service " + call.fn;
    if (call.hasPkg) text += " text=\"" + call.pkg + "\"";
    if (!call.ints.empty()) text += " ints=" + list(call.ints);
    if (!call.args.empty()) text += " args=" + list(call.args);
    add(timeNs, std::move(text));
}

void RecordLog::write(const std::string& path, int64_t originNs) const {
    std::vector<Record> sorted;
    {
        android::Mutex::Autolock lock(mLock);
        sorted = mRecords;
    }
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const Record& a, const Record& b) { return a.timeNs < b.timeNs; });
    FILE* out = fopen(path.c_str(), "w");
    if (!out) throw std::runtime_error(path + ": cannot create the records file");
    for (const Record& r : sorted) {
        const int64_t ns = r.timeNs - originNs;
        const char* sign = ns < 0 ? "-" : "";
        const int64_t magnitude = ns < 0 ? -ns : ns;
        fprintf(out, "%s%lld.%06lld %s\n", sign, static_cast<long long>(magnitude / 1'000'000'000),
                static_cast<long long>(magnitude % 1'000'000'000 / 1000), r.text.c_str());
    }
    if (fclose(out) != 0) throw std::runtime_error(path + ": cannot write the records file");
}

} // namespace pelyx_sim
