#include "phone.h"

#include "agm_graph.h"
#include "backend_conf_xml.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <memory>
#include <numbers>

namespace tvox::sim
{

namespace
{

constexpr uint32_t kRate = 48000;
constexpr uint16_t kChannels = 2;
constexpr uint16_t kBits = 16;
constexpr uint32_t kFrameBytes = kChannels * kBits / 8;

void append_le(std::string &out, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.push_back(static_cast<char>(value >> (8 * i)));
}

// A canonical 16-bit stereo WAV file of `frames` frames with the samples `sample(frame, ch)`.
template <typename Sample> std::string wav_file(uint32_t frames, Sample sample)
{
    const uint32_t data_bytes = frames * kFrameBytes;
    std::string out = "RIFF";
    append_le(out, 36 + data_bytes, 4);
    out += "WAVEfmt ";
    append_le(out, 16, 4);
    append_le(out, 1, 2); // PCM
    append_le(out, kChannels, 2);
    append_le(out, kRate, 4);
    append_le(out, kRate * kFrameBytes, 4);
    append_le(out, kFrameBytes, 2);
    append_le(out, kBits, 2);
    out += "data";
    append_le(out, data_bytes, 4);
    out.reserve(out.size() + data_bytes);
    for (uint32_t frame = 0; frame < frames; ++frame)
        for (uint16_t ch = 0; ch < kChannels; ++ch)
            append_le(out, static_cast<uint16_t>(sample(frame, ch)), 2);
    return out;
}

int write_file(const std::string &path, const std::string &content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    return file ? 0 : -EIO;
}

} // namespace

std::string silent_wav()
{
    return wav_file(3 * kRate, [](uint32_t, uint16_t) { return int16_t{0}; });
}

// A 1 kHz tone at half scale, on the left channel for the first half and the right one after.
std::string lrp_loop_wav()
{
    constexpr uint32_t frames = kRate / 2;
    return wav_file(frames, [](uint32_t frame, uint16_t ch) {
        if ((frame < frames / 2) != (ch == 0))
            return int16_t{0};
        const double phase = 2 * std::numbers::pi * 1000.0 * frame / kRate;
        return static_cast<int16_t>(std::lround(16384 * std::sin(phase)));
    });
}

// A 1 kHz tone at 80 % of full scale for 1 s on both channels.
std::string loud_wav()
{
    return wav_file(kRate, [](uint32_t frame, uint16_t) {
        const double phase = 2 * std::numbers::pi * 1000.0 * frame / kRate;
        return static_cast<int16_t>(std::lround(0.8 * 32767 * std::sin(phase)));
    });
}

int install_phone(const std::string &dir)
{
    const std::string phone = dir + "/phone";
    for (const char *folder :
         {"/odm/etc/audio", "/sdcard/Music", "/sdcard/Download", "/mnt/vendor/persist/audio"}) {
        if (const int err = State::make_dir(phone + folder); err != 0)
            return err;
    }
    if (int err = write_file(phone + "/odm/etc/backend_conf.xml", kBackendConfXml); err != 0)
        return err;
    if (int err = write_file(phone + "/odm/etc/audio/silent-3sec.wav", silent_wav()); err != 0)
        return err;
    if (int err = write_file(phone + "/sdcard/Music/lrp_loop.wav", lrp_loop_wav()); err != 0)
        return err;
    if (int err = write_file(phone + "/sdcard/Music/loud.wav", loud_wav()); err != 0)
        return err;
    int err = 0;
    const std::unique_ptr<State> state = State::open(dir, err);
    if (!state)
        return err;
    Session session = state->lock();
    return agm::set_no_mfc(session, kNoMfcBackend, true) ? 0 : -ENOSPC;
}

} // namespace tvox::sim
