#pragma once

// Reads the per-frame intervals of a frame-timing capture, which the simulator replays as a
// game's work time: a PresentMon / OCAT / CapFrameX CSV (its MsBetweenPresents column; lines
// starting with "//" are metadata), `dumpsys SurfaceFlinger --latency` output (the refresh
// period, then desired-present, actual-present and frame-ready times in ns per frame; the
// intervals between actual presents), `dumpsys gfxinfo PKG framestats` output (the rows between
// the PROFILEDATA markers; the intervals between the intended vsyncs of frames without flags),
// or any CSV column named as FILE:COLUMN (in ms). The format is told from the text.

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
    std::string format;       // "PresentMon CSV", "SurfaceFlinger latency", "gfxinfo framestats", "CSV column"
    std::string application;  // the Application column of the first frame, if any
    std::vector<double> intervalsMs;

    double medianMs() const;
    double p99Ms() const;
    double maxMs() const;
    // Frames per second of the median interval.
    double rate() const;
};

// `label` names the source in error messages; `column`, when given, is the CSV column to read.
Capture parseCapture(std::istream& in, const std::string& label, const std::string& column = "");
// `path` may end in ":COLUMN" when no file has the whole name.
Capture readCapture(const std::string& path);

// Splits one CSV record; double quotes group a field that holds commas ("" is a quote).
std::vector<std::string> splitCsv(const std::string& line);

} // namespace pelyx_sim
