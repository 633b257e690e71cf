// The tinyalsa PCM calls against ALSA's null device, which takes any configuration and discards
// what is written, reached through a card mapped by TINYALSA_CARD_<n>.
#include <tinyalsa/asoundlib.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "temp_files.h"

namespace
{

using tvox::test::TempFolder;

constexpr unsigned int null_card = 7;

// "tvnull:CARD,DEV" is a null device; card 7 names it.
class NullPcm : public testing::Test
{
  protected:
    void SetUp() override
    {
        const std::string conf = folder_.write("null.conf", R"(pcm.tvnull {
    @args [ CARD DEV ]
    @args.CARD { type integer default 0 }
    @args.DEV { type integer default 0 }
    type null
})");
        setenv("ALSA_CONFIG_PATH", ("/usr/share/alsa/alsa.conf:" + conf).c_str(), 1);
        setenv("TINYALSA_CARD_7", "tvnull:0", 1);
    }
    void TearDown() override
    {
        unsetenv("TINYALSA_CARD_7");
        unsetenv("ALSA_CONFIG_PATH");
    }

    static pcm_config config(pcm_format format)
    {
        pcm_config config{};
        config.channels = 2;
        config.rate = 48000;
        config.period_size = 1024;
        config.period_count = 4;
        config.format = format;
        return config;
    }

  private:
    TempFolder folder_;
};

TEST_F(NullPcm, OpenSetsTheBufferAndTinyalsaDefaultThresholds)
{
    pcm_config wanted = config(PCM_FORMAT_S16_LE);
    pcm *playback = pcm_open(null_card, 0, PCM_OUT, &wanted);
    ASSERT_NE(playback, nullptr);
    ASSERT_EQ(pcm_is_ready(playback), 1) << pcm_get_error(playback);
    EXPECT_STREQ(pcm_get_error(playback), "");
    EXPECT_EQ(pcm_get_buffer_size(playback), 4096u);
    EXPECT_EQ(pcm_frames_to_bytes(playback, 4096), 4096u * 2 * 2);
    // Thresholds left 0 come back with the defaults that were applied.
    EXPECT_EQ(wanted.period_size, 1024u);
    EXPECT_EQ(wanted.period_count, 4u);
    EXPECT_EQ(wanted.start_threshold, 2048u);
    EXPECT_EQ(wanted.stop_threshold, 4096u);
    EXPECT_EQ(wanted.avail_min, 1);
    EXPECT_EQ(pcm_close(playback), 0);

    pcm_config capture_config = config(PCM_FORMAT_S16_LE);
    capture_config.stop_threshold = 1000;
    pcm *capture = pcm_open(null_card, 1, PCM_IN, &capture_config);
    ASSERT_EQ(pcm_is_ready(capture), 1) << pcm_get_error(capture);
    EXPECT_EQ(capture_config.start_threshold, 1u);
    EXPECT_EQ(capture_config.stop_threshold, 1000u);
    std::vector<char> data(64);
    EXPECT_EQ(pcm_write(capture, data.data(), 64), -EINVAL);
    pcm_close(capture);
}

TEST_F(NullPcm, SampleSizesFollowTheFormat)
{
    struct Case {
        pcm_format format;
        unsigned int bytes_per_frame;
    };
    for (const Case c :
         {Case{PCM_FORMAT_S16_LE, 4}, Case{PCM_FORMAT_S32_LE, 8}, Case{PCM_FORMAT_S8, 2},
          Case{PCM_FORMAT_S24_LE, 8}, Case{PCM_FORMAT_S24_3LE, 6}}) {
        pcm_config wanted = config(c.format);
        pcm *stream = pcm_open(null_card, 0, PCM_OUT, &wanted);
        ASSERT_EQ(pcm_is_ready(stream), 1) << c.format << ": " << pcm_get_error(stream);
        EXPECT_EQ(pcm_frames_to_bytes(stream, 10), 10 * c.bytes_per_frame) << c.format;
        pcm_close(stream);
    }
}

TEST_F(NullPcm, WritesStartStopAndWriteAgain)
{
    pcm_config wanted = config(PCM_FORMAT_S32_LE);
    pcm *stream = pcm_open(null_card, 3, PCM_OUT, &wanted);
    ASSERT_EQ(pcm_is_ready(stream), 1) << pcm_get_error(stream);
    const unsigned int bytes = pcm_frames_to_bytes(stream, pcm_get_buffer_size(stream));
    std::vector<char> silence(bytes);

    EXPECT_EQ(pcm_start(stream), 0);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(pcm_write(stream, silence.data(), bytes), 0);
    EXPECT_EQ(pcm_stop(stream), 0);
    // A stopped stream is prepared again by the next write.
    EXPECT_EQ(pcm_write(stream, silence.data(), bytes / 2), 0);
    EXPECT_EQ(pcm_start(stream), 0);
    EXPECT_EQ(pcm_write(stream, nullptr, bytes), -EINVAL);
    EXPECT_STREQ(pcm_get_error(stream), "");
    EXPECT_EQ(pcm_close(stream), 0);
}

TEST_F(NullPcm, FailedOpensGiveANotReadyPcmWithTheReason)
{
    pcm_config wanted = config(PCM_FORMAT_S16_LE);
    // Card 5 is not mapped, so it is ALSA's hw:5, which this machine lacks.
    pcm *missing = pcm_open(5, 2, PCM_OUT, &wanted);
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(pcm_is_ready(missing), 0);
    EXPECT_EQ(std::string(pcm_get_error(missing)).rfind("cannot open device 'hw:5,2': ", 0), 0u)
        << pcm_get_error(missing);
    EXPECT_EQ(pcm_get_buffer_size(missing), 0u);
    EXPECT_EQ(pcm_frames_to_bytes(missing, 100), 0u);
    EXPECT_EQ(pcm_write(missing, "abcd", 4), -EINVAL);
    EXPECT_LT(pcm_start(missing), 0);
    EXPECT_LT(pcm_stop(missing), 0);
    EXPECT_EQ(pcm_close(missing), 0);

    // The mapped name takes ",<device>" when it has arguments, ":<device>" when it has none.
    setenv("TINYALSA_CARD_9", "tvabsent", 1);
    EXPECT_EQ(std::string(pcm_get_error(pcm_open(9, 4, PCM_OUT, &wanted)))
                  .rfind("cannot open device 'tvabsent:4': ", 0),
              0u);
    setenv("TINYALSA_CARD_9", "tvabsent:1", 1);
    EXPECT_EQ(std::string(pcm_get_error(pcm_open(9, 4, PCM_OUT, &wanted)))
                  .rfind("cannot open device 'tvabsent:1,4': ", 0),
              0u);
    // An empty mapping is no mapping.
    setenv("TINYALSA_CARD_9", "", 1);
    EXPECT_EQ(std::string(pcm_get_error(pcm_open(9, 0, PCM_OUT, &wanted)))
                  .rfind("cannot open device 'hw:9,0': ", 0),
              0u);
    unsetenv("TINYALSA_CARD_9");

    // A configuration the device cannot take, or none at all.
    pcm_config bad_format = config(PCM_FORMAT_MAX);
    pcm *refused = pcm_open(null_card, 0, PCM_OUT, &bad_format);
    EXPECT_EQ(pcm_is_ready(refused), 0);
    EXPECT_NE(std::string(pcm_get_error(refused)), "");
    EXPECT_EQ(pcm_is_ready(pcm_open(null_card, 0, PCM_OUT, nullptr)), 0);
    pcm_config no_channels = config(PCM_FORMAT_S16_LE);
    no_channels.channels = 0;
    pcm *unset = pcm_open(null_card, 0, PCM_OUT, &no_channels);
    EXPECT_EQ(pcm_is_ready(unset), 0);
    EXPECT_EQ(std::string(pcm_get_error(unset)).rfind("cannot set hw params", 0), 0u)
        << pcm_get_error(unset);
    EXPECT_EQ(pcm_close(unset), 0);
    EXPECT_EQ(pcm_close(nullptr), 0);
}

TEST_F(NullPcm, ParamsGiveTheDeviceRanges)
{
    EXPECT_EQ(pcm_params_get(5, 0, PCM_OUT), nullptr);
    EXPECT_EQ(pcm_params_get_min(nullptr, PCM_PARAM_RATE), 0u);
    EXPECT_EQ(pcm_params_get_max(nullptr, PCM_PARAM_RATE), 0u);

    pcm_params *params = pcm_params_get(null_card, 0, PCM_OUT);
    ASSERT_NE(params, nullptr);
    for (pcm_param param :
         {PCM_PARAM_SAMPLE_BITS, PCM_PARAM_FRAME_BITS, PCM_PARAM_CHANNELS, PCM_PARAM_RATE,
          PCM_PARAM_PERIOD_TIME, PCM_PARAM_PERIOD_SIZE, PCM_PARAM_PERIOD_BYTES, PCM_PARAM_PERIODS,
          PCM_PARAM_BUFFER_TIME, PCM_PARAM_BUFFER_SIZE, PCM_PARAM_BUFFER_BYTES}) {
        EXPECT_LE(pcm_params_get_min(params, param), pcm_params_get_max(params, param)) << param;
        EXPECT_GT(pcm_params_get_max(params, param), 0u) << param;
    }
    // The null device takes every linear format: 8 to 32 bits lie inside its sample range.
    EXPECT_LE(pcm_params_get_min(params, PCM_PARAM_SAMPLE_BITS), 8u);
    EXPECT_GE(pcm_params_get_max(params, PCM_PARAM_SAMPLE_BITS), 32u);
    EXPECT_LE(pcm_params_get_min(params, PCM_PARAM_RATE), 48000u);
    EXPECT_GE(pcm_params_get_max(params, PCM_PARAM_RATE), 48000u);
    EXPECT_LE(pcm_params_get_min(params, PCM_PARAM_CHANNELS), 2u);
    // Byte sizes are frame sizes times frame bits.
    EXPECT_EQ(pcm_params_get_min(params, PCM_PARAM_PERIOD_BYTES),
              pcm_params_get_min(params, PCM_PARAM_PERIOD_SIZE) *
                  pcm_params_get_min(params, PCM_PARAM_FRAME_BITS) / 8);
    EXPECT_EQ(pcm_params_get_min(params, PCM_PARAM_FRAME_BITS),
              pcm_params_get_min(params, PCM_PARAM_SAMPLE_BITS) *
                  pcm_params_get_min(params, PCM_PARAM_CHANNELS));
    // Masks have no interval.
    EXPECT_EQ(pcm_params_get_min(params, PCM_PARAM_FORMAT), 0u);
    EXPECT_EQ(pcm_params_get_max(params, PCM_PARAM_ACCESS), 0u);
    pcm_params_free(params);
    pcm_params_free(nullptr);
}

} // namespace
