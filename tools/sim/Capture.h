#pragma once

// Reads the per-frame present intervals of a PresentMon / OCAT / CapFrameX capture (CSV with a
// header row; lines starting with "//" are metadata). Only the MsBetweenPresents column is used:
// the game's frame time when nothing throttles it, which the simulator replays as work time.

#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

namespace pelyx_sim {

// "FILE:LINE: reason" (LINE omitted when the file as a whole is at fault).
class CaptureError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Capture {
    std::string path;
    std::string application;  // the Application column of the first frame, if any
    std::vector<double> intervalsMs;

    double medianMs() const;
    double p99Ms() const;
    double maxMs() const;
    // Frames per second of the median interval.
    double rate() const;
};

// `label` names the source in error messages.
Capture parseCapture(std::istream& in, const std::string& label);
Capture readCapture(const std::string& path);

// Splits one CSV record; double quotes group a field that holds commas ("" is a quote).
std::vector<std::string> splitCsv(const std::string& line);

} // namespace pelyx_sim
