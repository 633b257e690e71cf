// The live commands' runs (rtlog, monitor): their options, where each sample goes (text, CSV or
// a JSON line, and a copy in a file), and one way to end: every stop (--count, --duration,
// SIGTERM, SIGHUP, a closed standard output) raises the SIGINT whose handler the library's
// sampling loop installs, so the loop runs its own stop sequence (logging switched off on the
// DSPs) as it does for Ctrl-C.
#pragma once

#include "command.h"

#include <json/json.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace tvoxsp
{

struct LiveOptions {
    int32_t interval_ms = 0; // 0: the library's one second
    uint64_t count = 0;      // 0: no limit
    double duration = 0;     // seconds, 0: no limit
    const char *file = nullptr;
    bool csv = false;
    bool changes = false;
    std::vector<char *> positionals;
};

// "10:00:01.250": the time of day a monitor line carries.
std::string clock_stamp();

// Options before or after the positional words; nothing (the reason printed) for a usage error.
// `csv_file`: --csv and -o FILE are taken (rtlog), `changes`: --changes is (monitor).
std::optional<LiveOptions> live_options(Args args, bool csv_file, bool changes);

class LiveRun
{
  public:
    explicit LiveRun(const LiveOptions &options);
    ~LiveRun();
    LiveRun(const LiveRun &) = delete;
    LiveRun &operator=(const LiveRun &) = delete;

    // False, with the reason told, when the -o file does not open.
    bool ready() const { return ready_; }
    // One sample: its JSON object (without "type" and "t_ms"), its text line and, for --csv,
    // the header and the row. Skipped with --changes when it equals the previous one.
    void sample(Json::Value json, const std::string &text, const std::string &csv_header,
                const std::string &csv_row);
    // Another line the library printed on standard output: passed on as it was (to standard
    // error in JSON and CSV mode).
    void pass(std::string_view line);
    uint64_t samples() const { return samples_; }
    // Milliseconds since the run started.
    double elapsed_ms() const;

  private:
    void emit(const std::string &line);
    static void stop();

    LiveOptions options_;
    bool ready_ = true;
    int out_ = -1; // standard output as the run found it (text mode)
    std::FILE *file_ = nullptr;
    uint64_t taken_ = 0;
    uint64_t samples_ = 0; // printed
    bool header_done_ = false;
    std::string previous_;
    int64_t start_ns_ = 0;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool ended_ = false;
    std::thread timer_;
};

} // namespace tvoxsp
