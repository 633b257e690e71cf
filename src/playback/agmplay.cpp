// Graph playback: plays a WAV file through an AGM graph to the amplifiers' back-end interface
// (the calibration's silent stream). Every message goes to standard output; those without a
// trailing newline through puts.
#include "tvoxsp/playback.h"

#include "mixer/mixer_handle.h"
#include "playback/handles.h"
#include "playback/wav_header.h"
#include "util/interrupt.h"

#include <agmmixer.h>
#include <android/log.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace
{

// "/odm/etc/backend_conf.xml" as the AGM calls take it (a mutable string).
char kBackendConf[] = "/odm/etc/backend_conf.xml";

constexpr unsigned int kSpeakerDeviceKey = 0xA2000001;
constexpr uint32_t kStreamKey = 0xA100000E;
constexpr unsigned int kDevicePpKey = 0xAC000001;
constexpr int kMfcTag = 0xC0000019;
constexpr unsigned int kInstanceKey = 1;

// Set by stream_close and never cleared: after one SIGINT every later graph playback of the
// process stops after its first buffer.
std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the flag is written by a signal handler");

// stream_close's effect on the loop; async-signal-safe.
void stop_playback()
{
    g_stop.store(true);
}

// The stream's connection to its back end; dropped on every path that made it.
class Connection
{
  public:
    Connection(struct mixer *mixer, unsigned int device, char *intf)
        : mixer_(mixer), device_(device), intf_(intf)
    {
    }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    ~Connection() { disconnect(); }

    bool connect()
    {
        connected_ =
            connect_agm_audio_intf_to_stream(mixer_, device_, intf_, STREAM_PCM, true) == 0;
        return connected_;
    }
    void disconnect()
    {
        if (connected_)
            connect_agm_audio_intf_to_stream(mixer_, device_, intf_, STREAM_PCM, false);
        connected_ = false;
    }

  private:
    struct mixer *mixer_;
    unsigned int device_;
    char *intf_;
    bool connected_ = false;
};

// Steps after the file is open and its header read. The graph is built in order; the first
// failing step ends the sequence (the failure is printed, the caller still reports 0).
void play_through_graph(const struct tervox &ctx, std::FILE *file, const tvox::WavFormat &wav)
{
    const auto group_config = tvox::allocate_zeroed<struct group_config>();
    if (!group_config) {
        std::puts("Failed to allocate memory for group config");
        return;
    }
    const auto device_config = tvox::allocate_zeroed<struct device_config>();
    if (!device_config) {
        std::puts("Failed to allocate memory for dev config");
        return;
    }
    struct pcm_config config =
        tvox::wav_pcm_config(wav.channels, wav.sample_rate, wav.bits_per_sample, tvox::kPeriodSize,
                             tvox::kPeriodCount, PCM_FORMAT_S24_LE);

    const tvox::MixerHandle mixer = tvox::open_mixer(ctx.play_card);
    if (!mixer) {
        std::puts("Failed to open mixer");
        return;
    }
    // The AGM prototypes take the interface name as char * but only read it; the context's own
    // text goes to them, so no copy can fail.
    char *intf = const_cast<char *>(ctx.backend_name);
    const unsigned int device = ctx.play_device;

    if (get_device_media_config(kBackendConf, intf, device_config.get()) != 0) {
        std::printf("Invalid input, entry not found for : %s\n", intf);
        return;
    }
    const struct device_config &media = *device_config;
    std::printf("Backend %s rate ch bit : %d, %d, %d\n", intf, static_cast<int>(media.rate),
                static_cast<int>(media.ch), static_cast<int>(media.bits));

    if (set_agm_device_media_config(mixer.get(), intf, device_config.get()) != 0) {
        std::puts("Failed to set device media config");
        return;
    }
    if (set_agm_audio_intf_metadata(mixer.get(), intf, kSpeakerDeviceKey, PLAYBACK,
                                    static_cast<int>(media.rate), static_cast<int>(media.bits),
                                    kStreamKey) != 0) {
        std::puts("Failed to set device metadata");
        return;
    }
    if (set_agm_stream_metadata(mixer.get(), static_cast<int>(device), kStreamKey, PLAYBACK,
                                STREAM_PCM, kInstanceKey) != 0 ||
        set_agm_streamdevice_metadata(mixer.get(), static_cast<int>(device), kStreamKey, PLAYBACK,
                                      STREAM_PCM, intf, kDevicePpKey) != 0) {
        std::puts("Failed to set pcm metadata");
        return;
    }
    Connection connection(mixer.get(), device, intf);
    if (!connection.connect()) {
        std::puts("Failed to connect pcm to audio interface");
        return;
    }
    uint32_t miid = 0;
    if (agm_mixer_get_miid(mixer.get(), static_cast<int>(device), intf, STREAM_PCM, kMfcTag,
                           &miid) == 0) {
        if (configure_mfc(mixer.get(), static_cast<int>(device), intf, kMfcTag, STREAM_PCM,
                          media.rate, media.ch, media.bits, miid) != 0) {
            std::puts("Failed to configure pspd mfc");
            return;
        }
    } else {
        std::puts("MFC not present for this graph");
    }
    if (std::strstr(intf, "VIRT-")) {
        if (get_group_device_info(kBackendConf, intf, group_config.get()) != 0)
            return;
        if (set_agm_group_device_config(mixer.get(), intf, group_config.get()) != 0) {
            std::puts("Failed to set grp device config");
            return;
        }
    }

    const tvox::PcmHandle pcm = tvox::open_playback_pcm(ctx.play_card, device, config, stdout);
    if (!pcm)
        return;
    // Made for every back end; only a group back end has a filled group configuration.
    if (set_agm_group_mux_config(mixer.get(), device, group_config.get(), intf, media.ch) != 0)
        std::puts("Failed to set grp device config");

    const tvox::PcmBuffer buffer = tvox::allocate_pcm_buffer(pcm.get(), stdout);
    if (!buffer.data)
        return;
    __android_log_print(ANDROID_LOG_DEBUG, nullptr, "Playing sample: %u ch, %u hz, %u bit\n",
                        wav.channels, wav.sample_rate, wav.bits_per_sample);
    if (pcm_start(pcm.get()) < 0) {
        std::puts("start error");
        return;
    }

    const tvox::interrupt::Running playing(tvox::interrupt::Loop::playback, stop_playback);
    std::signal(SIGINT, stream_close);
    // The whole rest of the file plays, whatever the data chunk's size says.
    for (;;) {
        const std::size_t got = std::fread(buffer.data.get(), 1, buffer.size, file);
        if (got < 1)
            break;
        if (pcm_write(pcm.get(), buffer.data.get(), static_cast<unsigned int>(got)) != 0) {
            std::puts("Error playing sample");
            break;
        }
        if (g_stop.load())
            break;
    }
    pcm_stop(pcm.get());
    connection.disconnect();
}

} // namespace

extern "C" {

void stream_close(int32_t sig)
{
    const tvox::interrupt::SavedErrno saved;
    std::signal(sig, SIG_IGN);
    stop_playback();
    tvox::interrupt::stop_others(tvox::interrupt::Loop::playback);
}

int32_t tervox_agmplay(struct tervox *ctx)
{
    const char *path = ctx ? ctx->silent_wav_path : nullptr;
    const tvox::FileHandle file = tvox::open_for_reading(path);
    if (!file) {
        std::printf("Unable to open file '%s'\n", tvox::printable(path));
        return 1;
    }
    const auto header = tvox::read_wav_header(file.get());
    if (!header) {
        std::printf("Error: '%s' is not a riff/wave file\n", path);
        return 1;
    }
    if (!ctx->backend_name)
        return 1;
    play_through_graph(*ctx, file.get(), header->format);
    return 0;
}

} // extern "C"
