// The plain WAV player of the bench tools: a file on card 0, device 0, messages on the standard
// streams only (errors on standard error, the "Playing sample" line on standard output).
#include "tvoxsp/mixer.h"
#include "tvoxsp/playback.h"

#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "playback/handles.h"
#include "playback/wav_header.h"

#include <algorithm>
#include <cstdio>

namespace
{

constexpr const char *kTestWavPath = "/sdcard/Music/lrp_loop.wav";

} // namespace

extern "C" {

int32_t check_param(struct pcm_params *params, uint32_t param, uint32_t value, const char *name,
                    const char *unit)
{
    const auto which = static_cast<enum pcm_param>(param);
    int32_t within = 1;
    const unsigned int min = pcm_params_get_min(params, which);
    if (value < min) {
        std::fprintf(stderr, "%s is %u%s, device only supports >= %u%s\n", name, value, unit, min,
                     unit);
        within = 0;
    }
    const unsigned int max = pcm_params_get_max(params, which);
    if (value > max) {
        std::fprintf(stderr, "%s is %u%s, device only supports <= %u%s\n", name, value, unit, max,
                     unit);
        within = 0;
    }
    return within;
}

int32_t sample_is_playable(uint32_t card, uint32_t device, uint32_t channels, uint32_t rate,
                           uint32_t bits, uint32_t period_size, uint32_t period_count)
{
    struct pcm_params *params = pcm_params_get(card, device, PCM_OUT);
    if (!params) {
        std::fprintf(stderr, "Unable to open PCM device %u.\n", device);
        return 0;
    }
    // Every check runs, so the user sees all the limits the file breaks at once.
    int32_t playable = check_param(params, PCM_PARAM_RATE, rate, "Sample rate", "Hz");
    playable &= check_param(params, PCM_PARAM_CHANNELS, channels, "Sample", " channels");
    playable &= check_param(params, PCM_PARAM_SAMPLE_BITS, bits, "Bitrate", " bits");
    playable &= check_param(params, PCM_PARAM_PERIOD_SIZE, period_size, "Period size", " frames");
    playable &= check_param(params, PCM_PARAM_PERIODS, period_count, "Period count", " periods");
    pcm_params_free(params);
    return playable;
}

void play_sample(FILE *file, uint32_t card, uint32_t device, uint32_t channels, uint32_t rate,
                 uint32_t bits, uint32_t period_size, uint32_t period_count, uint32_t data_size)
{
    struct pcm_config config =
        tvox::wav_pcm_config(channels, rate, bits, period_size, period_count, PCM_FORMAT_S24_3LE);
    if (!sample_is_playable(card, device, channels, rate, bits, period_size, period_count))
        return;

    const tvox::PcmHandle pcm = tvox::open_playback_pcm(card, device, config, stderr);
    if (!pcm)
        return;
    const tvox::PcmBuffer buffer = tvox::allocate_pcm_buffer(pcm.get(), stderr);
    if (!buffer.data)
        return;

    std::printf("Playing sample: %u ch, %u hz, %u bit %u bytes\n", channels, rate, bits, data_size);
    // Only the data chunk's bytes play, and a file shorter than its chunk stops at its end.
    for (uint32_t remaining = data_size; remaining > 0;) {
        const std::size_t wanted = std::min(buffer.size, remaining);
        const std::size_t got = std::fread(buffer.data.get(), 1, wanted, file);
        if (got < 1)
            break;
        if (pcm_write(pcm.get(), buffer.data.get(), static_cast<unsigned int>(got)) != 0) {
            std::fprintf(stderr, "Error playing sample\n");
            break;
        }
        remaining -= static_cast<uint32_t>(got);
    }
}

int32_t tervox_tplay(struct tervox *ctx)
{
    const char *path = ctx ? ctx->silent_wav_path : nullptr;
    const tvox::FileHandle file = tvox::open_for_reading(path);
    if (!file) {
        std::fprintf(stderr, "Unable to open file '%s'\n", tvox::printable(path));
        return 1;
    }
    const auto header = tvox::read_wav_header(file.get());
    if (!header) {
        std::fprintf(stderr, "Error: '%s' is not a riff/wave file\n", path);
        return 1;
    }
    const tvox::WavFormat &format = header->format;
    play_sample(file.get(), 0, 0, format.channels, format.sample_rate, format.bits_per_sample,
                tvox::kPeriodSize, tvox::kPeriodCount, header->data_size);
    return 0;
}

int32_t tervox_tplay_test(void)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        std::printf("%s: Failed to open mixer\n", "tervox_tplay_test");
        return -22;
    }
    // Routing failures are only logged by the path: the file plays whatever the amplifiers do.
    tervox_apply_mixer_path(tvox::spk_playback_path.data(), tvox::spk_playback_path.size());
    tervox_apply_mixer_path(tvox::rcv_playback_path.data(), tvox::rcv_playback_path.size());
    // For good: a later calibration plays this file too.
    if (self)
        self->silent_wav_path = kTestWavPath;
    return tervox_tplay(self);
}

} // extern "C"
