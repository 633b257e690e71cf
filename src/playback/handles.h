// Owning handles and the PCM configuration shared by the two players.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <tinyalsa/asoundlib.h>

#include "util/file_handle.h"
#include "util/malloc_ptr.h"
#include "util/text.h"

namespace tvox
{

struct PcmCloser {
    void operator()(struct pcm *pcm) const { pcm_close(pcm); }
};
using PcmHandle = std::unique_ptr<struct pcm, PcmCloser>;

// One zero-filled T, or none when memory runs out.
template <typename T> MallocPtr<T> allocate_zeroed()
{
    return MallocPtr<T>(static_cast<T *>(std::calloc(1, sizeof(T))));
}

// Opens a played file for reading; a missing path opens nothing.
inline FileHandle open_for_reading(const char *path)
{
    return FileHandle(path ? std::fopen(path, "rbe") : nullptr);
}

// Period layout shared by both players.
inline constexpr unsigned int kPeriodSize = 1024;
inline constexpr unsigned int kPeriodCount = 4;

// PCM configuration for a WAV stream: 32 bits play as S32_LE, 24 bits as `format_24` (the two
// players differ there), anything else as S16_LE; all thresholds 0 (the driver's defaults).
inline struct pcm_config wav_pcm_config(unsigned int channels, unsigned int rate, unsigned int bits,
                                        unsigned int period_size, unsigned int period_count,
                                        enum pcm_format format_24)
{
    struct pcm_config config {
    };
    config.channels = channels;
    config.rate = rate;
    config.period_size = period_size;
    config.period_count = period_count;
    config.format = bits == 32 ? PCM_FORMAT_S32_LE : bits == 24 ? format_24 : PCM_FORMAT_S16_LE;
    return config;
}

// Opens a playback PCM. On failure prints "Unable to open PCM device %u (%s)\n" to `out` and
// returns no handle; a handle that is not ready is closed once its error text is printed.
PcmHandle open_playback_pcm(unsigned int card, unsigned int device, struct pcm_config &config,
                            std::FILE *out);

// One whole PCM buffer of bytes. On failure prints "Unable to allocate %d bytes\n" to `out`.
struct PcmBuffer {
    MallocPtr<char> data;
    unsigned int size = 0;
};
PcmBuffer allocate_pcm_buffer(struct pcm *pcm, std::FILE *out);

} // namespace tvox
