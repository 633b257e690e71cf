// The tinyalsa PCM calls against the virtual sink, and against ALSA's null device (which takes
// every configuration and discards what is written) reached through a card mapped by
// TINYALSA_CARD_<n>.
#include <tinyalsa/asoundlib.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "state.h"
#include "support/sim_fixture.h"

namespace
{

constexpr unsigned int null_card = 7;

pcm_config config(pcm_format format)
{
    return pcm_config{2, 48000, 1024, 4, format, 0, 0, 0, 0, 0};
}

// The reason a PCM failed to open, from the start up to the ALSA error text.
std::string failure(unsigned int card, unsigned int device)
{
    pcm_config wanted = config(PCM_FORMAT_S16_LE);
    pcm *stream = pcm_open(card, device, PCM_OUT, &wanted);
    const std::string text = pcm_get_error(stream);
    EXPECT_EQ(pcm_is_ready(stream), 0);
    pcm_close(stream);
    return text.substr(0, text.find(": "));
}

using PcmSim = tvox::test::SimTest;

TEST_F(PcmSim, TheVirtualSinkRecordsWhatIsPlayed)
{
    pcm_config wanted = config(PCM_FORMAT_S16_LE);
    pcm *stream = pcm_open(0, 0, PCM_OUT, &wanted);
    ASSERT_EQ(pcm_is_ready(stream), 1) << pcm_get_error(stream);
    // Thresholds left 0 come back with the defaults that were applied.
    EXPECT_EQ(wanted.start_threshold, 2048u);
    EXPECT_EQ(wanted.stop_threshold, 4096u);
    EXPECT_EQ(wanted.avail_min, 1);
    EXPECT_EQ(pcm_get_buffer_size(stream), 4096u);
    // Half a buffer of samples at half of full scale starts the stream.
    const std::vector<int16_t> samples(2048 * 2, -16384);
    ASSERT_EQ(pcm_write(stream, samples.data(), pcm_frames_to_bytes(stream, 2048)), 0);
    {
        tvox::sim::Session session = state().lock();
        const tvox::sim::PcmRecord *record = session.stream(0, 0, false);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->running, 1);
        EXPECT_EQ(record->format, 2); // SND_PCM_FORMAT_S16_LE
        EXPECT_EQ(record->rate, 48000u);
        EXPECT_EQ(record->channels, 2u);
        EXPECT_EQ(record->frames_written, 2048u);
        EXPECT_DOUBLE_EQ(record->peak, 0.5);
    }
    EXPECT_EQ(pcm_stop(stream), 0);
    EXPECT_EQ(pcm_close(stream), 0);
    EXPECT_EQ(state().lock().stream(0, 0, false)->running, 0);
}

// "tvnull:CARD,DEV" is a null device; card 7 names it.
class NullPcm : public tvox::test::SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        const std::string conf = folder_file("null.conf", R"(pcm.tvnull {
    @args [ CARD DEV ]
    @args.CARD { type integer default 0 }
    @args.DEV { type integer default 0 }
    type null
})");
        setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf).c_str(), 1);
        setenv("TINYALSA_CARD_7", "tvnull:0", 1);
    }
};

TEST_F(NullPcm, FormatsAndStreamsOfADeviceThatTakesEverything)
{
    const std::pair<pcm_format, unsigned int> formats[] = {{PCM_FORMAT_S16_LE, 4},
                                                           {PCM_FORMAT_S32_LE, 8},
                                                           {PCM_FORMAT_S8, 2},
                                                           {PCM_FORMAT_S24_LE, 8},
                                                           {PCM_FORMAT_S24_3LE, 6}};
    for (const auto &[format, frame_bytes] : formats) {
        pcm_config wanted = config(format);
        pcm *stream = pcm_open(null_card, 0, PCM_OUT, &wanted);
        ASSERT_EQ(pcm_is_ready(stream), 1) << format << ": " << pcm_get_error(stream);
        EXPECT_EQ(pcm_frames_to_bytes(stream, 10), 10 * frame_bytes) << format;
        pcm_close(stream);
    }
    // A configuration the device cannot take, or none at all.
    pcm_config bad_format = config(PCM_FORMAT_MAX);
    pcm_config no_channels = config(PCM_FORMAT_S16_LE);
    no_channels.channels = 0;
    for (pcm_config *refused : {&bad_format, &no_channels, static_cast<pcm_config *>(nullptr)}) {
        pcm *stream = pcm_open(null_card, 0, PCM_OUT, refused);
        EXPECT_EQ(pcm_is_ready(stream), 0);
        EXPECT_EQ(pcm_close(stream), 0);
    }
    pcm *unset = pcm_open(null_card, 0, PCM_OUT, &no_channels);
    EXPECT_EQ(std::string(pcm_get_error(unset)).rfind("cannot set hw params", 0), 0u);
    pcm_close(unset);

    // Writes after a stop restart the stream; a capture stream starts at once and takes none.
    pcm_config wanted = config(PCM_FORMAT_S32_LE);
    pcm *stream = pcm_open(null_card, 3, PCM_OUT, &wanted);
    ASSERT_EQ(pcm_is_ready(stream), 1) << pcm_get_error(stream);
    const unsigned int bytes = pcm_frames_to_bytes(stream, pcm_get_buffer_size(stream));
    std::vector<char> silence(bytes);
    EXPECT_EQ(pcm_start(stream), 0);
    EXPECT_EQ(pcm_write(stream, silence.data(), bytes), 0);
    EXPECT_EQ(pcm_stop(stream), 0);
    EXPECT_EQ(pcm_write(stream, silence.data(), bytes / 2), 0);
    EXPECT_EQ(pcm_write(stream, nullptr, bytes), -EINVAL);
    EXPECT_EQ(pcm_close(stream), 0);
    pcm_config capture_config = config(PCM_FORMAT_S16_LE);
    pcm *capture = pcm_open(null_card, 1, PCM_IN, &capture_config);
    ASSERT_EQ(pcm_is_ready(capture), 1) << pcm_get_error(capture);
    EXPECT_EQ(capture_config.start_threshold, 1u);
    EXPECT_EQ(pcm_write(capture, silence.data(), 64), -EINVAL);
    pcm_close(capture);
}

TEST_F(NullPcm, FailedOpensGiveANotReadyPcmWithTheReason)
{
    // Card 5 is not mapped, so it is ALSA's hw:5, which this machine lacks.
    EXPECT_EQ(failure(5, 2), "cannot open device 'hw:5,2'");
    pcm_config wanted = config(PCM_FORMAT_S16_LE);
    pcm *missing = pcm_open(5, 2, PCM_OUT, &wanted);
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(pcm_get_buffer_size(missing), 0u);
    EXPECT_EQ(pcm_write(missing, "abcd", 4), -EINVAL);
    EXPECT_LT(pcm_start(missing), 0);
    EXPECT_EQ(pcm_close(missing), 0);
    EXPECT_EQ(pcm_close(nullptr), 0);
    EXPECT_EQ(pcm_params_get(5, 0, PCM_OUT), nullptr);
    EXPECT_EQ(pcm_params_get_max(nullptr, PCM_PARAM_RATE), 0u);

    // The mapped name takes ",<device>" when it has arguments, ":<device>" when it has none;
    // an empty mapping is no mapping.
    const std::pair<const char *, const char *> mappings[] = {
        {"tvabsent", "cannot open device 'tvabsent:4'"},
        {"tvabsent:1", "cannot open device 'tvabsent:1,4'"},
        {"", "cannot open device 'hw:9,4'"}};
    for (const auto &[name, reason] : mappings) {
        setenv("TINYALSA_CARD_9", name, 1);
        EXPECT_EQ(failure(9, 4), reason);
    }
}

} // namespace
