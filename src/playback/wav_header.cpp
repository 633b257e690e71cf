#include "playback/wav_header.h"

#include <array>
#include <cstring>
#include <span>
#include <string_view>
#include <sys/types.h>

namespace tvox
{

namespace
{

constexpr std::size_t kRiffHeaderSize = 12;
constexpr std::size_t kChunkHeaderSize = 8;
constexpr uint32_t kFormatSize = 16;

uint16_t le16(std::span<const uint8_t> bytes, std::size_t at)
{
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

uint32_t le32(std::span<const uint8_t> bytes, std::size_t at)
{
    return static_cast<uint32_t>(le16(bytes, at)) | static_cast<uint32_t>(le16(bytes, at + 2))
                                                        << 16;
}

std::string_view id_at(std::span<const uint8_t> bytes, std::size_t at)
{
    return {reinterpret_cast<const char *>(bytes.data() + at), 4};
}

bool read_exact(std::FILE *file, std::span<uint8_t> out)
{
    return std::fread(out.data(), 1, out.size(), file) == out.size();
}

// A skip past the end leaves the next read to find the end of the file; a stream that cannot be
// positioned (a pipe), or a chunk that cannot be in this file, ends the walk.
bool skip(std::FILE *file, uint32_t bytes)
{
    if (bytes == 0)
        return true;
    const std::optional<off_t> target = skip_target(ftello(file), bytes);
    return target && fseeko(file, *target, SEEK_SET) == 0;
}

} // namespace

std::optional<WavHeader> read_wav_header(std::FILE *file)
{
    std::array<uint8_t, kRiffHeaderSize> riff{};
    if (!read_exact(file, riff) || id_at(riff, 0) != "RIFF" || id_at(riff, 8) != "WAVE")
        return std::nullopt;

    WavHeader header;
    for (;;) {
        std::array<uint8_t, kChunkHeaderSize> chunk{};
        if (!read_exact(file, chunk))
            return std::nullopt;
        const std::string_view id = id_at(chunk, 0);
        const uint32_t size = le32(chunk, 4);
        if (id == "data") {
            header.data_size = size;
            return header;
        }
        if (id == "fmt ") {
            std::array<uint8_t, kFormatSize> fmt{};
            if (!read_exact(file, fmt))
                return std::nullopt;
            header.format = {le16(fmt, 0), le16(fmt, 2),  le32(fmt, 4),
                             le32(fmt, 8), le16(fmt, 12), le16(fmt, 14)};
            if (size > kFormatSize && !skip(file, size - kFormatSize))
                return std::nullopt;
        } else if (!skip(file, size)) {
            return std::nullopt;
        }
    }
}

} // namespace tvox
