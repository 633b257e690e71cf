// The RIFF/WAVE header walk shared by the WAV player and the graph player. A played file is
// untrusted input: every size in it is checked against what the file really holds.
#pragma once

#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>

namespace tvox
{

// The 16 bytes of a "fmt " chunk that the players use.
struct WavFormat {
    uint16_t audio_format = 0;
    uint16_t channels = 0;
    uint32_t sample_rate = 0;
    uint32_t byte_rate = 0;
    uint16_t block_align = 0;
    uint16_t bits_per_sample = 0;
};

struct WavHeader {
    WavFormat format; // all zero when the file has no "fmt " chunk before "data"
    uint32_t data_size = 0;
};

// Reads the 12-byte RIFF/WAVE header and walks the chunks up to "data"; the file is then at the
// first sample byte. A "fmt " chunk is read as 16 bytes and its extra bytes skipped; other chunks
// are skipped by their size. No value for a file that is not RIFF/WAVE or that ends (or cannot
// be positioned) before its "data" chunk.
std::optional<WavHeader> read_wav_header(std::FILE *file);

// Where a chunk of `bytes` bytes that starts at offset `at` ends. Chunk sizes are unsigned 32-bit
// and off_t is only 32-bit on 32-bit ABIs built without large-file offsets, so a size may not fit
// in the offset type: a chunk that ends past the largest offset cannot be in a file this stream
// can address, and there is no target (rather than a backward seek and an endless walk). No
// target either for a negative (failed) position.
template <typename Offset> std::optional<Offset> skip_target(Offset at, uint32_t bytes)
{
    static_assert(std::numeric_limits<Offset>::is_signed);
    if (at < 0 ||
        uintmax_t{bytes} > static_cast<uintmax_t>(std::numeric_limits<Offset>::max() - at))
        return std::nullopt;
    return static_cast<Offset>(at + static_cast<Offset>(bytes));
}

} // namespace tvox
