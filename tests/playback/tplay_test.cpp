// The plain WAV player on the virtual sink of card 0: what reaches the sink, what is printed on
// which stream, and the result.
#include "playback_fixture.h"
#include "support/capture.h"

#include "tvoxsp/context.h"
#include "tvoxsp/playback.h"

#include <alsa/asoundlib.h>
#include <tinyalsa/asoundlib.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace
{

using tvox::test::open_descriptors;
using tvox::test::PlaybackTest;
using tvox::test::StreamCapture;
using tvox::test::WavLayout;

using TplayTest = PlaybackTest;

struct Played {
    int32_t result;
    std::string out;
    std::string err;
};

Played tplay(const std::string &path)
{
    struct tervox ctx {
    };
    ctx.silent_wav_path = path.c_str();
    StreamCapture out(1);
    StreamCapture err(2);
    const int32_t result = tervox_tplay(&ctx);
    return {result, out.text(), err.text()};
}

std::string playing_line(unsigned ch, unsigned rate, unsigned bits, unsigned bytes)
{
    return "Playing sample: " + std::to_string(ch) + " ch, " + std::to_string(rate) + " hz, " +
           std::to_string(bits) + " bit " + std::to_string(bytes) + " bytes\n";
}

TEST_F(TplayTest, PlaysEachSampleFormatOnTheSink)
{
    struct Case {
        WavLayout layout;
        snd_pcm_format_t format;
    };
    const Case cases[] = {
        {{.channels = 1, .rate = 8000, .bits = 16, .frames = 800}, SND_PCM_FORMAT_S16_LE},
        {{.channels = 2, .rate = 48000, .bits = 16}, SND_PCM_FORMAT_S16_LE},
        {{.channels = 2, .rate = 44100, .bits = 24}, SND_PCM_FORMAT_S24_3LE},
        {{.channels = 1, .rate = 96000, .bits = 32}, SND_PCM_FORMAT_S32_LE},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.layout.bits) + " bit, " + std::to_string(c.layout.channels) +
                     " ch");
        const Played played = tplay(wav("format.wav", c.layout));
        EXPECT_EQ(played.result, 0);
        EXPECT_EQ(played.out, playing_line(c.layout.channels, c.layout.rate, c.layout.bits,
                                           tvox::test::sample_bytes(c.layout)));
        EXPECT_EQ(played.err, "");
        const auto record = stream(0, 0);
        ASSERT_TRUE(record);
        EXPECT_EQ(record->format, c.format);
        EXPECT_EQ(record->channels, c.layout.channels);
        EXPECT_EQ(record->rate, c.layout.rate);
        EXPECT_EQ(record->frames_written, c.layout.frames);
        EXPECT_DOUBLE_EQ(record->peak, 0.5);
        EXPECT_FALSE(record->running);
    }
}

// The walk skips what is not "fmt " or "data", and only the data chunk's bytes play, as far as
// the file holds them.
TEST_F(TplayTest, ChunkLayouts)
{
    struct Case {
        const char *name;
        WavLayout layout;
        uint64_t frames;
    };
    const Case cases[] = {
        {"fmt of 18 bytes", {.frames = 300, .fmt_size = 18}, 300},
        {"LIST before data", {.frames = 300, .list_chunk = true}, 300},
        {"data chunk shorter than the file", {.frames = 300, .data_size = 400}, 100},
        {"file shorter than its data chunk", {.frames = 300, .data_size = 4000}, 300},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Played played = tplay(wav("layout.wav", c.layout));
        EXPECT_EQ(played.result, 0);
        EXPECT_EQ(played.out,
                  playing_line(2, 48000, 16,
                               c.layout.data_size.value_or(tvox::test::sample_bytes(c.layout))));
        const auto record = stream(0, 0);
        ASSERT_TRUE(record);
        EXPECT_EQ(record->frames_written, c.frames);
    }
}

TEST_F(TplayTest, RefusesFilesItCannotPlay)
{
    const int descriptors = open_descriptors();
    const std::string missing = sim_dir() + "/missing.wav";
    Played played = tplay(missing);
    EXPECT_EQ(played.result, 1);
    EXPECT_EQ(played.err, "Unable to open file '" + missing + "'\n");
    EXPECT_EQ(played.out, "");

    for (const auto &[name, layout] :
         {std::pair{"rifx.wav", WavLayout{.riff = "RIFX"}},
          std::pair{"avi.wav", WavLayout{.wave = "AVI "}},
          std::pair{"nodata.wav", WavLayout{.frames = 0, .data_chunk = false}}}) {
        const std::string path = wav(name, layout);
        played = tplay(path);
        EXPECT_EQ(played.result, 1) << name;
        EXPECT_EQ(played.err, "Error: '" + path + "' is not a riff/wave file\n");
        EXPECT_EQ(played.out, "");
    }
    EXPECT_FALSE(stream(0, 0)) << "nothing reached the sink";
    EXPECT_EQ(open_descriptors(), descriptors);
}

// A file outside the device's limits is reported limit by limit and not played, yet the file was
// a WAV file, so the result is 0.
TEST_F(TplayTest, DeviceLimitsArePrintedAndNothingPlays)
{
    const int descriptors = open_descriptors();
    Played played = tplay(wav("slow.wav", {.rate = 4000}));
    EXPECT_EQ(played.result, 0);
    EXPECT_EQ(played.err, "Sample rate is 4000Hz, device only supports >= 8000Hz\n");
    EXPECT_EQ(played.out, "");

    played = tplay(wav("wide.wav", {.channels = 10, .rate = 384000, .bits = 8}));
    EXPECT_EQ(played.result, 0);
    EXPECT_EQ(played.err, "Sample rate is 384000Hz, device only supports <= 192000Hz\n"
                          "Sample is 10 channels, device only supports <= 8 channels\n"
                          "Bitrate is 8 bits, device only supports >= 16 bits\n");
    EXPECT_FALSE(stream(0, 0));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(TplayTest, SampleIsPlayableChecksEveryLimit)
{
    StreamCapture err(2);
    EXPECT_EQ(sample_is_playable(0, 0, 2, 48000, 16, 1024, 4), 1);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(sample_is_playable(0, 0, 2, 48000, 16, 1024, 1), 0);
    EXPECT_EQ(err.text(), "Period count is 1 periods, device only supports >= 2 periods\n");

    struct pcm_params *params = pcm_params_get(0, 0, PCM_OUT);
    ASSERT_NE(params, nullptr);
    EXPECT_EQ(check_param(params, PCM_PARAM_CHANNELS, 8, "Sample", " channels"), 1);
    EXPECT_EQ(check_param(params, PCM_PARAM_CHANNELS, 0, "Sample", " channels"), 0);
    EXPECT_EQ(check_param(params, PCM_PARAM_SAMPLE_BITS, 64, "Bitrate", " bits"), 0);
    pcm_params_free(params);
    EXPECT_EQ(err.text(), "Period count is 1 periods, device only supports >= 2 periods\n"
                          "Sample is 0 channels, device only supports >= 1 channels\n"
                          "Bitrate is 64 bits, device only supports <= 32 bits\n");

    // No such device: the card number maps to a card the sink does not serve.
    setenv("TINYALSA_CARD_0", "tvoxsim:5", 1);
    EXPECT_EQ(sample_is_playable(0, 0, 2, 48000, 16, 1024, 4), 0);
    EXPECT_NE(err.text().find("Unable to open PCM device 0.\n"), std::string::npos);
}

TEST_F(TplayTest, TestEntryRoutesTheAmplifiersAndPlaysTheLoopFileForGood)
{
    struct tervox ctx {
    };
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    clear_journal();
    std::string printed;
    {
        StreamCapture out(1);
        EXPECT_EQ(tervox_tplay_test(), 0);
        printed = out.text();
    }
    EXPECT_STREQ(ctx.silent_wav_path, "/sdcard/Music/lrp_loop.wav");
    EXPECT_EQ(printed, playing_line(2, 48000, 16, 96000));

    const auto journal = journal_lines();
    ASSERT_FALSE(journal.empty());
    EXPECT_EQ(journal.front(), "ctl 0 \"SPK DSP1 Firmware\" = Protection");
    EXPECT_EQ(journal.back(), "ctl 0 \"PRI_MI2S_RX Audio Mixer MultiMedia1\" = 1");
    const auto record = stream(0, 0);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->frames_written, 24000u);
    EXPECT_NEAR(record->peak, 0.5, 0.01);
    tervox_cal_deinit(&ctx);
}

TEST_F(TplayTest, TestEntryWithoutAMixer)
{
    setenv("TINYALSA_CARD_0", "tvoxsim:5", 1);
    StreamCapture out(1);
    EXPECT_EQ(tervox_tplay_test(), -22);
    EXPECT_EQ(out.text(), "tervox_tplay_test: Failed to open mixer\n");
}

// The paced sink plays a 3-second file in about 3 seconds, and another process sees the stream
// run meanwhile (the state, and the tvoxsim tool).
TEST_F(TplayTest, ThreeSecondFileTakesAboutThreeSecondsAndIsSeenRunning)
{
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        struct tervox ctx {
        };
        ctx.silent_wav_path = "/odm/etc/audio/silent-3sec.wav";
        _exit(tervox_tplay(&ctx));
    }

    EXPECT_TRUE(wait_until_running(0, 0, child));
    const std::string command = "env -u LD_PRELOAD " + tool_path() + " streams";
    std::string listing;
    if (FILE *tool = popen(command.c_str(), "r")) {
        char line[256];
        while (fgets(line, sizeof line, tool))
            listing += line;
        pclose(tool);
    }
    EXPECT_NE(listing.find("card 0 device 0 running S16_LE 48000 Hz 2 ch"), std::string::npos)
        << listing;

    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(seconds, 2.5);
    EXPECT_LT(seconds, 5.0);
    const auto record = stream(0, 0);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->frames_written, 3u * 48000);
    EXPECT_FALSE(record->running);
}

} // namespace
