// Subcommands of the tvoxsim tool. Each source file of sim/tool/ registers its commands from a
// static object, so a new command is a new file (or a new entry) and main() never changes:
//
//   int speaker(std::span<char *const> args);   // args: the words after the command's name
//   static const tvox::sim::tool::Registration reg{
//       {"speaker", "CHANNEL [OHMS|open|shorted|...]", "set a speaker's resistance or fault",
//       speaker}};
//
// A command returns the process exit status: 0 success, 1 failure, 2 usage error (after printing
// its usage with usage_error()).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tvox::sim
{
class State;
}

namespace tvox::sim::tool
{

struct Command {
    std::string_view name;
    std::string_view usage; // the arguments, for the help text
    std::string_view summary;
    int (*run)(std::span<char *const> args);
};

struct Registration {
    explicit Registration(Command command);
};

// Every registered command, sorted by name.
std::vector<Command> commands();

inline constexpr int exit_failure = 1;
inline constexpr int exit_usage = 2;

// Prints "tvoxsim: <message>" and the command's usage line to standard error; returns exit_usage.
int usage_error(std::string_view command, std::string_view message);

// An unsigned 32-bit number argument, decimal or 0x hex; nothing for anything else.
std::optional<uint32_t> number(const char *text);

// The simulator folder: `dir` made absolute, or $TVOXSIM_DIR (or its default) when empty.
std::string simulator_dir(std::string_view dir);

// Why the simulator state did not open, from the -errno of State::open or Card::open.
std::string state_error(int err);

// The state of $TVOXSIM_DIR; null after printing why it does not open.
std::unique_ptr<State> open_state();

} // namespace tvox::sim::tool
