// A subcommand of tvoxsp, and what every command shares. Each source file adds its table.
#pragma once

#include "tvoxsp.h"

#include <span>
#include <string_view>

namespace tvoxsp
{

using Args = std::span<char *const>;

// Exit codes: 0 success, 1 the operation failed, 2 the command line was wrong.
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

// What the library's card 0 operations return when its mixer does not open.
inline constexpr int32_t kNoMixer = -22;

struct Command {
    std::string_view name;
    std::string_view usage;   // arguments after the name
    std::string_view summary; // one line for --help
    int (*run)(Args args);    // kUsage makes main print the usage line
};

// The HAL's side of the bargain: a zero-filled context, bound for the duration of one command.
class Session
{
  public:
    Session() { tervox_cal_init(&ctx_); }
    ~Session() { tervox_cal_deinit(&ctx_); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    struct tervox &context() { return ctx_; }

  private:
    struct tervox ctx_ = {};
};

// False, with a message, when card 0's mixer does not open: the library's path functions would
// end the process.
bool card0_opens();

// Register tools, the live log and its plot, the DSP switches.
std::span<const Command> register_commands();
// Control get and set, the mixer self-test, the named mixer paths (mixer_commands.cpp).
std::span<const Command> mixer_commands();
// The players (play_command.cpp).
std::span<const Command> play_commands();
// The dashboard's server, in the host build only (serve/serve_command.cpp).
std::span<const Command> serve_commands();

// The driver-side commands (qdsp_commands.cpp).
int slot(Args args);
int tuning(Args args);
int module(Args args);

} // namespace tvoxsp
