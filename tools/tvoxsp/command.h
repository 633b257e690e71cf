// What every tvoxsp subcommand shares: its arguments and exit codes.
#pragma once

#include <span>

namespace tvoxsp
{

using Args = std::span<char *const>;

// Exit codes: 0 success, 1 the operation failed, 2 the command line was wrong.
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

// The driver-side commands (qdsp_commands.cpp).
int slot(Args args);
int tuning(Args args);
int module(Args args);

} // namespace tvoxsp
