// The RIFF/WAVE header walk on its own: no malformed header makes it read past the input or run
// on. What it reads from good files shows in the players' tests.
#include "playback/wav_header.h"
#include "wav_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace
{

using tvox::read_wav_header;
using tvox::test::wav_bytes;

struct Closer {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

File memory_file(std::string &bytes)
{
    return File(fmemopen(bytes.data(), bytes.size(), "rb"));
}

File disk_file(const std::string &bytes)
{
    File file(std::tmpfile());
    if (file) {
        std::fwrite(bytes.data(), 1, bytes.size(), file.get());
        std::rewind(file.get());
    }
    return file;
}

TEST(WavHeader, RefusesWhatIsNotAPlayableRiffWave)
{
    const std::pair<const char *, std::string> cases[] = {
        {"RIFX", wav_bytes({.riff = "RIFX"})},
        {"AVI ", wav_bytes({.wave = "AVI "})},
        {"no data chunk", wav_bytes({.frames = 0, .data_chunk = false})},
        {"empty", ""},
        {"riff header only", wav_bytes({}).substr(0, 12)},
        {"cut inside fmt", wav_bytes({}).substr(0, 30)},
        {"cut inside a chunk header", wav_bytes({}).substr(0, 40)},
    };
    for (const auto &[name, bytes] : cases) {
        File file = disk_file(bytes);
        ASSERT_TRUE(file) << name;
        EXPECT_FALSE(read_wav_header(file.get())) << name;
    }
}

// A chunk size past the end: on a disk file the seek succeeds and the next read finds the end;
// on a memory stream the seek itself fails. Either way the walk ends.
TEST(WavHeader, HugeChunkSizesEndTheWalk)
{
    std::string bytes = wav_bytes({.frames = 0, .data_chunk = false});
    bytes += "big ";
    bytes += std::string("\xff\xff\xff\xff", 4);
    bytes += "data";
    bytes += std::string(4, '\0');
    File disk = disk_file(bytes);
    ASSERT_TRUE(disk);
    EXPECT_FALSE(read_wav_header(disk.get()));
    File memory = memory_file(bytes);
    EXPECT_FALSE(read_wav_header(memory.get()));

    // An "fmt " chunk whose size leaves 0xFFFFFFEF bytes to skip.
    std::string fmt = wav_bytes({.fmt_size = 16});
    fmt[16] = fmt[17] = fmt[18] = fmt[19] = '\xff';
    File fmt_file = memory_file(fmt);
    EXPECT_FALSE(read_wav_header(fmt_file.get()));
}

// The seed corpus of the fuzz target, replayed: every input ends, and an accepted one leaves the
// stream inside the input.
TEST(WavHeader, FuzzCorpusReplays)
{
    int accepted = 0;
    int refused = 0;
    for (const auto &entry : std::filesystem::directory_iterator(TVOXSP_WAV_CORPUS)) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (bytes.empty())
            continue;
        File file = memory_file(bytes);
        ASSERT_TRUE(file) << entry.path();
        if (read_wav_header(file.get())) {
            ++accepted;
            EXPECT_LE(std::ftell(file.get()), static_cast<long>(bytes.size())) << entry.path();
        } else {
            ++refused;
        }
    }
    EXPECT_GT(accepted, 0);
    EXPECT_GT(refused, 0);
}

} // namespace
