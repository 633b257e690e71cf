// A subcommand of tvoxsp, and what every command shares. Each source file adds its table.
#pragma once

#include "tvoxsp.h"

#include <span>
#include <string_view>

namespace tvoxsp
{

using Args = std::span<char *const>;

// Exit statuses, the same in text and JSON mode: 0 success, 1 failed (no class below), 2 the
// command line was wrong, then one per failure class a factory station tells apart.
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;
inline constexpr int kNoDevice = 3;    // card 0, the driver device or a register control missing
inline constexpr int kBusy = 4;        // an amplifier active, a calibration running, a PCM busy
inline constexpr int kMeasurement = 5; // a measurement out of range or failed
inline constexpr int kStoring = 6;     // the calibration file could not be stored
inline constexpr int kApplying = 7;    // the DSP or kernel refused, or reads back another value
inline constexpr int kMismatch = 8;    // verify, report: a stored value is not the one in use
inline constexpr int kInterrupted = 130;

// What the library's card 0 operations return when its mixer does not open.
inline constexpr int32_t kNoMixer = -22;

struct Command {
    std::string_view name;
    std::string_view usage;   // arguments after the name
    std::string_view summary; // one line for --help
    int (*run)(Args args);    // kUsage makes main print the usage line
    // A line per option ("--force  measure even while an amplifier is active") and an example.
    std::string_view options = {};
    std::string_view example = {};
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

// Calibration, diagnostic, report and verify (calibration_commands.cpp).
std::span<const Command> calibration_commands();
// Register tools, the live log and its plot, the DSP switches.
std::span<const Command> register_commands();
// Control get and set, the mixer self-test, the named mixer paths (mixer_commands.cpp).
std::span<const Command> mixer_commands();
// The players (play_command.cpp).
std::span<const Command> play_commands();
// The dashboard's server, in the host build only (serve/serve_command.cpp).
std::span<const Command> serve_commands();

// The driver-side commands: slot, tuning, module (qdsp_commands.cpp).
std::span<const Command> qdsp_commands();

} // namespace tvoxsp
