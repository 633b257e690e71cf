// The RIFF/WAVE header walk shared by the WAV player and the graph player. A played file is
// untrusted input: every size in it is checked against what the file really holds.
#pragma once

#include <cstdint>
#include <cstdio>
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

} // namespace tvox
