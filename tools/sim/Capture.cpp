#include "Capture.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <climits>
#include <fstream>
#include <sstream>

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

namespace {

struct Line {
    size_t number;
    std::string text;  // trimmed
};

bool parseNumber(const std::string& text, double* out) {
    errno = 0;
    char* end = nullptr;
    *out = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && errno == 0 && std::isfinite(*out);
}

// Whitespace-separated integers; false when a field is not one.
bool integers(const std::string& text, std::vector<int64_t>* out) {
    out->clear();
    std::istringstream in(text);
    std::string field;
    while (in >> field) {
        errno = 0;
        char* end = nullptr;
        const long long v = strtoll(field.c_str(), &end, 10);
        if (*end != '\0' || errno != 0) return false;
        out->push_back(v);
    }
    return true;
}

void csvColumn(const std::vector<Line>& lines, const std::string& label, const std::string& column,
               Capture* capture) {
    int index = -1;
    int appColumn = -1;
    for (const Line& line : lines) {
        if (line.text.compare(0, 2, "//") == 0) continue;
        const std::vector<std::string> fields = splitCsv(line.text);
        if (index < 0) {
            for (size_t i = 0; i < fields.size(); ++i) {
                if (fields[i] == column) index = static_cast<int>(i);
                if (fields[i] == "Application") appColumn = static_cast<int>(i);
            }
            if (index < 0) {
                throw CaptureError(label + ":" + std::to_string(line.number) + ": no " + column + " column in the header");
            }
            continue;
        }
        const std::string where = label + ":" + std::to_string(line.number) + ": ";
        if (static_cast<int>(fields.size()) <= index) throw CaptureError(where + "the row has no " + column + " field");
        double ms = 0;
        if (!parseNumber(fields[index], &ms) || ms < 0) {
            throw CaptureError(where + "bad " + column + " value \"" + fields[index] + "\"");
        }
        if (capture->intervalsMs.empty() && appColumn >= 0 && static_cast<int>(fields.size()) > appColumn) {
            capture->application = fields[appColumn];
        }
        capture->intervalsMs.push_back(ms);
    }
    if (index < 0) throw CaptureError(label + ": no header row");
}

// The present intervals: the same measure as MsBetweenPresents. A frame not yet presented shows
// 0 or INT64_MAX and is skipped.
void surfaceFlingerLatency(const std::vector<Line>& lines, const std::string& label, Capture* capture) {
    std::vector<int64_t> fields;
    int64_t last = -1;
    for (size_t i = 1; i < lines.size(); ++i) {
        const std::string where = label + ":" + std::to_string(lines[i].number) + ": ";
        if (!integers(lines[i].text, &fields) || fields.size() != 3) {
            throw CaptureError(where + "expected three times in ns (desired present, actual present, frame ready)");
        }
        const int64_t present = fields[1];
        if (present <= 0 || present == INT64_MAX) continue;
        if (last >= 0) {
            if (present < last) throw CaptureError(where + "actual present time goes back");
            capture->intervalsMs.push_back(static_cast<double>(present - last) / 1e6);
        }
        last = present;
    }
}

// The first PROFILEDATA section: rows of frames, with a header naming the columns.
void gfxinfoFramestats(const std::vector<Line>& lines, const std::string& label, Capture* capture) {
    constexpr const char* kMarker = "---PROFILEDATA---";
    size_t i = 0;
    while (i < lines.size() && lines[i].text != kMarker) ++i;
    int flags = -1, vsync = -1;
    int64_t last = -1;
    bool closed = false;
    for (++i; i < lines.size(); ++i) {
        if (lines[i].text == kMarker) {
            closed = true;
            break;
        }
        const std::vector<std::string> fields = splitCsv(lines[i].text);
        const std::string where = label + ":" + std::to_string(lines[i].number) + ": ";
        if (vsync < 0) {
            for (size_t f = 0; f < fields.size(); ++f) {
                if (fields[f] == "Flags") flags = static_cast<int>(f);
                if (fields[f] == "IntendedVsync") vsync = static_cast<int>(f);
            }
            if (flags < 0 || vsync < 0) throw CaptureError(where + "no Flags and IntendedVsync columns in the header");
            continue;
        }
        double flag = 0, at = 0;
        if (static_cast<int>(fields.size()) <= std::max(flags, vsync) || !parseNumber(fields[flags], &flag) ||
            !parseNumber(fields[vsync], &at)) {
            throw CaptureError(where + "bad frame row");
        }
        if (flag != 0) continue;  // a frame the renderer marks as not a normal one
        const int64_t t = static_cast<int64_t>(at);
        if (last >= 0 && t > last) capture->intervalsMs.push_back(static_cast<double>(t - last) / 1e6);
        last = t;
    }
    if (!closed) throw CaptureError(label + ": truncated: no closing " + kMarker + " line");
}

} // namespace

Capture parseCapture(std::istream& in, const std::string& label, const std::string& column) {
    Capture capture;
    capture.path = label;
    std::vector<Line> lines;
    std::string text;
    for (size_t n = 1; std::getline(in, text); ++n) {
        if (n == 1 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
        text = trimmed(text);
        if (!text.empty()) lines.push_back({n, text});
    }
    if (in.bad()) throw CaptureError(label + ": read error");
    std::vector<int64_t> first;
    const bool anyProfile = std::any_of(lines.begin(), lines.end(),
                                        [](const Line& l) { return l.text == "---PROFILEDATA---"; });
    if (!column.empty()) {
        capture.format = "CSV column";
        csvColumn(lines, label, column, &capture);
    } else if (anyProfile) {
        capture.format = "gfxinfo framestats";
        gfxinfoFramestats(lines, label, &capture);
    } else if (!lines.empty() && integers(lines[0].text, &first) && first.size() == 1) {
        if (first[0] <= 0) throw CaptureError(label + ":" + std::to_string(lines[0].number) + ": refresh period must be above 0");
        capture.format = "SurfaceFlinger latency";
        surfaceFlingerLatency(lines, label, &capture);
    } else {
        capture.format = "PresentMon CSV";
        csvColumn(lines, label, kColumn, &capture);
    }
    if (capture.intervalsMs.empty()) throw CaptureError(label + ": no frames");
    return capture;
}

Capture readCapture(const std::string& path) {
    std::string file = path, column;
    const size_t colon = path.rfind(':');
    if (!std::ifstream(path) && colon != std::string::npos && colon > 0) {
        file = path.substr(0, colon);
        column = path.substr(colon + 1);
        if (column.empty()) throw CaptureError(path + ": no column named after the ':'");
    }
    std::ifstream in(file);
    if (!in) throw CaptureError(file + ": cannot open: " + strerror(errno));
    Capture capture = parseCapture(in, file, column);
    capture.path = path;
    return capture;
}

double Capture::medianMs() const { return percentile(intervalsMs, 50); }
double Capture::p99Ms() const { return percentile(intervalsMs, 99); }
double Capture::maxMs() const { return percentile(intervalsMs, 100); }
double Capture::rate() const {
    const double median = medianMs();
    return median > 0 ? 1000.0 / median : 0.0;
}

} // namespace pelyx_sim
