// The F0 diagnostic words, the CAL_R the DSP uses, and streams played for real through the sink.
#include "model_fixture.h"

#include <cmath>
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

using DiagnosticTest = ModelTest;

struct Diag {
    int32_t status;
    int32_t f0;
    int32_t z_low_diff;
};

// The diagnosis of a channel, checked to be the same on both parameter tables.
Diag diag(ModelTest &test, const std::string &x)
{
    Diag got{};
    for (const char *table : {" Protection 5f210 ", " DSP1 Protection 5f210 "}) {
        const std::string prefix = x + table;
        const Diag here{test.word(prefix + "DIAG_F0_STATUS"), test.word(prefix + "DIAG_F0"),
                        test.word(prefix + "DIAG_Z_LOW_DIFF")};
        if (table[1] == 'P') {
            got = here;
        } else {
            EXPECT_EQ(here.status, got.status) << prefix;
            EXPECT_EQ(here.f0, got.f0) << prefix;
            EXPECT_EQ(here.z_low_diff, got.z_low_diff) << prefix;
        }
    }
    return got;
}

TEST_F(DiagnosticTest, EachLongEnoughSilentRunMeasuresF0OfTheSpeakersOfTheMoment)
{
    set_speaker(0, 5.5, SpeakerFault::none, 812.4);
    set_speaker(1, 6.5, SpeakerFault::f0_failure, 1000);
    Diag t = diag(*this, "T");
    EXPECT_EQ(t.status, 0);
    EXPECT_EQ(t.f0, 0);

    // A second of silence is too short; the amplifiers need not be on.
    const int64_t now = now_ns();
    record_stream(now - 3 * kSecond, now - 2 * kSecond, 0.0);
    EXPECT_EQ(diag(*this, "T").status, 0);
    record_stream(now - 2 * kSecond, now, 0.0);
    t = diag(*this, "T");
    EXPECT_EQ(t.status, 2);
    EXPECT_EQ(t.f0, 812);
    // Measured resistance below the CAL_R in use: a negative word.
    EXPECT_EQ(t.z_low_diff, expected_raw(5.5) - 8391);
    const Diag b = diag(*this, "B");
    EXPECT_EQ(b.status, 1);
    EXPECT_EQ(b.f0, 1000);
    EXPECT_EQ(b.z_low_diff, expected_raw(6.5) - 8391);

    // The DSP now works with the speaker's own CAL_R: the next measurement finds no difference.
    set("T DSP Set CAL_R", expected_raw(5.5));
    EXPECT_EQ(get("T DSP Set CAL_R"), expected_raw(5.5));
    EXPECT_EQ(diag(*this, "T").z_low_diff, expected_raw(5.5) - 8391);
    record_stream(now_ns() - 2 * kSecond, 0, 0.0);
    EXPECT_EQ(diag(*this, "T").z_low_diff, 0);

    // Open and shorted speakers have no resonance, found by the next measurement.
    set_speaker(0, 5.5, SpeakerFault::open);
    set_speaker(1, 6.5, SpeakerFault::shorted);
    EXPECT_EQ(diag(*this, "T").status, 2);
    record_stream(now_ns() - 2 * kSecond, now_ns(), 0.0);
    t = diag(*this, "T");
    EXPECT_EQ(t.status, 1);
    EXPECT_EQ(t.f0, 0);
    EXPECT_EQ(t.z_low_diff, 0xFFFFFF - expected_raw(5.5));
    EXPECT_EQ(diag(*this, "B").status, 1);
    EXPECT_EQ(diag(*this, "B").z_low_diff, expected_raw(0.1) - 8391);
}

// Plays `seconds` of silence on AGM front end 100 connected to `backend`, with T in
// calibration mode; returns T's status read just before the stream ends.
class PlayedStreamTest : public ModelTest
{
  protected:
    int32_t calibrate_while_playing(const char *backend, double seconds)
    {
        Mixer agm(mixer_open(100));
        EXPECT_TRUE(agm);
        if (!agm)
            return -1;
        mixer_ctl *connect = mixer_get_ctl_by_name(agm.get(), "PCM100 connect");
        EXPECT_EQ(mixer_ctl_set_enum_by_string(connect, backend), 0);

        pcm_config config{};
        config.channels = 2;
        config.rate = 48000;
        config.period_size = 1024;
        config.period_count = 4;
        config.format = PCM_FORMAT_S16_LE;
        pcm *stream = pcm_open(100, 100, PCM_OUT, &config);
        EXPECT_TRUE(stream != nullptr && pcm_is_ready(stream))
            << (stream != nullptr ? pcm_get_error(stream) : "");
        std::thread player([&] {
            const std::vector<int16_t> period(config.period_size * config.channels, 0);
            const auto periods = static_cast<long>(seconds * config.rate / config.period_size);
            for (long i = 0; i < periods; ++i) {
                if (pcm_write(stream, period.data(), period.size() * sizeof(int16_t)) != 0)
                    break;
            }
        });
        path_to_dsp("T");
        calibration_mode("T");
        std::this_thread::sleep_for(kSettle + kMargin);
        const int32_t status = word("T DSP Get CAL_STATUS");
        player.join();
        pcm_stop(stream);
        pcm_close(stream);
        mixer_ctl *disconnect = mixer_get_ctl_by_name(agm.get(), "PCM100 disconnect");
        EXPECT_EQ(mixer_ctl_set_enum_by_string(disconnect, backend), 0);
        return status;
    }
};

TEST_F(PlayedStreamTest, SilenceOnTheAmplifiersBackEndCalibratesAndLeavesF0Known)
{
    set_speaker(0, 6.3, SpeakerFault::none, 750);
    EXPECT_EQ(calibrate_while_playing("TDM-LPAIF-RX-SECONDARY", 2.0), 1);
    EXPECT_EQ(word("T Protection 5f210 CAL_R"), expected_raw(6.3));
    // Known after the front end was disconnected again.
    const Diag t = diag(*this, "T");
    EXPECT_EQ(t.status, 2);
    EXPECT_EQ(t.f0, 750);
    EXPECT_EQ(get("T AMP Active Status"), 0);
}

TEST_F(PlayedStreamTest, SilenceOnAnotherBackEndReachesNoAmplifier)
{
    EXPECT_EQ(calibrate_while_playing("TDM-LPAIF-RX-TERTIARY", 2.0), 0);
    EXPECT_EQ(diag(*this, "T").status, 0);
}

} // namespace
