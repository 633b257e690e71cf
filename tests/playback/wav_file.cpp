#include "wav_file.h"

#include <dirent.h>

#include <fstream>

namespace tvox::test
{

namespace
{

void append_le(std::string &out, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<char>(value >> (8 * i)));
}

} // namespace

uint32_t sample_bytes(const WavLayout &layout)
{
    return layout.frames * layout.channels * (layout.bits / 8);
}

std::string wav_bytes(const WavLayout &layout)
{
    const uint32_t sample_size = layout.bits / 8;
    std::string body = layout.wave + "fmt ";
    append_le(body, layout.fmt_size, 4);
    append_le(body, 1, 2);
    append_le(body, layout.channels, 2);
    append_le(body, layout.rate, 4);
    append_le(body, layout.rate * layout.channels * sample_size, 4);
    append_le(body, layout.channels * sample_size, 2);
    append_le(body, layout.bits, 2);
    body.append(layout.fmt_size > 16 ? layout.fmt_size - 16 : 0, '\0');
    if (layout.list_chunk) {
        body += "LIST";
        append_le(body, 10, 4);
        body += "INFOISFTab";
    }
    if (layout.data_chunk) {
        body += "data";
        append_le(body, layout.data_size.value_or(sample_bytes(layout)), 4);
    }
    // Half of full scale, little-endian, in whatever sample width.
    std::string sample(sample_size, '\0');
    sample.back() = 0x40;
    for (uint32_t i = 0; i < layout.frames * layout.channels; ++i)
        body += sample;
    body.append(layout.trailing_bytes, '\0');

    std::string file = layout.riff;
    append_le(file, static_cast<uint32_t>(body.size()), 4);
    return file + body;
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

int open_descriptors()
{
    int count = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (dir && readdir(dir))
        ++count;
    if (dir)
        closedir(dir);
    return count;
}

} // namespace tvox::test
