// What the library prints on a standard stream while a call runs: its specified output (a failed
// control write on standard error, the live log's exit line on standard output) is the only sign
// of some failures. The tap passes everything through at once, so a live log stays live, and
// keeps the latest text to look at afterwards.
#pragma once

#include "command.h"
#include "output.h"

#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace tvoxsp
{

class StreamTap
{
  public:
    // A whole line the call printed, without its newline.
    using LineHandler = std::function<void(std::string_view line)>;

    // Taps descriptor 1 or 2 (and its stdio stream) until destroyed or stop() is called. With
    // `on_line`, nothing passes through: each line goes to the handler instead (on the tap's
    // thread).
    explicit StreamTap(int fd, LineHandler on_line = {});
    ~StreamTap();
    StreamTap(const StreamTap &) = delete;
    StreamTap &operator=(const StreamTap &) = delete;

    // Everything passed through so far (the latest 64 KiB); stops the tap first.
    std::string text();
    bool saw(std::string_view part) { return text().find(part) != std::string::npos; }

  private:
    void stop();
    void pass_through(int from, int to);

    int fd_;
    int saved_ = -1;
    int write_end_ = -1;
    LineHandler on_line_;
    std::string partial_; // the handler's line so far
    std::thread reader_;
    std::mutex mutex_;
    std::string seen_;
};

// True when `printed` holds a refusal that the library's control setter prints.
bool setter_refused(std::string_view printed);

// The players report a failed step only in what they print (their result stays 0): the first
// printed line that tells one, or nothing.
std::optional<std::string> player_failure(const std::string &printed);

// Runs a library call that writes card 0 controls; 0 when it succeeded and the setter refused
// nothing on the way (its message on standard error is the only sign of that), else says so,
// naming `what`, and gives kApplying.
template <typename Call> int controls_written(Call call, const char *what)
{
    StreamTap errors(2);
    const int32_t result = call();
    const bool refused = setter_refused(errors.text());
    if (result == kNoMixer && !card0_opens())
        return kNoDevice;
    if (result == 0 && !refused)
        return 0;
    return fail(kApplying,
                std::string(what) + ": " +
                    (refused ? "a control refused the write (see above)" : "the library failed"));
}

} // namespace tvoxsp
