// Arbitrary bytes as a played WAV file: the header walk must never read out of bounds, loop
// forever or leak, and a header it accepts must leave the stream inside the input.
#include "playback/wav_header.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    std::FILE *file = fmemopen(const_cast<uint8_t *>(data), size, "rb");
    if (!file)
        return 0;
    if (tvox::read_wav_header(file)) {
        const long position = std::ftell(file);
        if (position < 0 || static_cast<std::size_t>(position) > size)
            std::abort();
    }
    std::fclose(file);
    return 0;
}
