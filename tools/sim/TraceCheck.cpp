#include "TraceCheck.h"

#include <json/json.h>

#include <fstream>
#include <map>
#include <sstream>
#include <tuple>
#include <utility>
#include <vector>

namespace pelyx_sim {

bool isSimulatorSlice(const std::string& name) {
    // The compositor's tick is "vsync" or "vsync (late)"; the library's own slices may start
    // with the word too ("vsync: ...").
    if (name == "vsync" || name == "vsync (late)") return true;
    for (const char* prefix : {"latch ", "present ", "work ", "queue ", "queued ", "touch "}) {
        if (name.compare(0, std::char_traits<char>::length(prefix), prefix) == 0) return true;
    }
    return false;
}

TraceResult checkTrace(const std::string& path) {
    TraceResult result;
    result.path = path;
    std::ifstream in(path);
    if (!in) {
        result.problems.push_back("cannot open " + path);
        return result;
    }
    Json::CharReaderBuilder builder;
    Json::Value root;
    std::string errors;
    if (!Json::parseFromStream(builder, in, &root, &errors)) {
        result.problems.push_back("not valid JSON: " + errors.substr(0, errors.find('\n', 2)));
        return result;
    }
    if (!root.isObject() || !root["traceEvents"].isArray()) {
        result.problems.push_back("no traceEvents array");
        return result;
    }

    using Thread = std::pair<int64_t, int64_t>;
    std::map<Thread, std::vector<std::string>> stacks;
    using AsyncKey = std::tuple<std::string, std::string, std::string>;
    std::map<AsyncKey, int> open;
    size_t& unmatchedEnds = result.unmatchedEnds;
    size_t& unmatchedAsyncEnds = result.unmatchedAsyncEnds;
    for (const Json::Value& e : root["traceEvents"]) {
        ++result.events;
        const std::string ph = e["ph"].asString();
        const Thread thread{e["pid"].asInt64(), e["tid"].asInt64()};
        const std::string name = e["name"].asString();
        if (ph == "B") {
            stacks[thread].push_back(name);
            ++(isSimulatorSlice(name) ? result.simulatorSlices : result.librarySlices);
        } else if (ph == "E") {
            std::vector<std::string>& stack = stacks[thread];
            if (stack.empty()) {
                ++unmatchedEnds;
            } else {
                stack.pop_back();
            }
        } else if (ph == "b" || ph == "e") {
            const AsyncKey key{e["cat"].asString(), e["id"].asString(), name};
            if (ph == "b") {
                ++open[key];
                ++result.librarySlices;
            } else if (open[key] > 0) {
                --open[key];
            } else {
                ++unmatchedAsyncEnds;
            }
        }
    }
    if (unmatchedEnds) {
        result.problems.push_back(std::to_string(unmatchedEnds) + " slice ends without a begin");
    }
    if (unmatchedAsyncEnds) {
        result.problems.push_back(std::to_string(unmatchedAsyncEnds) +
                                  " asynchronous ends without a begin");
    }
    for (const auto& [thread, stack] : stacks) {
        result.openSlices += stack.size();
        if (!stack.empty()) {
            result.problems.push_back("thread " + std::to_string(thread.second) + " left inside \"" +
                                      stack.back() + "\" (" + std::to_string(stack.size()) +
                                      " open)");
        }
    }
    result.balanced = result.problems.empty();
    // Asynchronous slices still open at the end are tracks that were running when the trace
    // closed; the Perfetto UI shows them as not ended. They do not make the trace unbalanced.
    for (const auto& [key, n] : open) result.openAsync += static_cast<size_t>(n);
    if (result.openAsync) {
        result.problems.push_back("note: " + std::to_string(result.openAsync) +
                                  " asynchronous slices were still open when the trace closed");
    }
    return result;
}

} // namespace pelyx_sim
