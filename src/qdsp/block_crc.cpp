#include "qdsp/block_crc.h"

#include <array>
#include <cstddef>

namespace tvox::tuning
{

namespace
{

constexpr uint32_t kPolynomial = 0xEDB88320;

// Slicing by eight: table k advances the register over a byte followed by k zero bytes, so two
// words cost eight lookups instead of 64 shifts.
using Tables = std::array<std::array<uint32_t, 256>, 8>;

constexpr Tables make_tables()
{
    Tables tables{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) ? kPolynomial : 0);
        tables[0][byte] = crc;
    }
    for (size_t k = 1; k < tables.size(); ++k)
        for (size_t byte = 0; byte < 256; ++byte)
            tables[k][byte] = (tables[k - 1][byte] >> 8) ^ tables[0][tables[k - 1][byte] & 0xFF];
    return tables;
}

constexpr Tables kTables = make_tables();

constexpr uint32_t lookup(size_t table, uint32_t value, int shift)
{
    return kTables[table][(value >> shift) & 0xFF];
}

} // namespace

// Words are values, not memory: the low byte is the first byte on the wire whatever the host's
// byte order.
uint32_t block_crc(std::span<const uint32_t> words)
{
    uint32_t crc = 0xFFFFFFFF;
    size_t i = 0;
    for (; i + 2 <= words.size(); i += 2) {
        const uint32_t low = crc ^ words[i];
        const uint32_t high = words[i + 1];
        crc = lookup(7, low, 0) ^ lookup(6, low, 8) ^ lookup(5, low, 16) ^ lookup(4, low, 24) ^
              lookup(3, high, 0) ^ lookup(2, high, 8) ^ lookup(1, high, 16) ^ lookup(0, high, 24);
    }
    if (i < words.size()) {
        const uint32_t last = crc ^ words[i];
        crc = lookup(3, last, 0) ^ lookup(2, last, 8) ^ lookup(1, last, 16) ^ lookup(0, last, 24);
    }
    return ~crc;
}

} // namespace tvox::tuning
