// CRC-32 of tuning blocks: the standard reflected CRC (zlib's, IEEE 802.3) of 32-bit words taken
// as little-endian bytes. Free of logging, so the tuning tools share it with the library.
#pragma once

#include <cstdint>
#include <span>

namespace tvox::tuning
{

uint32_t block_crc(std::span<const uint32_t> words);

} // namespace tvox::tuning
