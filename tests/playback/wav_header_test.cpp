// The fuzz target's seed corpus through the RIFF/WAVE header walk, from memory (where a seek past
// the end fails) and from a disk file (where it succeeds and the next read finds the end): the
// same verdict either way, and an accepted header leaves the stream at the first sample byte.
#include "playback/wav_header.h"
#include "util/file_handle.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

namespace
{

struct Accepted {
    uint32_t data_size;
    long first_sample;
    uint16_t channels;
    uint16_t bits;
};

TEST(WavHeader, FuzzCorpusReplays)
{
    const std::map<std::string, std::optional<Accepted>> expected = {
        {"data_longer_than_file.wav", Accepted{1048576, 44, 2, 16}},
        {"pcm16_stereo.wav", Accepted{16, 44, 2, 16}},
        {"pcm24_mono_fmt18.wav", Accepted{12, 46, 1, 24}},
        {"pcm32_list_chunk.wav", Accepted{8, 58, 2, 32}},
        {"huge_chunk_size.wav", std::nullopt},
        {"backward_chunk_size.wav", std::nullopt},
        {"no_data_chunk.wav", std::nullopt},
        {"not_riff.bin", std::nullopt},
        {"short_fmt.wav", std::nullopt},
        {"truncated_header.wav", std::nullopt},
    };
    int replayed = 0;
    for (const auto &entry : std::filesystem::directory_iterator(TVOXSP_WAV_CORPUS)) {
        const std::string name = entry.path().filename();
        const auto want = expected.find(name);
        ASSERT_NE(want, expected.end()) << "no verdict for " << name;
        std::ifstream in(entry.path(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        tvox::FileHandle memory(fmemopen(bytes.data(), bytes.size(), "rb"));
        tvox::FileHandle disk(std::fopen(entry.path().c_str(), "rb"));
        for (std::FILE *file : {memory.get(), disk.get()}) {
            ASSERT_NE(file, nullptr) << name;
            const auto header = tvox::read_wav_header(file);
            ASSERT_EQ(header.has_value(), want->second.has_value()) << name;
            if (!header)
                continue;
            EXPECT_EQ(header->data_size, want->second->data_size) << name;
            EXPECT_EQ(std::ftell(file), want->second->first_sample) << name;
            EXPECT_EQ(header->format.channels, want->second->channels) << name;
            EXPECT_EQ(header->format.bits_per_sample, want->second->bits) << name;
        }
        ++replayed;
    }
    EXPECT_EQ(replayed, static_cast<int>(expected.size()));
}

// Chunk ends with the 32-bit off_t of 32-bit ABIs built without large-file offsets, and with the
// 64-bit one: a size that does not fit in the offset type has no target, never a smaller one.
TEST(WavHeader, ChunkEndsNeverWrapTheOffset)
{
    constexpr int32_t kMax32 = INT32_MAX;
    EXPECT_EQ(tvox::skip_target<int32_t>(36, 0), 36);
    EXPECT_EQ(tvox::skip_target<int32_t>(36, 100), 136);
    EXPECT_EQ(tvox::skip_target<int32_t>(kMax32 - 10, 10), kMax32);
    EXPECT_EQ(tvox::skip_target<int32_t>(36, kMax32 - 36), kMax32);
    for (const uint32_t size : {0xFFFFFFF8u, 0xFFFFFFFFu, 0x80000000u, uint32_t{kMax32} - 35})
        EXPECT_EQ(tvox::skip_target<int32_t>(36, size), std::nullopt) << size;
    EXPECT_EQ(tvox::skip_target<int32_t>(kMax32 - 10, 11), std::nullopt);
    EXPECT_EQ(tvox::skip_target<int32_t>(-1, 8), std::nullopt); // the position is unknown

    EXPECT_EQ(tvox::skip_target<int64_t>(36, 0xFFFFFFF8u), int64_t{36} + 0xFFFFFFF8u);
    EXPECT_EQ(tvox::skip_target<int64_t>(INT64_MAX - 1, 2), std::nullopt);
    EXPECT_EQ(tvox::skip_target<int64_t>(-1, 0), std::nullopt);
}

} // namespace
