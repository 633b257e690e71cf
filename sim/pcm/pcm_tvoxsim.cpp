// The virtual amplifier pair's playback sink: an ALSA ioplug PCM (type "tvoxsim", arguments
// card and device) that consumes frames in real time, like a DMA engine at the stream's rate, and
// records in the shared state when each stream runs, its format, how many frames it received
// and its peak level. Card 0 is the amplifier pair, card 100 the AGM front ends; a card-100
// stream runs only while its front end is connected to a back end, as an AGM graph needs one.
//
// Loaded into any ALSA program (aplay too), so it is built without sanitizers.
#include "model.h"
#include "state.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <poll.h>
#include <signal.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace
{

using tvox::sim::PcmRecord;
using tvox::sim::Session;
using tvox::sim::State;
using tvox::sim::StreamEvent;

constexpr long kAmpCard = 0;
constexpr long kAgmCard = 100;

constexpr unsigned int kAccess[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
constexpr unsigned int kFormats[] = {SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S24_LE,
                                     SND_PCM_FORMAT_S24_3LE, SND_PCM_FORMAT_S32_LE};
constexpr unsigned int kMinChannels = 1, kMaxChannels = 8;
constexpr unsigned int kMinRate = 8000, kMaxRate = 192000;
constexpr unsigned int kMinPeriodBytes = 64, kMaxPeriodBytes = 1 << 20;
constexpr unsigned int kMinPeriods = 2, kMaxPeriods = 64;
constexpr unsigned int kMaxBufferBytes = 4 << 20;

constexpr int64_t kNsPerSecond = 1000000000;

struct Sink {
    snd_pcm_ioplug_t io{};
    int card = 0;
    int device = 0;
    std::unique_ptr<State> state;
    int timer = -1;

    snd_pcm_uframes_t boundary = 0;
    snd_pcm_uframes_t stop_threshold = 0;
    snd_pcm_uframes_t avail_min = 1;

    // Frames consumed since prepare, and the clock of the current run.
    uint64_t position = 0;
    uint64_t run_base = 0;
    int64_t run_start_ns = 0;
    bool running = false;

    ~Sink()
    {
        if (timer >= 0)
            close(timer);
    }
};

Sink *sink_of(snd_pcm_ioplug_t *io)
{
    return static_cast<Sink *>(io->private_data);
}

// Updates the stream's record under the state lock and tells the model. The record is made when
// the stream is configured (`open`), so asking a device for its limits leaves no record; nothing
// happens when the state has no room for another one.
template <typename F> void update_record(Sink &sink, StreamEvent event, F &&update)
{
    Session session = sink.state->lock();
    if (PcmRecord *record = session.stream(sink.card, sink.device, event == StreamEvent::open)) {
        update(*record);
        tvox::sim::model().on_stream(session, *record, event);
    }
}

void mark_stopped(Sink &sink)
{
    if (!sink.running)
        return;
    sink.running = false;
    update_record(sink, StreamEvent::stop, [](PcmRecord &record) {
        record.running = 0;
        record.stop_time_ns = tvox::sim::now_ns();
    });
}

// Frames written by the application and not consumed yet.
uint64_t pending(const Sink &sink)
{
    const snd_pcm_uframes_t reported = sink.position % sink.boundary;
    return (sink.io.appl_ptr + sink.boundary - reported) % sink.boundary;
}

// Where the consumer would be now; never past what was written. Like a DMA engine that reports
// its position at period interrupts, it moves a whole period at a time, so a stream started
// before its first write has one period to get data in before it underruns.
uint64_t position_now(const Sink &sink, bool &underrun)
{
    underrun = false;
    if (!sink.running)
        return sink.position;
    const int64_t elapsed = tvox::sim::now_ns() - sink.run_start_ns;
    const uint64_t frames = static_cast<uint64_t>(elapsed) * sink.io.rate / kNsPerSecond;
    const uint64_t due = sink.run_base + frames - frames % sink.io.period_size;
    const uint64_t written = sink.position + pending(sink);
    if (due < written)
        return std::max(due, sink.position);
    underrun = due > written;
    return written;
}

int arm_timer(Sink &sink, bool on)
{
    itimerspec spec{};
    if (on) {
        const int64_t period_ns = std::max<int64_t>(1, static_cast<int64_t>(sink.io.period_size) *
                                                           kNsPerSecond / sink.io.rate);
        spec.it_interval = {static_cast<time_t>(period_ns / kNsPerSecond),
                            static_cast<long>(period_ns % kNsPerSecond)};
        spec.it_value = spec.it_interval;
    }
    return timerfd_settime(sink.timer, 0, &spec, nullptr) == 0 ? 0 : -errno;
}

int sink_start(snd_pcm_ioplug_t *io)
{
    Sink &sink = *sink_of(io);
    sink.running = true;
    sink.run_base = sink.position;
    sink.run_start_ns = tvox::sim::now_ns();
    update_record(sink, StreamEvent::start, [&](PcmRecord &record) {
        record.running = 1;
        record.starts++;
        record.start_time_ns = sink.run_start_ns;
        record.stop_time_ns = 0;
    });
    return 0;
}

int sink_stop(snd_pcm_ioplug_t *io)
{
    mark_stopped(*sink_of(io));
    return 0;
}

// An underrun is not followed by stop: the running flag is cleared here.
snd_pcm_sframes_t sink_pointer(snd_pcm_ioplug_t *io)
{
    Sink &sink = *sink_of(io);
    bool underrun = false;
    sink.position = position_now(sink, underrun);
    if (underrun && io->state == SND_PCM_STATE_RUNNING && sink.stop_threshold <= io->buffer_size) {
        mark_stopped(sink);
        return -EPIPE;
    }
    return static_cast<snd_pcm_sframes_t>(sink.position % sink.boundary);
}

// Largest absolute sample of the frames, as a fraction of full scale.
double peak_of(const snd_pcm_channel_area_t *areas, snd_pcm_uframes_t offset,
               snd_pcm_uframes_t size, unsigned int channels, snd_pcm_format_t format)
{
    double peak = 0;
    for (unsigned int ch = 0; ch < channels; ++ch) {
        const snd_pcm_channel_area_t &area = areas[ch];
        for (snd_pcm_uframes_t frame = offset; frame < offset + size; ++frame) {
            const auto *p =
                static_cast<const uint8_t *>(area.addr) + (area.first + area.step * frame) / 8;
            double value = 0;
            switch (format) {
            case SND_PCM_FORMAT_S16_LE:
                value = static_cast<int16_t>(p[0] | p[1] << 8) / 32768.0;
                break;
            case SND_PCM_FORMAT_S24_LE:
            case SND_PCM_FORMAT_S24_3LE: {
                const uint32_t raw = p[0] | p[1] << 8 | static_cast<uint32_t>(p[2]) << 16;
                value = static_cast<int32_t>(raw << 8) / 2147483648.0;
                break;
            }
            default:
                value = static_cast<int32_t>(p[0] | p[1] << 8 | p[2] << 16 |
                                             static_cast<uint32_t>(p[3]) << 24) /
                        2147483648.0;
                break;
            }
            peak = std::max(peak, std::fabs(value));
        }
    }
    return peak;
}

snd_pcm_sframes_t sink_transfer(snd_pcm_ioplug_t *io, const snd_pcm_channel_area_t *areas,
                                snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    Sink &sink = *sink_of(io);
    const double peak = peak_of(areas, offset, size, io->channels, io->format);
    update_record(sink, StreamEvent::write, [&](PcmRecord &record) {
        record.frames_written += size;
        record.peak = std::max(record.peak, peak);
    });
    return static_cast<snd_pcm_sframes_t>(size);
}

int sink_hw_params(snd_pcm_ioplug_t *io, snd_pcm_hw_params_t *)
{
    Sink &sink = *sink_of(io);
    if (sink.boundary == 0) // until sw_params tells the real one
        sink.boundary = io->buffer_size;
    update_record(sink, StreamEvent::open, [&](PcmRecord &record) {
        record.format = io->format;
        record.rate = io->rate;
        record.channels = io->channels;
        record.pid = static_cast<uint32_t>(getpid());
        record.frames_written = 0;
        record.peak = 0;
    });
    return 0;
}

int sink_sw_params(snd_pcm_ioplug_t *io, snd_pcm_sw_params_t *params)
{
    Sink &sink = *sink_of(io);
    snd_pcm_sw_params_get_boundary(params, &sink.boundary);
    snd_pcm_sw_params_get_stop_threshold(params, &sink.stop_threshold);
    snd_pcm_sw_params_get_avail_min(params, &sink.avail_min);
    return 0;
}

int sink_prepare(snd_pcm_ioplug_t *io)
{
    Sink &sink = *sink_of(io);
    mark_stopped(sink);
    if (sink.card == kAgmCard) {
        Session session = sink.state->lock();
        if (session.connected(sink.device).empty())
            return -ENODEV;
    }
    sink.position = 0;
    return arm_timer(sink, true);
}

int sink_hw_free(snd_pcm_ioplug_t *io)
{
    Sink &sink = *sink_of(io);
    mark_stopped(sink);
    return arm_timer(sink, false);
}

int sink_close(snd_pcm_ioplug_t *io)
{
    Sink *sink = sink_of(io);
    mark_stopped(*sink);
    update_record(*sink, StreamEvent::close, [](PcmRecord &) {});
    delete sink;
    return 0;
}

// Each timer tick stands for one period consumed; the descriptor reports writable once
// avail_min frames are free again (always while not running, so nobody waits forever).
int sink_poll_revents(snd_pcm_ioplug_t *io, struct pollfd *, unsigned int, unsigned short *revents)
{
    Sink &sink = *sink_of(io);
    uint64_t ticks = 0;
    if (read(sink.timer, &ticks, sizeof ticks) < 0 && errno != EAGAIN)
        return -errno;
    bool underrun = false;
    const uint64_t position = position_now(sink, underrun);
    const uint64_t queued = sink.position + pending(sink) - position;
    const uint64_t avail = io->buffer_size > queued ? io->buffer_size - queued : 0;
    *revents = !sink.running || underrun || avail >= sink.avail_min ? POLLOUT : 0;
    return 0;
}

const snd_pcm_ioplug_callback_t kCallbacks = [] {
    snd_pcm_ioplug_callback_t callbacks{};
    callbacks.start = sink_start;
    callbacks.stop = sink_stop;
    callbacks.pointer = sink_pointer;
    callbacks.transfer = sink_transfer;
    callbacks.close = sink_close;
    callbacks.hw_params = sink_hw_params;
    callbacks.hw_free = sink_hw_free;
    callbacks.sw_params = sink_sw_params;
    callbacks.prepare = sink_prepare;
    callbacks.poll_revents = sink_poll_revents;
    return callbacks;
}();

int set_constraints(snd_pcm_ioplug_t *io)
{
    int err =
        snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, std::size(kAccess), kAccess);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, std::size(kFormats),
                                            kFormats);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, kMinChannels,
                                              kMaxChannels);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, kMinRate, kMaxRate);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, kMinPeriodBytes,
                                              kMaxPeriodBytes);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, kMinPeriods,
                                              kMaxPeriods);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_BUFFER_BYTES,
                                              kMinPeriodBytes * kMinPeriods, kMaxBufferBytes);
    return err;
}

// An integer field given as a number or as text.
int config_integer(snd_config_t *node, long &value)
{
    if (snd_config_get_integer(node, &value) == 0)
        return 0;
    const char *text = nullptr;
    if (snd_config_get_string(node, &text) < 0 || !text || !*text)
        return -EINVAL;
    char *end = nullptr;
    value = std::strtol(text, &end, 10);
    return *end ? -EINVAL : 0;
}

// A device plays one stream at a time, as hardware does. The record of a process that ended
// while playing does not hold the device.
bool device_busy(State &state, int card, int device)
{
    Session session = state.lock();
    const PcmRecord *record = session.stream(card, device, false);
    if (record == nullptr || record->running == 0 || record->pid == 0)
        return false;
    return kill(static_cast<pid_t>(record->pid), 0) == 0 || errno == EPERM;
}

int open_sink(snd_pcm_t **pcmp, const char *name, long card, long device, snd_pcm_stream_t stream,
              int mode)
{
    if (stream != SND_PCM_STREAM_PLAYBACK)
        return -ENOTSUP;
    if (card != kAmpCard && card != kAgmCard)
        return -ENODEV;
    if (device < 0 || device > 255)
        return -ENODEV;

    auto sink = std::make_unique<Sink>();
    sink->card = static_cast<int>(card);
    sink->device = static_cast<int>(device);
    int err = 0;
    const std::string dir = State::dir_from_env();
    sink->state = State::open(dir, err);
    if (!sink->state) {
        State::report_open_error(dir, err);
        return err;
    }
    if (device_busy(*sink->state, sink->card, sink->device))
        return -EBUSY;
    sink->timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (sink->timer < 0)
        return -errno;

    snd_pcm_ioplug_t &io = sink->io;
    io.version = SND_PCM_IOPLUG_VERSION;
    io.name = "Virtual amplifier playback sink";
    io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA | SND_PCM_IOPLUG_FLAG_MONOTONIC;
    io.poll_fd = sink->timer;
    io.poll_events = POLLIN;
    io.mmap_rw = 0;
    io.callback = &kCallbacks;
    io.private_data = sink.get();

    err = snd_pcm_ioplug_create(&io, name, stream, mode);
    if (err < 0)
        return err;
    err = set_constraints(&io);
    if (err < 0) {
        snd_pcm_ioplug_delete(&io); // closes through sink_close, which frees the sink
        sink.release();
        return err;
    }
    *pcmp = io.pcm;
    sink.release();
    return 0;
}

} // namespace

extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(tvoxsim)
{
    (void)root;
    long card = 0;
    long device = 0;
    snd_config_iterator_t i, next;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t *node = snd_config_iterator_entry(i);
        const char *id = nullptr;
        if (snd_config_get_id(node, &id) < 0)
            continue;
        if (!std::strcmp(id, "comment") || !std::strcmp(id, "type") || !std::strcmp(id, "hint"))
            continue;
        if (!std::strcmp(id, "card") || !std::strcmp(id, "device")) {
            if (config_integer(node, !std::strcmp(id, "card") ? card : device) < 0) {
                SNDERR("Invalid %s for tvoxsim", id);
                return -EINVAL;
            }
            continue;
        }
        SNDERR("Unknown field %s", id);
        return -EINVAL;
    }
    return open_sink(pcmp, name, card, device, stream, mode);
}

SND_PCM_PLUGIN_SYMBOL(tvoxsim);

} // extern "C"
