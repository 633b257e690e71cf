// WAV files for the playback tests, laid out chunk by chunk so that malformed ones can be made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tvox::test
{

struct WavLayout {
    uint16_t channels = 2;
    uint32_t rate = 48000;
    uint16_t bits = 16;
    uint32_t frames = 480;
    uint32_t fmt_size = 16;  // bytes beyond 16 are zero padding
    bool list_chunk = false; // a "LIST" chunk between "fmt " and "data"
    bool data_chunk = true;  // false: no "data" chunk at all
    std::optional<uint32_t> data_size =
        std::nullopt;            // the size the "data" header claims (default: the samples)
    uint32_t trailing_bytes = 0; // bytes after the samples (beyond the data chunk)
    std::string riff = "RIFF";
    std::string wave = "WAVE";
};

// Every sample is half of full scale, so the sink's peak is 0.5.
std::string wav_bytes(const WavLayout &layout);
// Bytes of sample data of the layout (frames x channels x bytes per sample).
uint32_t sample_bytes(const WavLayout &layout);

void write_file(const std::string &path, const std::string &content);

// Descriptors this process has open (to show that a call leaves none behind).
int open_descriptors();

} // namespace tvox::test
