#include "Capture.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "Stats.h"

namespace pelyx_sim {
namespace {

constexpr const char* kColumn = "MsBetweenPresents";

std::string trimmed(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return "";
    const size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

} // namespace

std::vector<std::string> splitCsv(const std::string& line) {
    std::vector<std::string> fields;
    std::string field;
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quoted) {
            if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
                field += '"';
                ++i;
            } else if (c == '"') {
                quoted = false;
            } else {
                field += c;
            }
        } else if (c == '"') {
            quoted = true;
        } else if (c == ',') {
            fields.push_back(trimmed(field));
            field.clear();
        } else {
            field += c;
        }
    }
    fields.push_back(trimmed(field));
    return fields;
}

Capture parseCapture(std::istream& in, const std::string& label) {
    Capture capture;
    capture.path = label;
    std::string line;
    size_t lineNo = 0;
    int column = -1;
    int appColumn = -1;
    while (std::getline(in, line)) {
        ++lineNo;
        if (lineNo == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
        const std::string text = trimmed(line);
        if (text.empty() || text.compare(0, 2, "//") == 0) continue;
        const std::vector<std::string> fields = splitCsv(text);
        if (column < 0) {
            for (size_t i = 0; i < fields.size(); ++i) {
                if (fields[i] == kColumn) column = static_cast<int>(i);
                if (fields[i] == "Application") appColumn = static_cast<int>(i);
            }
            if (column < 0) {
                throw CaptureError(label + ":" + std::to_string(lineNo) + ": no " + kColumn +
                                   " column in the header");
            }
            continue;
        }
        const std::string where = label + ":" + std::to_string(lineNo) + ": ";
        if (static_cast<int>(fields.size()) <= column) {
            throw CaptureError(where + "the row has no " + kColumn + " field");
        }
        const std::string& value = fields[column];
        errno = 0;
        char* end = nullptr;
        const double ms = strtod(value.c_str(), &end);
        if (value.empty() || *end != '\0' || errno != 0 || !std::isfinite(ms) || ms < 0) {
            throw CaptureError(where + "bad " + kColumn + " value \"" + value + "\"");
        }
        if (capture.intervalsMs.empty() && appColumn >= 0 &&
            static_cast<int>(fields.size()) > appColumn) {
            capture.application = fields[appColumn];
        }
        capture.intervalsMs.push_back(ms);
    }
    if (in.bad()) throw CaptureError(label + ": read error");
    if (column < 0) throw CaptureError(label + ": no header row");
    if (capture.intervalsMs.empty()) throw CaptureError(label + ": no frames");
    return capture;
}

Capture readCapture(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw CaptureError(path + ": cannot open: " + strerror(errno));
    return parseCapture(in, path);
}

double Capture::medianMs() const { return percentile(intervalsMs, 50); }
double Capture::p99Ms() const { return percentile(intervalsMs, 99); }
double Capture::maxMs() const { return percentile(intervalsMs, 100); }
double Capture::rate() const {
    const double median = medianMs();
    return median > 0 ? 1000.0 / median : 0.0;
}

} // namespace pelyx_sim
