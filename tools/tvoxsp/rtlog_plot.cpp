#include "rtlog_plot.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace tvoxsp
{

namespace
{

constexpr size_t kStampLength = 23; // "YYYY-MM-DD HH:MM:SS.mmm"
constexpr size_t kColumns = 7;

std::optional<double> stamp_seconds(std::string_view line)
{
    if (line.size() < kStampLength)
        return std::nullopt;
    const std::string stamp(line.substr(0, kStampLength));
    std::tm local{};
    const char *rest = strptime(stamp.c_str(), "%Y-%m-%d %H:%M:%S", &local);
    if (rest == nullptr || rest[0] != '.')
        return std::nullopt;
    char *end = nullptr;
    const long ms = std::strtol(rest + 1, &end, 10);
    if (end != rest + 4 || *end != '\0')
        return std::nullopt;
    local.tm_isdst = -1;
    return static_cast<double>(std::mktime(&local)) + static_cast<double>(ms) / 1000.0;
}

std::optional<RtlogColumns> columns_of(const std::vector<std::string> &words)
{
    if (words.size() != kColumns || (words[6] != "Y" && words[6] != "N"))
        return std::nullopt;
    double numbers[kColumns - 1];
    for (size_t i = 0; i + 1 < kColumns; ++i) {
        char *end = nullptr;
        numbers[i] = std::strtod(words[i].c_str(), &end);
        if (end == words[i].c_str() || *end != '\0')
            return std::nullopt;
    }
    return RtlogColumns{numbers[0],
                        numbers[1],
                        numbers[2],
                        numbers[3],
                        static_cast<int>(numbers[4]),
                        static_cast<int>(numbers[5]),
                        words[6] == "Y"};
}

// Writes one data file per channel: time, the six numbers and the active flag (NaN where the
// channel had no reading).
bool write_data(const std::vector<RtlogSample> &samples, const std::string &dir, size_t channels)
{
    const double start = samples.front().seconds;
    for (size_t c = 0; c < channels; ++c) {
        std::ofstream data(dir + "/ch" + std::to_string(c) + ".dat");
        for (const RtlogSample &sample : samples) {
            data << sample.seconds - start;
            if (c < sample.channels.size() && sample.channels[c].columns) {
                const RtlogColumns &k = *sample.channels[c].columns;
                data << ' ' << k.var1 << ' ' << k.var1_max << ' ' << k.combined << ' '
                     << k.combined_max << ' ' << k.reg << ' ' << k.reg_max << ' '
                     << (k.active ? 1 : 0) << '\n';
            } else {
                data << " NaN NaN NaN NaN NaN NaN NaN\n";
            }
        }
        if (!data)
            return false;
    }
    return true;
}

// A channel label as chart text. The log file is anyone's to write, so only letters, digits and
// a few marks pass; everything else (quotes, backslashes, "@" macros, backticks) becomes "_":
// nothing read from the file can end the quoted string it stands in.
std::string chart_label(std::string_view label)
{
    std::string text(label.substr(0, 32));
    for (char &c : text) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           (c >= '0' && c <= '9') || c == ' ' || c == '.' || c == '-' || c == '+' ||
                           c == ':';
        c = plain ? c : '_';
    }
    return text;
}

// A path in a single-quoted gnuplot string: a quote is written twice.
std::string gnuplot_string(std::string_view path)
{
    std::string text = "'";
    for (char c : path)
        text += c == '\'' ? std::string("''") : std::string(1, c);
    return text + "'";
}

// Three panels (column 1, 3, 5 and their maxima) above each other, each channel's active span
// shaded behind them.
std::string script(const std::vector<std::string> &labels, const std::string &dir,
                   const std::string &out)
{
    const bool png = out.ends_with(".png");
    std::ostringstream s;
    s << (png ? "set terminal pngcairo size 1100,900 font 'sans,10'\n"
              : "set terminal svg size 1100,900 dynamic background rgb 'white' font 'sans,10'\n");
    s << "set termoption noenhanced\nset output " << gnuplot_string(out) << "\n"
      << "set datafile missing 'NaN'\nset key outside right\nset grid\n"
      << "set y2range [0:1]\nunset y2tics\nset multiplot layout 3,1 title 'live protection log'\n";
    const char *const panels[3][2] = {{"column 1 (firmware 0x6F)", "2:3"},
                                      {"column 3 (0x3AD + 0x39F x 0x3AC)", "4:5"},
                                      {"column 5 (register 0x4308, 12 bits)", "6:7"}};
    for (size_t p = 0; p < 3; ++p) {
        s << "set ylabel '" << panels[p][0] << "'\n";
        if (p == 2)
            s << "set xlabel 'time (s)'\n";
        s << "plot ";
        const std::string cols = panels[p][1];
        const std::string now = cols.substr(0, cols.find(':'));
        const std::string max = cols.substr(cols.find(':') + 1);
        for (size_t c = 0; c < labels.size(); ++c) {
            const std::string file = gnuplot_string(dir + "/ch" + std::to_string(c) + ".dat");
            s << file << " using 1:8 axes x1y2 with fillsteps fs transparent solid 0.12 noborder"
              << " lc " << c + 1 << " title '" << labels[c] << " active', ";
            s << file << " using 1:" << now << " with lines lw 2 lc " << c + 1 << " title '"
              << labels[c] << "', ";
            s << file << " using 1:" << max << " with lines dt 2 lc " << c + 1 << " title '"
              << labels[c] << " max'" << (c + 1 < labels.size() ? ", " : "\n");
        }
    }
    s << "unset multiplot\n";
    return s.str();
}

bool run_gnuplot(const std::string &script_path)
{
    const pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        execlp("gnuplot", "gnuplot", script_path.c_str(), static_cast<char *>(nullptr));
        std::fprintf(stderr, "tvoxsp: cannot run gnuplot (install gnuplot-nox)\n");
        _exit(127);
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

std::optional<RtlogSample> parse_rtlog_line(std::string_view line)
{
    const std::optional<double> seconds = stamp_seconds(line);
    if (!seconds)
        return std::nullopt;
    RtlogSample sample{*seconds, {}};
    std::istringstream words{std::string(line.substr(kStampLength))};
    std::vector<std::string> pending;
    const auto close_channel = [&]() -> bool {
        if (sample.channels.empty())
            return pending.empty();
        if (pending.empty())
            return true;
        sample.channels.back().columns = columns_of(pending);
        pending.clear();
        return sample.channels.back().columns.has_value();
    };
    for (std::string word; words >> word;) {
        if (word.back() == ':') {
            if (!close_channel())
                return std::nullopt;
            sample.channels.push_back({word.substr(0, word.size() - 1), std::nullopt});
        } else {
            if (word.back() == ',')
                word.pop_back();
            pending.push_back(word);
        }
    }
    if (!close_channel() || sample.channels.empty())
        return std::nullopt;
    return sample;
}

bool plot_rtlog(const char *path, const char *out)
{
    const std::string_view target = out;
    if (!target.ends_with(".svg") && !target.ends_with(".png")) {
        std::fprintf(stderr, "tvoxsp: the chart must be a .svg or .png file: %s\n", out);
        return false;
    }
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "tvoxsp: cannot read %s\n", path);
        return false;
    }
    std::vector<RtlogSample> samples;
    for (std::string line; std::getline(in, line);) {
        if (std::optional<RtlogSample> sample = parse_rtlog_line(line))
            samples.push_back(std::move(*sample));
    }
    if (samples.empty()) {
        std::fprintf(stderr, "tvoxsp: no log samples in %s\n", path);
        return false;
    }
    std::vector<std::string> labels;
    for (const RtlogChannel &channel : samples.front().channels)
        labels.push_back(chart_label(channel.label));

    char dir_template[] = "/tmp/tvoxsp-plot-XXXXXX";
    if (mkdtemp(dir_template) == nullptr) {
        std::perror("tvoxsp: mkdtemp");
        return false;
    }
    const std::string dir = dir_template;
    const std::string script_path = dir + "/chart.gp";
    bool ok = write_data(samples, dir, labels.size());
    if (ok) {
        std::ofstream(script_path) << script(labels, dir, out);
        ok = run_gnuplot(script_path);
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    if (!ok)
        std::fprintf(stderr, "tvoxsp: gnuplot could not draw %s\n", out);
    return ok;
}

} // namespace tvoxsp
