// The library's reading of tuning blocks: the shared block rules (tuning_block.h) with the
// library's log lines.
#pragma once

#include "qdsp/tuning_block.h"

#include <cstdint>
#include <string_view>

namespace tvox
{

// One block's text into its words; a size word whose N+1 overflows ends the process.
tuning::Block tvox_tuning_raw_parser(std::string_view text);

// 1 when the block parsed and its stored CRC matches, else 0.
int tervox_delta_crc32(const tuning::Block &block);

} // namespace tvox
