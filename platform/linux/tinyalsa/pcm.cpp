// The PCM half of tinyalsa over alsa-lib's PCM interface, with tinyalsa's defaults.
//
// Software parameters left 0 in the caller's configuration take tinyalsa's defaults: playback
// starts once half the buffer is filled (capture at the first frame), stops when the buffer runs
// empty (capture: after ten buffers of overrun), and wakes the writer for a single free frame
// (a period with PCM_MMAP).
#include <tinyalsa/asoundlib.h>

#include <alsa/asoundlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>
#include <string_view>

#include "alsa_names.h"

using tinyalsa::AlsaPtr;

namespace
{

using PcmPtr = AlsaPtr<snd_pcm_t, snd_pcm_close>;
using HwParamsPtr = AlsaPtr<snd_pcm_hw_params_t, snd_pcm_hw_params_free>;
using SwParamsPtr = AlsaPtr<snd_pcm_sw_params_t, snd_pcm_sw_params_free>;
using FormatMaskPtr = AlsaPtr<snd_pcm_format_mask_t, snd_pcm_format_mask_free>;

struct FormatInfo {
    snd_pcm_format_t alsa;
    unsigned int bits; // bits one sample takes in the buffer
};

// Indexed by enum pcm_format. S24_LE sits in a 4-byte container, S24_3LE in 3 bytes.
constexpr std::array<FormatInfo, PCM_FORMAT_MAX> formats{{
    {SND_PCM_FORMAT_S16_LE, 16},
    {SND_PCM_FORMAT_S32_LE, 32},
    {SND_PCM_FORMAT_S8, 8},
    {SND_PCM_FORMAT_S24_LE, 32},
    {SND_PCM_FORMAT_S24_3LE, 24},
}};

bool valid_format(pcm_format format)
{
    return format >= 0 && format < PCM_FORMAT_MAX;
}

snd_pcm_stream_t stream_of(unsigned int flags)
{
    return (flags & PCM_IN) != 0 ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK;
}

} // namespace

struct pcm {
    PcmPtr handle; // null for a pcm that failed to open
    unsigned int flags = 0;
    pcm_config config{};
    unsigned int buffer_size = 0;
    std::string error;

    // Records the failure text the way tinyalsa words it: "<what>: <reason>".
    int fail(std::string_view what, int err)
    {
        error.assign(what);
        error += ": ";
        error += snd_strerror(err);
        return err;
    }
};

struct pcm_params {
    HwParamsPtr space;
};

namespace
{

// A failed open hands back this thread's "bad" pcm: it only carries the reason, so nothing is
// lost when a caller never closes it.
pcm *bad_pcm(std::string_view what, const std::string &name, int err)
{
    thread_local pcm bad;
    bad.fail(std::string(what) + " '" + name + "'", err);
    return &bad;
}

bool is_bad(const pcm *pcm)
{
    return pcm == nullptr || !pcm->handle;
}

int set_hw_params(pcm &pcm, pcm_config &config)
{
    snd_pcm_t *handle = pcm.handle.get();
    snd_pcm_hw_params_t *raw = nullptr;
    if (int err = snd_pcm_hw_params_malloc(&raw); err < 0)
        return err;
    HwParamsPtr params(raw);
    const snd_pcm_access_t access = (pcm.flags & PCM_MMAP) != 0 ? SND_PCM_ACCESS_MMAP_INTERLEAVED
                                                                : SND_PCM_ACCESS_RW_INTERLEAVED;
    snd_pcm_uframes_t period_size = config.period_size;
    int err = snd_pcm_hw_params_any(handle, params.get());
    if (err >= 0)
        err = snd_pcm_hw_params_set_access(handle, params.get(), access);
    if (err >= 0)
        err = snd_pcm_hw_params_set_format(handle, params.get(), formats[config.format].alsa);
    if (err >= 0)
        err = snd_pcm_hw_params_set_channels(handle, params.get(), config.channels);
    if (err >= 0)
        err = snd_pcm_hw_params_set_rate(handle, params.get(), config.rate, 0);
    // The period size is the nearest the device allows (the caller learns it); the period count
    // is exact.
    if (err >= 0)
        err = snd_pcm_hw_params_set_period_size_near(handle, params.get(), &period_size, nullptr);
    if (err >= 0)
        err = snd_pcm_hw_params_set_periods(handle, params.get(), config.period_count, 0);
    if (err >= 0)
        err = snd_pcm_hw_params(handle, params.get());
    if (err < 0)
        return err;

    // The caller learns the refined period layout, as with tinyalsa.
    unsigned int periods = 0;
    snd_pcm_uframes_t buffer = 0;
    snd_pcm_hw_params_get_period_size(params.get(), &period_size, nullptr);
    snd_pcm_hw_params_get_periods(params.get(), &periods, nullptr);
    snd_pcm_hw_params_get_buffer_size(params.get(), &buffer);
    config.period_size = static_cast<unsigned int>(period_size);
    config.period_count = periods;
    pcm.buffer_size = static_cast<unsigned int>(buffer);
    return 0;
}

int set_sw_params(pcm &pcm, pcm_config &config)
{
    const bool capture = (pcm.flags & PCM_IN) != 0;
    const snd_pcm_uframes_t buffer = pcm.buffer_size;
    if (config.start_threshold == 0)
        config.start_threshold = capture ? 1 : static_cast<unsigned int>(buffer / 2);
    if (config.stop_threshold == 0)
        config.stop_threshold = static_cast<unsigned int>(capture ? buffer * 10 : buffer);
    if (config.avail_min == 0)
        config.avail_min = (pcm.flags & PCM_MMAP) != 0 ? static_cast<int>(config.period_size) : 1;

    snd_pcm_t *handle = pcm.handle.get();
    snd_pcm_sw_params_t *raw = nullptr;
    if (int err = snd_pcm_sw_params_malloc(&raw); err < 0)
        return err;
    SwParamsPtr params(raw);
    int err = snd_pcm_sw_params_current(handle, params.get());
    if (err >= 0)
        err = snd_pcm_sw_params_set_start_threshold(handle, params.get(), config.start_threshold);
    if (err >= 0)
        err = snd_pcm_sw_params_set_stop_threshold(handle, params.get(), config.stop_threshold);
    if (err >= 0)
        err = snd_pcm_sw_params_set_avail_min(handle, params.get(),
                                              static_cast<snd_pcm_uframes_t>(config.avail_min));
    if (err >= 0)
        err =
            snd_pcm_sw_params_set_silence_threshold(handle, params.get(), config.silence_threshold);
    if (err >= 0)
        err = snd_pcm_sw_params_set_silence_size(handle, params.get(), config.silence_size);
    if (err >= 0)
        err = snd_pcm_sw_params(handle, params.get());
    return err;
}

// Brings a stopped or overrun stream back to the prepared state; a prepared or running one is
// left alone.
int prepare(pcm &pcm)
{
    const snd_pcm_state_t state = snd_pcm_state(pcm.handle.get());
    if (state == SND_PCM_STATE_PREPARED || state == SND_PCM_STATE_RUNNING)
        return 0;
    if (int err = snd_pcm_prepare(pcm.handle.get()); err < 0)
        return pcm.fail("cannot prepare channel", err);
    return 0;
}

struct Range {
    uint64_t min = 0;
    uint64_t max = 0;
};

template <typename Value>
Range bounds(const snd_pcm_hw_params_t *space,
             int (*get_min)(const snd_pcm_hw_params_t *, Value *, int *),
             int (*get_max)(const snd_pcm_hw_params_t *, Value *, int *))
{
    Value min{};
    Value max{};
    get_min(space, &min, nullptr);
    get_max(space, &max, nullptr);
    return {min, max};
}

template <typename Value>
Range bounds(const snd_pcm_hw_params_t *space, int (*get_min)(const snd_pcm_hw_params_t *, Value *),
             int (*get_max)(const snd_pcm_hw_params_t *, Value *))
{
    Value min{};
    Value max{};
    get_min(space, &min);
    get_max(space, &max);
    return {min, max};
}

// Bits per sample over every format the device still allows.
Range sample_bits(const snd_pcm_hw_params_t *space)
{
    snd_pcm_format_mask_t *raw = nullptr;
    if (snd_pcm_format_mask_malloc(&raw) < 0)
        return {};
    FormatMaskPtr mask(raw);
    snd_pcm_hw_params_get_format_mask(const_cast<snd_pcm_hw_params_t *>(space), mask.get());
    Range range{UINT64_MAX, 0};
    for (int format = 0; format <= SND_PCM_FORMAT_LAST; ++format) {
        const auto alsa_format = static_cast<snd_pcm_format_t>(format);
        const int width = snd_pcm_format_physical_width(alsa_format);
        if (width <= 0 || !snd_pcm_format_mask_test(mask.get(), alsa_format))
            continue;
        range.min = std::min<uint64_t>(range.min, static_cast<uint64_t>(width));
        range.max = std::max<uint64_t>(range.max, static_cast<uint64_t>(width));
    }
    return range.max == 0 ? Range{} : range;
}

Range times(Range a, Range b)
{
    return {a.min * b.min, a.max * b.max};
}

Range bytes_of(Range frames, Range frame_bits)
{
    const Range bits = times(frames, frame_bits);
    return {bits.min / 8, bits.max / 8};
}

Range range_of(const snd_pcm_hw_params_t *space, pcm_param param)
{
    const auto frame_bits = [space] {
        return times(sample_bits(space), bounds(space, snd_pcm_hw_params_get_channels_min,
                                                snd_pcm_hw_params_get_channels_max));
    };
    switch (param) {
    case PCM_PARAM_SAMPLE_BITS:
        return sample_bits(space);
    case PCM_PARAM_FRAME_BITS:
        return frame_bits();
    case PCM_PARAM_CHANNELS:
        return bounds(space, snd_pcm_hw_params_get_channels_min,
                      snd_pcm_hw_params_get_channels_max);
    case PCM_PARAM_RATE:
        return bounds(space, snd_pcm_hw_params_get_rate_min, snd_pcm_hw_params_get_rate_max);
    case PCM_PARAM_PERIOD_TIME:
        return bounds(space, snd_pcm_hw_params_get_period_time_min,
                      snd_pcm_hw_params_get_period_time_max);
    case PCM_PARAM_PERIOD_SIZE:
        return bounds(space, snd_pcm_hw_params_get_period_size_min,
                      snd_pcm_hw_params_get_period_size_max);
    case PCM_PARAM_PERIOD_BYTES:
        return bytes_of(range_of(space, PCM_PARAM_PERIOD_SIZE), frame_bits());
    case PCM_PARAM_PERIODS:
        return bounds(space, snd_pcm_hw_params_get_periods_min, snd_pcm_hw_params_get_periods_max);
    case PCM_PARAM_BUFFER_TIME:
        return bounds(space, snd_pcm_hw_params_get_buffer_time_min,
                      snd_pcm_hw_params_get_buffer_time_max);
    case PCM_PARAM_BUFFER_SIZE:
        return bounds(space, snd_pcm_hw_params_get_buffer_size_min,
                      snd_pcm_hw_params_get_buffer_size_max);
    case PCM_PARAM_BUFFER_BYTES:
        return bytes_of(range_of(space, PCM_PARAM_BUFFER_SIZE), frame_bits());
    default:
        // Masks (access, format, subformat) and the obsolete tick time have no interval.
        return {};
    }
}

unsigned int clamp(uint64_t value)
{
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

} // namespace

extern "C" {

struct pcm *pcm_open(unsigned int card, unsigned int device, unsigned int flags,
                     struct pcm_config *config)
{
    const std::string name = tinyalsa::pcm_name(card, device);
    if (config == nullptr || !valid_format(config->format))
        return bad_pcm("invalid configuration for device", name, -EINVAL);
    const tinyalsa::QuietAlsa quiet;
    snd_pcm_t *raw = nullptr;
    // As tinyalsa opens the device node: without blocking, so that a device in use fails at once
    // with EBUSY, and blocking again for the transfers.
    if (int err = snd_pcm_open(&raw, name.c_str(), stream_of(flags), SND_PCM_NONBLOCK); err < 0)
        return bad_pcm("cannot open device", name, err);
    PcmPtr handle(raw);
    if (int err = snd_pcm_nonblock(handle.get(), 0); err < 0)
        return bad_pcm("cannot open device", name, err);

    auto *result = new pcm{std::move(handle), flags, *config, 0, {}};
    int err = set_hw_params(*result, result->config);
    if (err < 0) {
        delete result;
        return bad_pcm("cannot set hw params of device", name, err);
    }
    err = set_sw_params(*result, result->config);
    if (err < 0) {
        delete result;
        return bad_pcm("cannot set sw params of device", name, err);
    }
    *config = result->config;
    return result;
}

int pcm_close(struct pcm *pcm)
{
    // The bad pcm of a failed open belongs to its thread, not to the caller.
    if (!is_bad(pcm))
        delete pcm;
    return 0;
}

int pcm_is_ready(struct pcm *pcm)
{
    return is_bad(pcm) ? 0 : 1;
}

const char *pcm_get_error(struct pcm *pcm)
{
    return pcm == nullptr ? "" : pcm->error.c_str();
}

unsigned int pcm_get_buffer_size(struct pcm *pcm)
{
    return is_bad(pcm) ? 0 : pcm->buffer_size;
}

unsigned int pcm_frames_to_bytes(struct pcm *pcm, unsigned int frames)
{
    if (is_bad(pcm))
        return 0;
    return frames * pcm->config.channels * formats[pcm->config.format].bits / 8;
}

int pcm_write(struct pcm *pcm, const void *data, unsigned int count)
{
    if (is_bad(pcm) || (pcm->flags & PCM_IN) != 0 || data == nullptr)
        return -EINVAL;
    snd_pcm_t *handle = pcm->handle.get();
    const unsigned int frame_bytes = pcm_frames_to_bytes(pcm, 1);
    const auto *bytes = static_cast<const unsigned char *>(data);
    snd_pcm_uframes_t left = count / frame_bytes;
    while (left > 0) {
        if (int err = prepare(*pcm); err < 0)
            return err;
        const snd_pcm_sframes_t written = (pcm->flags & PCM_MMAP) != 0
                                              ? snd_pcm_mmap_writei(handle, bytes, left)
                                              : snd_pcm_writei(handle, bytes, left);
        if (written == -EPIPE || written == -EINTR || written == -EAGAIN)
            continue; // underrun: the stream is prepared again above and the rest retried
        if (written == -ESTRPIPE) {
            if (snd_pcm_resume(handle) < 0)
                snd_pcm_prepare(handle);
            continue;
        }
        if (written < 0)
            return pcm->fail("cannot write stream data", static_cast<int>(written));
        bytes += static_cast<snd_pcm_uframes_t>(written) * frame_bytes;
        left -= static_cast<snd_pcm_uframes_t>(written);
    }
    return 0;
}

int pcm_start(struct pcm *pcm)
{
    if (is_bad(pcm))
        return -EBADF;
    if (int err = prepare(*pcm); err < 0)
        return err;
    if (snd_pcm_state(pcm->handle.get()) == SND_PCM_STATE_RUNNING)
        return 0;
    if (int err = snd_pcm_start(pcm->handle.get()); err < 0)
        return pcm->fail("cannot start channel", err);
    return 0;
}

int pcm_stop(struct pcm *pcm)
{
    if (is_bad(pcm))
        return -EBADF;
    if (int err = snd_pcm_drop(pcm->handle.get()); err < 0)
        return pcm->fail("cannot stop channel", err);
    return 0;
}

struct pcm_params *pcm_params_get(unsigned int card, unsigned int device, unsigned int flags)
{
    const std::string name = tinyalsa::pcm_name(card, device);
    const tinyalsa::QuietAlsa quiet;
    snd_pcm_t *raw_pcm = nullptr;
    if (snd_pcm_open(&raw_pcm, name.c_str(), stream_of(flags), SND_PCM_NONBLOCK) < 0)
        return nullptr;
    PcmPtr handle(raw_pcm);
    snd_pcm_hw_params_t *raw_space = nullptr;
    if (snd_pcm_hw_params_malloc(&raw_space) < 0)
        return nullptr;
    HwParamsPtr space(raw_space);
    if (snd_pcm_hw_params_any(handle.get(), space.get()) < 0)
        return nullptr;
    return new pcm_params{std::move(space)};
}

void pcm_params_free(struct pcm_params *pcm_params)
{
    delete pcm_params;
}

unsigned int pcm_params_get_min(struct pcm_params *pcm_params, enum pcm_param param)
{
    return pcm_params == nullptr ? 0 : clamp(range_of(pcm_params->space.get(), param).min);
}

unsigned int pcm_params_get_max(struct pcm_params *pcm_params, enum pcm_param param)
{
    return pcm_params == nullptr ? 0 : clamp(range_of(pcm_params->space.get(), param).max);
}

} // extern "C"
