// Reading the tool's arguments: numbers in hex or decimal, on/off words. A word that does not
// read is named on standard error, so that a usage error says what was wrong.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "command.h"

namespace tvoxsp
{

// A whole number, decimal or 0x hex (a leading zero is decimal, not octal); nothing when the
// text is empty, has other characters or overflows.
std::optional<long long> whole_number(const char *text);
// A control id as tinymix counts them, or nothing when `identifier` is no such number (a name).
std::optional<uint32_t> control_id(const char *identifier);
// An unsigned 32-bit number (0x2020, 8208; 020 is 20).
std::optional<uint32_t> unsigned_number(const char *text);
// A signed 32-bit number (-1, 0x10).
std::optional<int32_t> signed_number(const char *text);
// Every argument as an unsigned 32-bit number, or nothing when one is not.
std::optional<std::vector<uint32_t>> unsigned_numbers(Args args);
// Takes `flag` out of `args` wherever it stands (options come before or after the positional
// words); true when it was there.
bool take_flag(std::vector<char *> &args, std::string_view flag);
// "on" or "off".
std::optional<bool> on_off(std::string_view word);

// 0 for a library result of 0, else kFailed.
inline int zero_is_success(int32_t result)
{
    return result == 0 ? 0 : kFailed;
}

} // namespace tvoxsp
