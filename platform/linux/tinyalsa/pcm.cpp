// The PCM half of tinyalsa over alsa-lib's PCM interface, answering as tinyalsa does over the
// kernel.
//
// Software parameters left 0 in the caller's configuration take tinyalsa's defaults: playback
// starts once half the buffer is filled (capture at the first frame), stops when the buffer runs
// empty (capture: after ten buffers of overrun), and wakes the writer for a single free frame
// (a period with PCM_MMAP). The defaults stay inside the pcm: of the caller's configuration only
// the period size and count change, to what the device took.
#include <tinyalsa/asoundlib.h>

#include <alsa/asoundlib.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string>
#include <string_view>
#include <type_traits>

#include "alsa_names.h"
#include "kernel.h"

using tinyalsa::AlsaPtr;

namespace
{

using PcmPtr = AlsaPtr<snd_pcm_t, snd_pcm_close>;
using HwParamsPtr = AlsaPtr<snd_pcm_hw_params_t, snd_pcm_hw_params_free>;
using SwParamsPtr = AlsaPtr<snd_pcm_sw_params_t, snd_pcm_sw_params_free>;
using StatusPtr = AlsaPtr<snd_pcm_status_t, snd_pcm_status_free>;

// Indexed by enum pcm_format.
constexpr std::array<snd_pcm_format_t, PCM_FORMAT_MAX> formats{
    SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S32_LE,  SND_PCM_FORMAT_S8,
    SND_PCM_FORMAT_S24_LE, SND_PCM_FORMAT_S24_3LE,
};

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

// The hardware parameters as tinyalsa asks for them: format, channels, rate and period count
// exact, the period at least the caller's size (the device's smallest that large; none larger
// than the device takes), the rest left to the device.
int set_hw_params(pcm &pcm)
{
    snd_pcm_t *handle = pcm.handle.get();
    const pcm_config &config = pcm.config;
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
        err = snd_pcm_hw_params_set_format(handle, params.get(), formats[config.format]);
    if (err >= 0)
        err = snd_pcm_hw_params_set_channels(handle, params.get(), config.channels);
    if (err >= 0)
        err = snd_pcm_hw_params_set_rate(handle, params.get(), config.rate, 0);
    if (err >= 0)
        err = snd_pcm_hw_params_set_period_size_min(handle, params.get(), &period_size, nullptr);
    if (err >= 0)
        err = snd_pcm_hw_params_set_periods(handle, params.get(), config.period_count, 0);
    // The kernel picks the smallest period left; alsa-lib would pick the largest buffer.
    if (err >= 0)
        err = snd_pcm_hw_params_set_period_size_first(handle, params.get(), &period_size, nullptr);
    if (err >= 0)
        err = snd_pcm_hw_params(handle, params.get());
    if (err < 0)
        return err;

    unsigned int periods = 0;
    snd_pcm_uframes_t buffer = 0;
    snd_pcm_hw_params_get_period_size(params.get(), &period_size, nullptr);
    snd_pcm_hw_params_get_periods(params.get(), &periods, nullptr);
    snd_pcm_hw_params_get_buffer_size(params.get(), &buffer);
    pcm.config.period_size = static_cast<unsigned int>(period_size);
    pcm.config.period_count = periods;
    pcm.buffer_size = static_cast<unsigned int>(buffer);
    return 0;
}

// The software parameters, with tinyalsa's defaults for those left 0; the defaults stay in the
// pcm's own copy of the configuration.
int set_sw_params(pcm &pcm)
{
    pcm_config &config = pcm.config;
    const bool capture = (pcm.flags & PCM_IN) != 0;
    const unsigned int buffer = pcm.buffer_size;
    if (config.start_threshold == 0)
        config.start_threshold = capture ? 1 : buffer / 2;
    if (config.stop_threshold == 0)
        config.stop_threshold = capture ? buffer * 10 : buffer;
    if (config.avail_min == 0)
        config.avail_min = (pcm.flags & PCM_MMAP) != 0 ? static_cast<int>(config.period_size) : 1;

    snd_pcm_t *handle = pcm.handle.get();
    snd_pcm_sw_params_t *raw = nullptr;
    if (int err = snd_pcm_sw_params_malloc(&raw); err < 0)
        return err;
    SwParamsPtr params(raw);
    const tinyalsa::kernel::SwParams values{
        .start_threshold = config.start_threshold,
        .stop_threshold = config.stop_threshold,
        // A negative avail_min reaches the kernel as tinyalsa's conversion makes it.
        .avail_min = static_cast<unsigned long>(static_cast<long>(config.avail_min)),
        .silence_threshold = config.silence_threshold,
        .silence_size = config.silence_size,
        .monotonic = (pcm.flags & PCM_MONOTONIC) != 0,
    };
    int err = snd_pcm_sw_params_current(handle, params.get());
    if (err >= 0)
        err = tinyalsa::kernel::fill_sw_params(params.get(), snd_pcm_sw_params_sizeof(), values,
                                               buffer);
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

template <typename Void>
using Mover = snd_pcm_sframes_t (*)(snd_pcm_t *, Void *, snd_pcm_uframes_t);

// Moves `frames` frames at `data` with `move` (alsa-lib's readi or writei). Blocking, every frame
// moves: after an underrun or overrun the stream is prepared again and the rest moved, unless
// PCM_NORESTART asks for -EPIPE (the next call restarts it). Non-blocking, what fits moves, and
// -EAGAIN when nothing does. The frames moved, or a negative errno.
template <typename Void> int transfer(pcm &pcm, Void *data, unsigned int frames, Mover<Void> move)
{
    if (data == nullptr || frames > INT_MAX)
        return -EINVAL;
    snd_pcm_t *handle = pcm.handle.get();
    const unsigned int frame_bytes = pcm_frames_to_bytes(&pcm, 1);
    const bool restart = (pcm.flags & PCM_NORESTART) == 0;
    // Reported once: the stream is prepared, so the next call starts it again.
    const auto underrun = [&pcm, handle] {
        snd_pcm_prepare(handle);
        return pcm.fail("cannot read/write stream data", -EPIPE);
    };
    unsigned int done = 0;
    while (done < frames) {
        if (!restart && snd_pcm_state(handle) == SND_PCM_STATE_XRUN)
            return underrun();
        if (int err = prepare(pcm); err < 0)
            return err;
        auto *at = static_cast<std::conditional_t<std::is_const_v<Void>, const char, char> *>(data);
        const snd_pcm_sframes_t moved =
            move(handle, at + size_t{done} * frame_bytes, frames - done);
        if (moved == -EPIPE && !restart)
            return underrun();
        if (moved == -EAGAIN && (pcm.flags & PCM_NONBLOCK) != 0)
            return done > 0 ? static_cast<int>(done) : -EAGAIN;
        if (moved == -EPIPE || moved == -EINTR || moved == -EAGAIN)
            continue; // prepared again above, and the rest retried
        if (moved == -ESTRPIPE) {
            if (snd_pcm_resume(handle) < 0)
                snd_pcm_prepare(handle);
            continue;
        }
        if (moved < 0)
            return pcm.fail("cannot read/write stream data", static_cast<int>(moved));
        done += static_cast<unsigned int>(moved);
    }
    return static_cast<int>(done);
}

// What pcm_write and pcm_read answer for `moved` of `frames` frames: 0 when all of them moved,
// -EIO when only some did.
int whole(int moved, unsigned int frames)
{
    if (moved < 0)
        return moved;
    return static_cast<unsigned int>(moved) == frames ? 0 : -EIO;
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
    // with EBUSY, and blocking again for the transfers unless PCM_NONBLOCK asks otherwise.
    if (int err = snd_pcm_open(&raw, name.c_str(), stream_of(flags), SND_PCM_NONBLOCK); err < 0)
        return bad_pcm("cannot open device", name, err);
    PcmPtr handle(raw);
    if ((flags & PCM_NONBLOCK) == 0) {
        if (int err = snd_pcm_nonblock(handle.get(), 0); err < 0)
            return bad_pcm("cannot open device", name, err);
    }

    auto *result = new pcm{std::move(handle), flags, *config, 0, {}};
    int err = set_hw_params(*result);
    if (err < 0) {
        delete result;
        return bad_pcm("cannot set hw params of device", name, err);
    }
    // The caller learns the period layout the device took, and nothing else.
    config->period_size = result->config.period_size;
    config->period_count = result->config.period_count;
    err = set_sw_params(*result);
    if (err < 0) {
        delete result;
        return bad_pcm("cannot set sw params of device", name, err);
    }
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

unsigned int pcm_format_to_bits(enum pcm_format format)
{
    switch (format) {
    case PCM_FORMAT_S32_LE:
    case PCM_FORMAT_S24_LE: // 24 bits in a 4-byte container
        return 32;
    case PCM_FORMAT_S24_3LE:
        return 24;
    case PCM_FORMAT_S16_LE:
        return 16;
    case PCM_FORMAT_S8:
        return 8;
    default:
        return 0;
    }
}

unsigned int pcm_get_buffer_size(struct pcm *pcm)
{
    return is_bad(pcm) ? 0 : pcm->buffer_size;
}

unsigned int pcm_frames_to_bytes(struct pcm *pcm, unsigned int frames)
{
    if (is_bad(pcm))
        return 0;
    return frames * pcm->config.channels * pcm_format_to_bits(pcm->config.format) / 8;
}

unsigned int pcm_bytes_to_frames(struct pcm *pcm, unsigned int bytes)
{
    const unsigned int frame_bytes = pcm_frames_to_bytes(pcm, 1);
    return frame_bytes == 0 ? 0 : bytes / frame_bytes;
}

int pcm_get_htimestamp(struct pcm *pcm, unsigned int *avail, struct timespec *tstamp)
{
    if (is_bad(pcm) || avail == nullptr || tstamp == nullptr)
        return -1;
    snd_pcm_status_t *raw = nullptr;
    if (snd_pcm_status_malloc(&raw) < 0)
        return -1;
    StatusPtr status(raw);
    if (snd_pcm_status(pcm->handle.get(), status.get()) < 0)
        return -1;
    // Only a stream that moves has a position worth a time.
    const snd_pcm_state_t state = snd_pcm_status_get_state(status.get());
    if (state != SND_PCM_STATE_RUNNING && state != SND_PCM_STATE_DRAINING)
        return -1;
    snd_htimestamp_t when{};
    snd_pcm_status_get_htstamp(status.get(), &when);
    if (when.tv_sec == 0 && when.tv_nsec == 0)
        return -1;
    *tstamp = when;
    *avail = static_cast<unsigned int>(snd_pcm_status_get_avail(status.get()));
    return 0;
}

int pcm_writei(struct pcm *pcm, const void *data, unsigned int frame_count)
{
    if (is_bad(pcm))
        return -EBADF;
    if ((pcm->flags & PCM_IN) != 0)
        return -EINVAL;
    return transfer<const void>(*pcm, data, frame_count,
                                (pcm->flags & PCM_MMAP) != 0 ? snd_pcm_mmap_writei
                                                             : snd_pcm_writei);
}

int pcm_readi(struct pcm *pcm, void *data, unsigned int frame_count)
{
    if (is_bad(pcm))
        return -EBADF;
    if ((pcm->flags & PCM_IN) == 0)
        return -EINVAL;
    return transfer<void>(*pcm, data, frame_count,
                          (pcm->flags & PCM_MMAP) != 0 ? snd_pcm_mmap_readi : snd_pcm_readi);
}

int pcm_write(struct pcm *pcm, const void *data, unsigned int count)
{
    const unsigned int frames = pcm_bytes_to_frames(pcm, count);
    return whole(pcm_writei(pcm, data, frames), frames);
}

int pcm_read(struct pcm *pcm, void *data, unsigned int count)
{
    const unsigned int frames = pcm_bytes_to_frames(pcm, count);
    return whole(pcm_readi(pcm, data, frames), frames);
}

int pcm_prepare(struct pcm *pcm)
{
    return is_bad(pcm) ? -EBADF : prepare(*pcm);
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
    return tinyalsa::kernel::new_params(space.get(), snd_pcm_hw_params_sizeof());
}

int pcm_params_format_test(struct pcm_params *params, enum pcm_format format)
{
    const pcm_mask *mask = pcm_params_get_mask(params, PCM_PARAM_FORMAT);
    return mask != nullptr && valid_format(format) &&
                   tinyalsa::kernel::mask_has(*mask, static_cast<unsigned int>(formats[format]))
               ? 1
               : 0;
}

} // extern "C"
