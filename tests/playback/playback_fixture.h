// A simulator folder with its phone folder, WAV files laid out chunk by chunk (so that malformed
// ones can be made), the players' printed output, and what the virtual sink recorded.
#pragma once

#include "support/capture.h"
#include "support/sim_fixture.h"
#include "tvoxsp/context.h"
#include "tvoxsp/playback.h"

#include "phone.h"
#include "state.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

namespace tvox::test
{

struct WavLayout {
    uint16_t channels = 2;
    uint32_t rate = 48000;
    uint16_t bits = 16;
    uint32_t frames = 480;
    uint32_t fmt_size = 16;                 // bytes beyond 16 are zero padding
    bool list_chunk = false;                // a "LIST" chunk between "fmt " and "data"
    bool data_chunk = true;                 // false: no "data" chunk at all
    std::optional<uint32_t> data_size = {}; // what the "data" header claims (default: the samples)
    std::string riff = "RIFF";
    std::string wave = "WAVE";

    uint32_t sample_bytes() const { return frames * channels * (bits / 8); }
};

// What a player returned and printed.
struct Played {
    int32_t result;
    std::string out;
    std::string err;
};

// Descriptors this process has open (to show that a call leaves none behind).
inline auto open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

inline constexpr const char *kBackend = "TDM-LPAIF-RX-SECONDARY";

class PlaybackTest : public SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        install_phone();
    }

    // Writes a WAV file into the simulator folder and returns its path. Every sample is half of
    // full scale, so the sink's peak is 0.5.
    std::string wav(const std::string &name, const WavLayout &layout)
    {
        const uint32_t width = layout.bits / 8;
        std::string body = layout.wave + "fmt " + le(layout.fmt_size, 4) + le(1, 2) +
                           le(layout.channels, 2) + le(layout.rate, 4) +
                           le(layout.rate * layout.channels * width, 4) +
                           le(layout.channels * width, 2) + le(layout.bits, 2);
        body.append(layout.fmt_size > 16 ? layout.fmt_size - 16 : 0, '\0');
        if (layout.list_chunk)
            body += "LIST" + le(10, 4) + "INFOISFTab";
        if (layout.data_chunk)
            body += "data" + le(layout.data_size.value_or(layout.sample_bytes()), 4);
        for (uint32_t i = 0; i < layout.frames * layout.channels; ++i)
            body += std::string(width - 1, '\0') + '\x40';

        const std::string path = sim_dir() + "/" + name;
        std::ofstream(path, std::ios::binary) << layout.riff << le(body.size(), 4) << body;
        return path;
    }

    // A context that plays `path` on the graph defaults (card 100, device 100) and `backend`.
    struct tervox &context(const std::string &path, const char *backend = kBackend)
    {
        path_ = path;
        ctx_ = {};
        ctx_.play_card = 100;
        ctx_.play_device = 100;
        ctx_.backend_name = backend;
        ctx_.silent_wav_path = path_.c_str();
        return ctx_;
    }

    template <typename Call> static Played play(Call call)
    {
        StreamCapture out(1);
        StreamCapture err(2);
        const int32_t result = call();
        return {result, out.text(), err.text()};
    }
    Played tplay(const std::string &path)
    {
        return play([&] { return tervox_tplay(&context(path)); });
    }
    Played agmplay(const std::string &path, const char *backend = kBackend)
    {
        return play([&] { return tervox_agmplay(&context(path, backend)); });
    }

    std::optional<tvox::sim::PcmRecord> stream(int card, int device)
    {
        tvox::sim::Session session = state().lock();
        const tvox::sim::PcmRecord *record = session.stream(card, device, false);
        return record ? std::optional(*record) : std::nullopt;
    }

    // Waits up to 3 s for process `pid` to run a stream on (card, device).
    bool wait_until_running(int card, int device, pid_t pid)
    {
        for (int i = 0; i < 300; ++i) {
            const auto record = stream(card, device);
            if (record && record->running && record->pid == static_cast<uint32_t>(pid))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

  private:
    static std::string le(uint64_t value, int bytes)
    {
        std::string out;
        for (int i = 0; i < bytes; ++i)
            out.push_back(static_cast<char>(value >> (8 * i)));
        return out;
    }

    std::string path_;
    struct tervox ctx_ {
    };
};

} // namespace tvox::test
