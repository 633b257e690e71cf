// A chart of a live protection log file, drawn by gnuplot.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp
{

// One channel's columns of one sample line.
struct RtlogColumns {
    double var1;
    double var1_max;
    double combined;
    double combined_max;
    int reg;
    int reg_max;
    bool active;
};

struct RtlogChannel {
    std::string label;
    std::optional<RtlogColumns> columns; // empty while the channel has no reading yet
};

struct RtlogSample {
    double seconds; // since the epoch, local time as written
    std::vector<RtlogChannel> channels;
};

// A sample line of the log ("YYYY-MM-DD HH:MM:SS.mmm   T: 1.00, ..., Y   B: ..."), or nothing
// for any other line.
std::optional<RtlogSample> parse_rtlog_line(std::string_view line);

// Reads the log at `path` and writes the chart to `out` (.svg or .png). Prints why on standard
// error and returns false when it cannot.
bool plot_rtlog(const char *path, const char *out);

} // namespace tvoxsp
