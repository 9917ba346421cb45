// The threads of this process, found by name (/proc/self/task/*/comm), and how many entries a
// /proc directory has (threads, descriptors).
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace pelyx_test {

inline size_t entriesIn(const char* dir) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

inline std::vector<int> threadsNamed(const std::string& wanted) {
    std::vector<int> tids;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        if (std::getline(std::ifstream(task.path() / "comm"), name) && name == wanted) {
            tids.push_back(std::stoi(task.path().filename().string()));
        }
    }
    return tids;
}

} // namespace pelyx_test
