// The tinyalsa PCM calls against the virtual sink, and the ALSA names of cards mapped by
// TINYALSA_CARD_<n>.
#include <tinyalsa/asoundlib.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "state.h"
#include "support/sim_fixture.h"

namespace
{

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
    EXPECT_EQ(pcm_get_buffer_size(stream), 4096u);
    // Half a buffer of samples at half of full scale starts the stream.
    const std::vector<int16_t> samples(2048 * 2, -16384);
    const unsigned int half = pcm_frames_to_bytes(stream, 2048);
    ASSERT_EQ(pcm_write(stream, samples.data(), half), 0);
    {
        tvox::sim::Session session = state().lock();
        const tvox::sim::PcmRecord *record = session.stream(0, 0, false);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->running, 1);
        EXPECT_EQ(record->rate, 48000u);
        EXPECT_EQ(record->frames_written, 2048u);
        EXPECT_DOUBLE_EQ(record->peak, 0.5);
    }
    // Writes after a stop start the stream again.
    EXPECT_EQ(pcm_stop(stream), 0);
    EXPECT_EQ(state().lock().stream(0, 0, false)->running, 0);
    EXPECT_EQ(pcm_write(stream, samples.data(), half), 0);
    EXPECT_EQ(state().lock().stream(0, 0, false)->starts, 2u);
    EXPECT_EQ(pcm_close(stream), 0);
    EXPECT_EQ(state().lock().stream(0, 0, false)->running, 0);

    // A configuration the sink cannot take, or none at all.
    pcm_config bad_format = config(PCM_FORMAT_MAX);
    pcm_config no_channels = config(PCM_FORMAT_S16_LE);
    no_channels.channels = 0;
    for (pcm_config *refused : {&bad_format, &no_channels, static_cast<pcm_config *>(nullptr)}) {
        pcm *refused_stream = pcm_open(0, 0, PCM_OUT, refused);
        EXPECT_EQ(pcm_is_ready(refused_stream), 0);
        EXPECT_EQ(pcm_close(refused_stream), 0);
    }
}

TEST_F(PcmSim, FailedOpensGiveANotReadyPcmWithTheReason)
{
    // Card 5 is not mapped, so it is ALSA's hw:5, which this machine lacks.
    pcm_config wanted = config(PCM_FORMAT_S16_LE);
    pcm *missing = pcm_open(5, 2, PCM_OUT, &wanted);
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(pcm_write(missing, "abcd", 4), -EBADF);
    EXPECT_EQ(pcm_close(missing), 0);
    EXPECT_EQ(pcm_params_get(5, 0, PCM_OUT), nullptr);

    // The mapped name takes ",<device>" when it has arguments, ":<device>" when it has none;
    // an empty mapping is no mapping, as for card 5.
    const std::pair<const char *, const char *> mappings[] = {
        {"tvabsent", "cannot open device 'tvabsent:4'"},
        {"tvabsent:1", "cannot open device 'tvabsent:1,4'"},
        {"", "cannot open device 'hw:9,4'"}};
    for (const auto &[name, reason] : mappings) {
        setenv("TINYALSA_CARD_9", name, 1);
        EXPECT_EQ(failure(9, 4), reason);
    }
}

// A device plays one stream at a time: a second open while it plays fails at once with EBUSY;
// a stopped stream, or one whose process ended, holds nothing.
TEST_F(PcmSim, ABusyDeviceRefusesASecondOpenAtOnce)
{
    pcm_config wanted = config(PCM_FORMAT_S16_LE);
    pcm *first = pcm_open(0, 0, PCM_OUT, &wanted);
    ASSERT_EQ(pcm_is_ready(first), 1) << pcm_get_error(first);
    const std::vector<int16_t> samples(2048 * 2, 0);
    ASSERT_EQ(pcm_write(first, samples.data(), pcm_frames_to_bytes(first, 2048)), 0);

    pcm_config again = config(PCM_FORMAT_S16_LE);
    pcm *second = pcm_open(0, 0, PCM_OUT, &again);
    EXPECT_EQ(pcm_is_ready(second), 0);
    EXPECT_EQ(std::string(pcm_get_error(second)),
              "cannot open device 'tvoxsim:0,0': Device or resource busy");
    pcm_close(second);
    EXPECT_EQ(pcm_params_get(0, 0, PCM_OUT), nullptr);
    EXPECT_EQ(pcm_stop(first), 0);
    pcm *after_stop = pcm_open(0, 0, PCM_OUT, &again);
    EXPECT_EQ(pcm_is_ready(after_stop), 1) << pcm_get_error(after_stop);
    pcm_close(after_stop);
    pcm_close(first);

    // A player that died while playing.
    const pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    record_stream(tvox::sim::now_ns(), 0, 0.0);
    state().lock().stream(0, 0, false)->pid = static_cast<uint32_t>(gone);
    pcm *after_death = pcm_open(0, 0, PCM_OUT, &again);
    EXPECT_EQ(pcm_is_ready(after_death), 1) << pcm_get_error(after_death);
    pcm_close(after_death);
}

// What pcm_open makes of a configuration: 0 or the errno of a refusal, and the configuration as
// the caller has it afterwards.
struct Opened {
    int err;
    pcm_config config;
};

Opened open_with(pcm_config config, unsigned int flags = PCM_OUT)
{
    pcm *stream = pcm_open(0, 0, flags, &config);
    const std::string error = pcm_get_error(stream);
    const int ready = pcm_is_ready(stream);
    pcm_close(stream);
    if (ready)
        return {0, config};
    return {error.find("Invalid argument") != std::string::npos ? EINVAL : -1, config};
}

TEST_F(PcmSim, PcmOpenTakesTheConfigurationAsTheKernelDoes)
{
    const pcm_config base{2, 48000, 1024, 4, PCM_FORMAT_S16_LE, 0, 0, 0, 0, 0};
    // The defaults of the thresholds stay inside: only the period layout comes back.
    Opened opened = open_with(base);
    EXPECT_EQ(opened.err, 0);
    EXPECT_EQ(std::memcmp(&opened.config, &base, sizeof base), 0);

    struct Case {
        const char *what;
        unsigned int period_size, silence_threshold, silence_size;
        int err;
        unsigned int period_taken;
    };
    const std::vector<Case> cases{
        {"the whole buffer as silence threshold", 1024, 4096, 0, 0, 1024},
        {"silence size up to the threshold", 1024, 2048, 2048, 0, 1024},
        {"silence threshold past the buffer", 1024, 4097, 0, EINVAL, 1024},
        {"silence size past the threshold", 1024, 100, 200, EINVAL, 1024},
        {"a period below the device's least: its least", 10, 0, 0, 0, 16},
        {"a period the device takes exactly", 1000, 0, 0, 0, 1000},
        {"a period past the device's most", 1 << 20, 0, 0, EINVAL, 1 << 20},
    };
    for (const Case &c : cases) {
        pcm_config config = base;
        config.period_size = c.period_size;
        config.silence_threshold = c.silence_threshold;
        config.silence_size = c.silence_size;
        opened = open_with(config);
        EXPECT_EQ(opened.err, c.err) << c.what;
        EXPECT_EQ(opened.config.period_size, c.period_taken) << c.what;
        EXPECT_EQ(opened.config.start_threshold, 0u) << c.what;
        EXPECT_EQ(opened.config.avail_min, 0) << c.what;
    }
}

} // namespace
