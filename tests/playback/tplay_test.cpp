// The plain WAV player's own parts: the device's limits, the test entry, real-time pacing.
#include "playback_fixture.h"

#include <tinyalsa/asoundlib.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

namespace
{

using tvox::test::open_descriptors;
using tvox::test::Played;
using TplayTest = tvox::test::PlaybackTest;

// A file outside the device's limits is reported limit by limit (every check runs) and not
// played, yet it was a WAV file, so the result is 0.
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
    played = play([] { return sample_is_playable(0, 0, 2, 48000, 16, 1024, 1); });
    EXPECT_EQ(played.result, 0);
    EXPECT_EQ(played.err, "Period count is 1 periods, device only supports >= 2 periods\n");
    EXPECT_FALSE(stream(0, 0));
    EXPECT_EQ(open_descriptors(), descriptors);

    EXPECT_EQ(sample_is_playable(0, 0, 2, 48000, 16, 1024, 4), 1);

    // No such device: the card number maps to a card the sink does not serve.
    setenv("TINYALSA_CARD_0", "tvoxsim:5", 1);
    played = play([] { return sample_is_playable(0, 0, 2, 48000, 16, 1024, 4); });
    EXPECT_EQ(played.result, 0);
    EXPECT_EQ(played.err, "Unable to open PCM device 0.\n");
}

TEST_F(TplayTest, TestEntryRoutesTheAmplifiersAndPlaysTheLoopFileForGood)
{
    struct tervox ctx {
    };
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    clear_journal();
    Played played = play(tervox_tplay_test);
    EXPECT_EQ(played.result, 0);
    EXPECT_EQ(played.out, "Playing sample: 2 ch, 48000 hz, 16 bit 96000 bytes\n");
    EXPECT_STREQ(ctx.silent_wav_path, "/sdcard/Music/lrp_loop.wav");
    const auto journal = journal_lines();
    ASSERT_FALSE(journal.empty());
    EXPECT_EQ(journal.front(), "ctl 0 \"SPK DSP1 Firmware\" = Protection");
    EXPECT_EQ(journal.back(), "ctl 0 \"PRI_MI2S_RX Audio Mixer MultiMedia1\" = 1");
    EXPECT_EQ(stream(0, 0).value().frames_written, 24000u);
    tervox_cal_deinit(&ctx);

    setenv("TINYALSA_CARD_0", "tvoxsim:5", 1);
    played = play(tervox_tplay_test);
    EXPECT_EQ(played.result, -22);
    EXPECT_EQ(played.out, "tervox_tplay_test: Failed to open mixer\n");
}

// The paced sink plays a 3-second file in about 3 seconds, and another process sees the stream
// run meanwhile.
TEST_F(TplayTest, ThreeSecondFileTakesAboutThreeSecondsAndIsSeenRunning)
{
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(tervox_tplay(&context("/odm/etc/audio/silent-3sec.wav")));

    EXPECT_TRUE(wait_until_running(0, 0, child));
    const auto listing = run_command("env -u LD_PRELOAD " + tool_path() + " streams");
    EXPECT_NE(listing.output.find("card 0 device 0 running S16_LE 48000 Hz 2 ch"),
              std::string::npos)
        << listing.output;
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(took.count(), 2.5);
    EXPECT_LT(took.count(), 5.0);
    EXPECT_EQ(stream(0, 0).value().frames_written, 3u * 48000);
}

} // namespace
