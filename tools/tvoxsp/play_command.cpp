// tvoxsp play: the library's WAV player, its graph playback and the engineering loop file.
#include "arguments.h"
#include "command.h"
#include "output.h"
#include "stream_tap.h"

#include <tinyalsa/asoundlib.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp
{

namespace
{

// The WAV player does not say why its device did not open: asks tinyalsa the same way.
std::string why_pcm_is_closed(unsigned int card, unsigned int device)
{
    struct pcm_config config = {};
    config.channels = 2;
    config.rate = 48000;
    config.period_size = 1024;
    config.period_count = 4;
    config.format = PCM_FORMAT_S16_LE;
    struct pcm *pcm = pcm_open(card, device, PCM_OUT, &config);
    const std::string why = pcm != nullptr && !pcm_is_ready(pcm) ? pcm_get_error(pcm) : "";
    if (pcm != nullptr)
        pcm_close(pcm);
    return why.empty() ? "" : " (" + why + ")";
}

int play(Args args)
{
    std::vector<char *> files(args.begin(), args.end());
    const bool graph = take_flag(files, "--graph");
    if (files.size() > 1)
        return kUsage;
    Session session;
    struct tervox &ctx = session.context();
    if (!files.empty())
        ctx.silent_wav_path = files[0];
    int32_t result = 0;
    std::string printed;
    {
        StreamTap out(1);
        StreamTap errors(2);
        // Graph playback stops at Ctrl-C by itself.
        result = graph           ? tervox_agmplay(&ctx)
                 : files.empty() ? tervox_tplay_test()
                                 : tervox_tplay(&ctx);
        printed = out.text() + errors.text();
    }
    if (!graph && files.empty() && result == kNoMixer)
        return fail(kNoDevice, "card 0's mixer does not open");
    std::optional<std::string> step = player_failure(printed);
    if (step && step->starts_with("Unable to open PCM device"))
        *step += why_pcm_is_closed(graph ? ctx.play_card : 0, graph ? ctx.play_device : 0);
    // The WAV player names the format it plays; it says nothing when it plays nothing.
    const bool played = graph || printed.find("Playing sample:") != std::string::npos;
    tvoxsp::result()["file"] = ctx.silent_wav_path ? ctx.silent_wav_path : "";
    tvoxsp::result()["card"] = graph ? ctx.play_card : 0;
    tvoxsp::result()["device"] = graph ? ctx.play_device : 0;
    if (result == 0 && !step && played)
        return 0;
    const bool busy = step && step->find("busy") != std::string::npos;
    return fail(busy ? kBusy : kFailed,
                text_of("%s was not played%s%s%s%s", ctx.silent_wav_path,
                        graph ? " through the graph of " : "",
                        graph ? (ctx.backend_name ? ctx.backend_name : "no back-end") : "",
                        step ? ": " : "", step ? step->c_str() : ""));
}

constexpr std::array kPlayCommands = {
    Command{"play", "[--graph] [FILE]",
            "play a WAV file on card 0 (no FILE: route both amplifiers and play "
            "/sdcard/Music/lrp_loop.wav); --graph: through the calibration's audio graph on "
            "card 100 (no FILE: the silent file), until its end or Ctrl-C",
            play, "--graph  through the calibration's audio graph on card 100",
            "tvoxsp play /sdcard/Music/lrp_loop.wav"},
};

} // namespace

std::span<const Command> play_commands()
{
    return kPlayCommands;
}

} // namespace tvoxsp
