// One amplifier's register mailbox: a command block of three big-endian words {command,
// register, value} written as byte-control text; after a read command the control reads back
// the block with the register's contents in its last word. Shared by the register tools, the
// live log and the monitor.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

struct mixer;

namespace tvox::regs
{

inline constexpr uint32_t kCommandWrite = 0x180;
inline constexpr uint32_t kCommandRead = 0x181;

// The text buffer of one block: " 0x.." per byte, at most 57 characters for these commands.
inline constexpr std::size_t kTextSize = 60;
using BlockText = std::array<char, kTextSize>;

// The block as byte-control text: " 0x" and the byte in lower-case hex, most significant first.
BlockText block_text(const std::array<uint32_t, 3> &words);

// Sends a write command; the setter's result is not examined.
void write_register(struct mixer *mixer, const char *control, uint32_t reg, uint32_t value);

// Sends a read command and reads the block back: the register's value, or 0 when the mailbox
// does not answer.
uint32_t read_register(struct mixer *mixer, const char *control, uint32_t reg);

// The register control of channel `channel` of the active context.
const char *register_control(int32_t channel);

} // namespace tvox::regs
