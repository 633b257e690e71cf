#include "qdsp/block_crc.h"

#include <array>
#include <cstddef>

namespace tvox::tuning
{

namespace
{

constexpr uint32_t kPolynomial = 0xEDB88320;

// Slicing by sixteen: table k advances the register over a byte followed by k zero bytes, so
// four words cost sixteen independent lookups instead of 128 dependent shifts.
constexpr size_t kGroupWords = 4;
using Tables = std::array<std::array<uint32_t, 256>, kGroupWords * 4>;

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

// The register after `count` words (at most kGroupWords), the first already XORed with it.
inline uint32_t advance(const uint32_t *words, size_t count, uint32_t crc)
{
    uint32_t next = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint32_t word = i == 0 ? crc ^ words[0] : words[i];
        const size_t last_table = (count - i) * 4 - 1;
        next ^= kTables[last_table][word & 0xFF] ^ kTables[last_table - 1][(word >> 8) & 0xFF] ^
                kTables[last_table - 2][(word >> 16) & 0xFF] ^ kTables[last_table - 3][word >> 24];
    }
    return next;
}

} // namespace

// Words are values, not memory: the low byte is the first byte on the wire whatever the host's
// byte order.
uint32_t block_crc(std::span<const uint32_t> words)
{
    uint32_t crc = 0xFFFFFFFF;
    size_t i = 0;
    for (; i + kGroupWords <= words.size(); i += kGroupWords)
        crc = advance(words.data() + i, kGroupWords, crc);
    if (i < words.size())
        crc = advance(words.data() + i, words.size() - i, crc);
    return ~crc;
}

} // namespace tvox::tuning
