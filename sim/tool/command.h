// Subcommands of the tvoxsim tool. Each source file of sim/tool/ registers its commands from a
// static object, so a new command is a new file (or a new entry) and main() never changes:
//
//   int speaker(std::span<char *const> args);   // args: the words after the command's name
//   static const tvox::sim::tool::Registration reg{
//       {"speaker", "CHANNEL [OHMS|open|shorted|...]", "set a speaker's resistance or fault",
//       speaker}};
//
// A command returns the process exit status: 0 when its operation took effect, 1 when it failed
// (after saying why), 2 for a usage error (after printing its usage with usage_error()).
// main() answers -h and --help for every command and refuses, before the command runs, any word
// starting with '-' that is not one of the command's options: no option is ever taken for a
// folder, a name or a program.
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
    // The options, separated by spaces; a trailing '=' marks one that takes a value
    // ("--dir= --force"). The value may start with '-' (the command judges it).
    std::string_view options = {};
    // The first operand, or "--", ends the options: what follows is a program's command line.
    bool runs_a_program = false;
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

// The state of $TVOXSIM_DIR; null after printing why it does not open.
std::unique_ptr<State> open_state();

// The simulator's own log, in its folder: tvoxsim run and env point the tvoxsp tool at it
// (TVOXSP_LOG_FILE) and tvoxsim log shows it.
std::string log_path(const std::string &dir);

} // namespace tvox::sim::tool
