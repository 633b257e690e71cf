// What both players make of the same files. The WAV player (card 0, device 0) plays the data
// chunk's bytes, 24-bit samples packed in three bytes; the graph player (card 100, device 100)
// plays the whole rest of the file, 24-bit samples in four bytes.
#include "playback_fixture.h"

#include <alsa/asoundlib.h>

#include <array>

namespace
{

using tvox::test::open_descriptors;
using tvox::test::Played;
using tvox::test::WavLayout;
using PlayerTest = tvox::test::PlaybackTest;

std::string playing_line(const WavLayout &layout)
{
    return "Playing sample: " + std::to_string(layout.channels) + " ch, " +
           std::to_string(layout.rate) + " hz, " + std::to_string(layout.bits) + " bit " +
           std::to_string(layout.data_size.value_or(layout.sample_bytes())) + " bytes\n";
}

TEST_F(PlayerTest, EachSampleFormatAndChunkLayout)
{
    constexpr auto S16 = SND_PCM_FORMAT_S16_LE, S24 = SND_PCM_FORMAT_S24_LE;
    constexpr auto S32 = SND_PCM_FORMAT_S32_LE, S24_3 = SND_PCM_FORMAT_S24_3LE;
    // Format and frames on the WAV player's device (card 0), then on the graph's (card 100).
    const struct {
        const char *name;
        WavLayout layout;
        std::array<snd_pcm_format_t, 2> formats;
        std::array<uint64_t, 2> frames;
    } cases[] = {
        {"16 bit mono", {.channels = 1, .rate = 8000, .frames = 800}, {S16, S16}, {800, 800}},
        {"24 bit", {.rate = 44100, .bits = 24}, {S24_3, S24}, {480, 360}},
        {"32 bit", {.channels = 1, .rate = 96000, .bits = 32}, {S32, S32}, {480, 480}},
        {"fmt of 18 bytes", {.fmt_size = 18}, {S16, S16}, {480, 480}},
        {"LIST before data", {.list_chunk = true}, {S16, S16}, {480, 480}},
        {"data chunk shorter than the file", {.data_size = 400}, {S16, S16}, {100, 480}},
        {"file shorter than its data chunk", {.data_size = 4000}, {S16, S16}, {480, 480}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = wav("format.wav", c.layout);
        const Played tplayed = tplay(path);
        EXPECT_EQ(tplayed.result, 0);
        EXPECT_EQ(tplayed.out, playing_line(c.layout));
        EXPECT_EQ(tplayed.err, "");
        EXPECT_EQ(agmplay(path).result, 0);
        for (int i : {0, 1}) {
            const auto record = stream(100 * i, 100 * i);
            ASSERT_TRUE(record) << i;
            EXPECT_EQ(record->format, c.formats[i]) << i;
            EXPECT_EQ(record->channels, c.layout.channels) << i;
            EXPECT_EQ(record->rate, c.layout.rate) << i;
            EXPECT_EQ(record->frames_written, c.frames[i]) << i;
            EXPECT_FALSE(record->running) << i;
        }
        EXPECT_DOUBLE_EQ(stream(0, 0)->peak, 0.5);
    }
}

// The WAV player reports on standard error, the graph player on standard output. Nothing is
// played and nothing stays open.
TEST_F(PlayerTest, FilesThatAreNoWavFilesGiveOne)
{
    const int descriptors = open_descriptors();
    const std::string missing = sim_dir() + "/missing.wav";
    std::vector<std::pair<std::string, std::string>> files = {
        {missing, "Unable to open file '" + missing + "'\n"}};
    for (const WavLayout &layout : {WavLayout{.riff = "RIFX"}, WavLayout{.wave = "AVI "},
                                    WavLayout{.frames = 0, .data_chunk = false}}) {
        const std::string path = wav(std::to_string(files.size()) + ".wav", layout);
        files.emplace_back(path, "Error: '" + path + "' is not a riff/wave file\n");
    }
    for (const auto &[path, message] : files) {
        const Played tplayed = tplay(path);
        EXPECT_EQ(tplayed.result, 1);
        EXPECT_EQ(tplayed.err, message);
        EXPECT_EQ(tplayed.out, "");
        const Played agmplayed = agmplay(path);
        EXPECT_EQ(agmplayed.result, 1);
        EXPECT_EQ(agmplayed.out, message);
        EXPECT_EQ(agmplayed.err, "");
    }
    // A graph player without a back end refuses silently.
    const Played unrouted = agmplay(wav("tone.wav", {}), nullptr);
    EXPECT_EQ(unrouted.result, 1);
    EXPECT_EQ(unrouted.out + unrouted.err, "");

    EXPECT_TRUE(journal_lines().empty());
    EXPECT_FALSE(stream(0, 0));
    EXPECT_FALSE(stream(100, 100));
    EXPECT_EQ(open_descriptors(), descriptors);
}

} // namespace
