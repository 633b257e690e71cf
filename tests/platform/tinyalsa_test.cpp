// tinyalsa's answers on the virtual pair: the tools' own ways of calling it (tinytools.c), invalid
// arguments, and what pcm_open's flags and configuration do.
#include <tinyalsa/asoundlib.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "state.h"
#include "support/mixer.h"
#include "tinytools.h"

namespace
{

using TinyalsaSim = tvox::test::MixerSimTest<0>;

// What `print` wrote to its stream.
std::string printed(const std::function<void(FILE *)> &print)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    print(out);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

bool has_line(const std::string &text, const std::string &line)
{
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

TEST_F(TinyalsaSim, TinymixListsEveryControlWithItsValues)
{
    preset_bytes(0, "T DSP1 Protection cd RTLOG_VARIABLE", std::vector<uint8_t>(16, 0xab));
    int status = -1;
    const std::string text = printed([&](FILE *out) { status = tinymix_list(0, out); });
    ASSERT_EQ(status, 0);
    EXPECT_EQ(text.rfind("Mixer name: 'Tervox amplifiers'\nNumber of controls: ", 0), 0u) << text;
    for (const char *line : {
             "0\tBOOL\t1\tT AMP Enable Switch: Off",
             "1\tENUM\t1\tT PCM Source: >ASPRX1 ASPRX2 DSP Zero",
             "6\tINT\t1\tT DSP Set CAL_AMBIENT: 25 (range -40->100)",
             "9\tBYTE\t4\tT DSP Get CAL_R: 0x00 0x00 0x20 0xc7",
         })
        EXPECT_TRUE(has_line(text, line)) << line << "\n" << text;
    // A TLV byte control read with its count of bytes: the container's header, then the data.
    EXPECT_NE(text.find("\tBYTE\t16\tT DSP1 Protection cd RTLOG_VARIABLE: 0x00 0x00 0x00 0x00 "
                        "0x08 0x00 0x00 0x00 0xab 0xab 0xab 0xab 0xab 0xab 0xab 0xab (tlv)\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\tINT\t2\tSPK Digital PCM Volume: 817 817 (range 0->913)\n"),
              std::string::npos)
        << text;
}

TEST_F(TinyalsaSim, TinypcminfoShowsTheSinksMasksAndRangesInAgreement)
{
    const std::string text = printed([](FILE *out) { tinypcminfo(0, 0, out); });
    EXPECT_EQ(text, "PCM out:\n"
                    "      Access:\t0x000008\n"
                    "             \tRW_INTERLEAVED\n"
                    "   Format[0]:\t0x000444\n"
                    "   Format[1]:\t0x000001\n"
                    "             \tS16_LE\n"
                    "             \tS24_LE\n"
                    "             \tS32_LE\n"
                    "             \tS24_3LE\n"
                    "   Subformat:\t0x000001\n"
                    "             \tSTD\n"
                    "        Rate:\tmin=8000Hz\tmax=192000Hz\n"
                    "    Channels:\tmin=1\t\tmax=8\n"
                    " Sample bits:\tmin=16\t\tmax=32\n"
                    " Period size:\tmin=2\t\tmax=524288\n"
                    "Period count:\tmin=2\t\tmax=64\n"
                    "S16_LE 1, S8 0, mask 0x444\n"
                    "Period bytes:\tmin=64\t\tmax=1048576\n"
                    "Buffer bytes:\tmin=128\t\tmax=4194304\n"
                    "PCM in:\n"
                    "Device does not exist.\n");

    // The text is cut as snprintf cuts it, and its whole length is returned.
    pcm_params *params = pcm_params_get(0, 0, PCM_OUT);
    ASSERT_NE(params, nullptr);
    char small[8] = "xxxxxxx";
    const int whole = pcm_params_to_string(params, nullptr, 0);
    EXPECT_EQ(pcm_params_to_string(params, small, sizeof small), whole);
    EXPECT_STREQ(small, "      A");
    EXPECT_EQ(static_cast<size_t>(whole), text.find("S16_LE 1") - std::string("PCM out:\n").size());
    pcm_params_free(params);
}

TEST_F(TinyalsaSim, TinyplayPlaysWhatItIsGiven)
{
    int status = -1;
    const std::string text =
        printed([&](FILE *out) { status = tinyplay_silence(0, 0, 4096 + 1000, out); });
    EXPECT_EQ(status, 0) << text;
    EXPECT_EQ(text, "Playing: 5096 frames in chunks of 16384 bytes (4096 frames)\n"
                    "Running, avail in buffer\n");
    EXPECT_EQ(state().lock().stream(0, 0, false)->frames_written, 5096u);
}

TEST_F(TinyalsaSim, NullAndInvalidArgumentsGetTinyalsasErrors)
{
    mixer_ctl *volume = ctl("SPK Digital PCM Volume");
    mixer_ctl *tlv = ctl("T DSP1 Protection cd RTLOG_VARIABLE");
    mixer_ctl *source = ctl("T PCM Source");
    const std::vector<std::pair<const char *, int>> ints{
        {"get_value(NULL)", mixer_ctl_get_value(nullptr, 0)},
        {"set_value(NULL)", mixer_ctl_set_value(nullptr, 0, 1)},
        {"get_array(NULL)", mixer_ctl_get_array(nullptr, nullptr, 1)},
        {"get_array(ctl, NULL)", mixer_ctl_get_array(volume, nullptr, 2)},
        {"set_array(ctl, NULL)", mixer_ctl_set_array(volume, nullptr, 2)},
        {"get_array(tlv, NULL)", mixer_ctl_get_array(tlv, nullptr, 24)},
        {"set_array(tlv, NULL)", mixer_ctl_set_array(tlv, nullptr, 24)},
        {"get_array(ctl, 0)", mixer_ctl_get_array(volume, &volume, 0)},
        {"set_enum_by_string(NULL)", mixer_ctl_set_enum_by_string(nullptr, "DSP")},
        {"set_enum_by_string(ctl, NULL)", mixer_ctl_set_enum_by_string(source, nullptr)},
        {"set_enum_by_string(int)", mixer_ctl_set_enum_by_string(volume, "DSP")},
        {"get_range_min(NULL)", mixer_ctl_get_range_min(nullptr)},
        {"get_range_max(enum)", mixer_ctl_get_range_max(source)},
        {"get_percent(NULL)", mixer_ctl_get_percent(nullptr, 0)},
        {"get_percent(enum)", mixer_ctl_get_percent(source, 0)},
        {"get_percent(past count)", mixer_ctl_get_percent(volume, 2)},
        {"set_percent(NULL)", mixer_ctl_set_percent(nullptr, 0, 50)},
        {"set_percent(past count)", mixer_ctl_set_percent(volume, 2, 50)},
    };
    for (const auto &[call, result] : ints)
        EXPECT_EQ(result, -EINVAL) << call;
    EXPECT_EQ(mixer_ctl_is_access_tlv_rw(nullptr), 0);
    EXPECT_EQ(mixer_ctl_get_num_values(nullptr), 0u);
    EXPECT_EQ(mixer_ctl_get_num_enums(nullptr), 0u);
    EXPECT_EQ(mixer_ctl_get_num_enums(volume), 0u);
    EXPECT_EQ(mixer_ctl_get_id(nullptr), UINT_MAX);
    EXPECT_EQ(mixer_ctl_get_type(nullptr), MIXER_CTL_TYPE_UNKNOWN);
    EXPECT_STREQ(mixer_ctl_get_type_string(nullptr), "");
    EXPECT_EQ(mixer_ctl_get_name(nullptr), nullptr);
    EXPECT_EQ(mixer_ctl_get_enum_string(nullptr, 0), nullptr);
    EXPECT_EQ(mixer_get_name(nullptr), nullptr);
    EXPECT_EQ(mixer_get_num_ctls(nullptr), 0u);
    EXPECT_EQ(mixer_get_ctl(nullptr, 0), nullptr);
    EXPECT_EQ(mixer_get_ctl_by_name(nullptr, "T PCM Source"), nullptr);
    EXPECT_EQ(mixer_get_ctl_by_name(mixer_.get(), nullptr), nullptr);
    mixer_close(nullptr);

    // A pcm that is NULL or did not open has no device behind it.
    pcm_config config{2, 48000, 1024, 4, PCM_FORMAT_S16_LE, 0, 0, 0, 0, 0};
    pcm *capture = pcm_open(0, 0, PCM_IN, &config); // the virtual pair has no capture side
    char data[64] = {};
    unsigned int avail = 0;
    timespec when{};
    for (pcm *stream : {static_cast<pcm *>(nullptr), capture}) {
        EXPECT_EQ(pcm_is_ready(stream), 0);
        const std::vector<std::pair<const char *, int>> pcm_calls{
            {"write", pcm_write(stream, data, sizeof data)},
            {"writei", pcm_writei(stream, data, 4)},
            {"read", pcm_read(stream, data, sizeof data)},
            {"readi", pcm_readi(stream, data, 4)},
            {"prepare", pcm_prepare(stream)},
            {"start", pcm_start(stream)},
            {"stop", pcm_stop(stream)},
        };
        for (const auto &[call, result] : pcm_calls)
            EXPECT_EQ(result, -EBADF) << call;
        EXPECT_EQ(pcm_get_htimestamp(stream, &avail, &when), -1);
        EXPECT_EQ(pcm_get_buffer_size(stream), 0u);
        EXPECT_EQ(pcm_frames_to_bytes(stream, 4), 0u);
        EXPECT_EQ(pcm_bytes_to_frames(stream, 16), 0u);
        EXPECT_EQ(pcm_close(stream), 0);
    }
    EXPECT_EQ(pcm_params_get_mask(nullptr, PCM_PARAM_FORMAT), nullptr);
    EXPECT_EQ(pcm_params_get_min(nullptr, PCM_PARAM_RATE), 0u);
    EXPECT_EQ(pcm_params_format_test(nullptr, PCM_FORMAT_S16_LE), 0);
    pcm_params_free(nullptr);

    // A playback pcm neither reads nor writes what is not there.
    pcm *playback = pcm_open(0, 0, PCM_OUT, &config);
    ASSERT_EQ(pcm_is_ready(playback), 1) << pcm_get_error(playback);
    EXPECT_EQ(pcm_read(playback, data, sizeof data), -EINVAL);
    EXPECT_EQ(pcm_readi(playback, data, 4), -EINVAL);
    EXPECT_EQ(pcm_writei(playback, nullptr, 4), -EINVAL);
    EXPECT_EQ(pcm_get_htimestamp(playback, &avail, &when), -1); // not running
    EXPECT_EQ(pcm_get_htimestamp(playback, nullptr, &when), -1);
    pcm_close(playback);
}

TEST_F(TinyalsaSim, MixerNamesIdsAndPercents)
{
    EXPECT_STREQ(mixer_get_name(mixer_.get()), "Tervox amplifiers");
    for (unsigned int id : {0u, 5u, mixer_get_num_ctls(mixer_.get()) - 1})
        EXPECT_EQ(mixer_ctl_get_id(mixer_get_ctl(mixer_.get(), id)), id);

    // "T DSP Set CAL_AMBIENT" spans -40..100; percents outside 0..100 are clamped.
    mixer_ctl *ambient = ctl("T DSP Set CAL_AMBIENT");
    EXPECT_EQ(mixer_ctl_get_percent(ambient, 0), 46); // 25
    const std::vector<std::pair<int, long>> percents{{0, -40},  {50, 30},   {100, 100},
                                                     {-5, -40}, {150, 100}, {33, 6}};
    for (const auto &[percent, value] : percents) {
        ASSERT_EQ(mixer_ctl_set_percent(ambient, 0, percent), 0) << percent;
        EXPECT_EQ(int_values(0, "T DSP Set CAL_AMBIENT"), std::vector<long>{value}) << percent;
    }
    EXPECT_EQ(mixer_ctl_get_percent(ambient, 0), 32); // 6
}

TEST_F(TinyalsaSim, PcmFormatsFramesAndBytes)
{
    const std::vector<std::pair<pcm_format, unsigned int>> bits{
        {PCM_FORMAT_S16_LE, 16}, {PCM_FORMAT_S32_LE, 32},  {PCM_FORMAT_S8, 8},
        {PCM_FORMAT_S24_LE, 32}, {PCM_FORMAT_S24_3LE, 24}, {PCM_FORMAT_MAX, 0},
        {PCM_FORMAT_INVALID, 0}};
    pcm_params *params = pcm_params_get(0, 0, PCM_OUT);
    ASSERT_NE(params, nullptr);
    for (const auto &[format, width] : bits) {
        EXPECT_EQ(pcm_format_to_bits(format), width) << format;
        // The sink takes every format but S8.
        EXPECT_EQ(pcm_params_format_test(params, format), width != 0 && width != 8) << format;
    }
    EXPECT_EQ(pcm_params_get_mask(params, PCM_PARAM_RATE), nullptr);
    EXPECT_EQ(pcm_params_get_min(params, PCM_PARAM_FORMAT), 0u);
    EXPECT_EQ(pcm_params_get_max(params, static_cast<pcm_param>(99)), 0u);
    pcm_params_free(params);

    pcm_config config{3, 48000, 1024, 4, PCM_FORMAT_S24_3LE, 0, 0, 0, 0, 0};
    pcm *stream = pcm_open(0, 0, PCM_OUT, &config);
    ASSERT_EQ(pcm_is_ready(stream), 1) << pcm_get_error(stream);
    EXPECT_EQ(pcm_frames_to_bytes(stream, 10), 90u);
    EXPECT_EQ(pcm_bytes_to_frames(stream, 98), 10u);
    pcm_close(stream);
}

// Waits until the stream has run dry; false after five seconds.
bool underran(pcm *stream)
{
    unsigned int avail = 0;
    timespec when{};
    for (int i = 0; i < 500; ++i) {
        if (pcm_get_htimestamp(stream, &avail, &when) < 0)
            return true;
        const timespec pause{0, 10 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return false;
}

TEST_F(TinyalsaSim, PcmFlagsHaveTheirEffect)
{
    const pcm_config config{2, 8000, 1024, 4, PCM_FORMAT_S16_LE, 0, 0, 0, 0, 0};
    const std::vector<int16_t> silence(2 * 4096 * 2, 0);

    // Timestamps of the clock asked for: far apart, since one counts from boot, the other from
    // 1970.
    for (const auto &[flags, clock] : {std::pair{PCM_OUT | PCM_MONOTONIC, CLOCK_MONOTONIC},
                                       std::pair{PCM_OUT, CLOCK_REALTIME}}) {
        pcm_config wanted = config;
        pcm *stream = pcm_open(0, 0, flags, &wanted);
        ASSERT_EQ(pcm_is_ready(stream), 1) << pcm_get_error(stream);
        ASSERT_EQ(pcm_writei(stream, silence.data(), 2048), 2048);
        unsigned int avail = 0;
        timespec stamp{};
        timespec now{};
        ASSERT_EQ(pcm_get_htimestamp(stream, &avail, &stamp), 0);
        clock_gettime(clock, &now);
        EXPECT_LT(std::abs(now.tv_sec - stamp.tv_sec), 60) << flags;
        EXPECT_GE(avail, 2048u);
        EXPECT_LE(avail, 4096u);
        pcm_close(stream);
    }

    // Non-blocking, a write moves what fits and no more (the sink consumes 8000 frames a
    // second, a period at a time); a write that finds no room fails at once.
    pcm_config wanted = config;
    pcm *stream = pcm_open(0, 0, PCM_OUT | PCM_NONBLOCK, &wanted);
    ASSERT_EQ(pcm_is_ready(stream), 1) << pcm_get_error(stream);
    const int moved = pcm_writei(stream, silence.data(), 2 * 4096);
    EXPECT_GE(moved, 4096);
    EXPECT_LT(moved, 2 * 4096);
    const int again = pcm_write(stream, silence.data(), pcm_frames_to_bytes(stream, 4096));
    EXPECT_TRUE(again == -EAGAIN || again == -EIO) << again;
    pcm_close(stream);

    // After an underrun, PCM_NORESTART reports it once; without it the write restarts the stream.
    for (const unsigned int flags : {PCM_OUT | PCM_NORESTART, PCM_OUT}) {
        wanted = config;
        stream = pcm_open(0, 0, flags, &wanted);
        ASSERT_EQ(pcm_is_ready(stream), 1) << pcm_get_error(stream);
        ASSERT_EQ(pcm_writei(stream, silence.data(), 2048), 2048);
        ASSERT_TRUE(underran(stream));
        if ((flags & PCM_NORESTART) != 0) {
            EXPECT_EQ(pcm_writei(stream, silence.data(), 2048), -EPIPE);
            EXPECT_NE(std::string(pcm_get_error(stream)).find("Broken pipe"), std::string::npos);
        }
        EXPECT_EQ(pcm_writei(stream, silence.data(), 2048), 2048) << flags;
        pcm_close(stream);
    }
}

} // namespace
