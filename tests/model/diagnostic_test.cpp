// The F0 diagnostic words, the CAL_R the DSP uses, and streams played for real through the sink.
#include "model_fixture.h"

#include <array>
#include <string>
#include <thread>
#include <vector>

namespace
{

using tvox::sim::now_ns;
using tvox::sim::SpeakerFault;
using tvox::test::expected_raw;
using tvox::test::Mixer;
using tvox::test::ModelTest;

using Diag = std::array<int32_t, 3>; // F0 status, F0, Z_LOW_DIFF

// The diagnosis of a channel, checked to be the same on both parameter tables.
Diag diag(ModelTest &test, const std::string &x)
{
    Diag both[2];
    for (int i = 0; i < 2; ++i) {
        const std::string prefix = x + (i == 0 ? " Protection 5f210 " : " DSP1 Protection 5f210 ");
        both[i] = {test.word(prefix + "DIAG_F0_STATUS"), test.word(prefix + "DIAG_F0"),
                   test.word(prefix + "DIAG_Z_LOW_DIFF")};
    }
    EXPECT_EQ(both[0], both[1]) << x;
    return both[0];
}

using DiagnosticTest = ModelTest;

TEST_F(DiagnosticTest, EachLongEnoughSilentRunMeasuresF0OfTheSpeakersOfTheMoment)
{
    set_speaker(0, 5.5, SpeakerFault::none, 812.4);
    set_speaker(1, 6.5, SpeakerFault::f0_failure, 1000);
    EXPECT_EQ(diag(*this, "T"), (Diag{0, 0, 0}));

    // A second of silence is too short; the amplifiers need not be on.
    const int64_t now = now_ns();
    record_stream(now - 3 * kSecond, now - 2 * kSecond, 0.0);
    EXPECT_EQ(diag(*this, "T")[0], 0);
    record_stream(now - 2 * kSecond, now, 0.0);
    // Measured resistance below the CAL_R in use: a negative difference.
    EXPECT_EQ(diag(*this, "T"), (Diag{2, 812, expected_raw(5.5) - 8391}));
    EXPECT_EQ(diag(*this, "B"), (Diag{1, 1000, expected_raw(6.5) - 8391}));

    // The DSP now works with the speaker's own CAL_R: the next measurement finds no difference.
    set("T DSP Set CAL_R", expected_raw(5.5));
    EXPECT_EQ(get("T DSP Set CAL_R"), expected_raw(5.5));
    EXPECT_EQ(diag(*this, "T")[2], expected_raw(5.5) - 8391);
    record_stream(now_ns() - 2 * kSecond, 0, 0.0);
    EXPECT_EQ(diag(*this, "T")[2], 0);

    // Open and shorted speakers have no resonance, found by the next measurement.
    set_speaker(0, 5.5, SpeakerFault::open);
    set_speaker(1, 6.5, SpeakerFault::shorted);
    EXPECT_EQ(diag(*this, "T")[0], 2);
    record_stream(now_ns() - 2 * kSecond, now_ns(), 0.0);
    EXPECT_EQ(diag(*this, "T"), (Diag{1, 0, 0xFFFFFF - expected_raw(5.5)}));
    EXPECT_EQ(diag(*this, "B"), (Diag{1, 0, expected_raw(0.1) - 8391}));
}

// Plays two seconds of silence on AGM front end 100 connected to `backend`, with T in
// calibration mode; returns T's status read just before the stream ends.
int32_t calibrate_while_playing(ModelTest &test, const char *backend)
{
    Mixer agm(mixer_open(100));
    EXPECT_EQ(
        mixer_ctl_set_enum_by_string(mixer_get_ctl_by_name(agm.get(), "PCM100 connect"), backend),
        0);
    pcm_config config{2, 48000, 1024, 4, PCM_FORMAT_S16_LE, 0, 0, 0, 0, 0};
    pcm *stream = pcm_open(100, 100, PCM_OUT, &config);
    EXPECT_TRUE(pcm_is_ready(stream)) << pcm_get_error(stream);
    std::thread player([&] {
        const std::vector<int16_t> period(config.period_size * config.channels, 0);
        for (unsigned i = 0; i < 2 * config.rate / config.period_size; ++i)
            if (pcm_write(stream, period.data(), period.size() * sizeof(int16_t)) != 0)
                break;
    });
    test.path_to_dsp("T");
    test.calibration_mode("T");
    std::this_thread::sleep_for(ModelTest::kSettle + ModelTest::kMargin);
    const int32_t status = test.word("T DSP Get CAL_STATUS");
    player.join();
    pcm_close(stream);
    EXPECT_EQ(mixer_ctl_set_enum_by_string(mixer_get_ctl_by_name(agm.get(), "PCM100 disconnect"),
                                           backend),
              0);
    return status;
}

TEST_F(DiagnosticTest, PlayedSilenceCalibratesOnlyOnTheAmplifiersBackEnd)
{
    EXPECT_EQ(calibrate_while_playing(*this, "TDM-LPAIF-RX-TERTIARY"), 0);
    EXPECT_EQ(diag(*this, "T")[0], 0);

    set_speaker(0, 6.3, SpeakerFault::none, 750);
    EXPECT_EQ(calibrate_while_playing(*this, "TDM-LPAIF-RX-SECONDARY"), 1);
    EXPECT_EQ(word("T Protection 5f210 CAL_R"), expected_raw(6.3));
    // Known after the front end was disconnected again.
    EXPECT_EQ(diag(*this, "T"), (Diag{2, 750, expected_raw(6.3) - 8391}));
    EXPECT_EQ(get("T AMP Active Status"), 0);
}

} // namespace
