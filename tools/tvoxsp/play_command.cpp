// tvoxsp play: the library's WAV player, its graph playback and the engineering loop file.
#include "command.h"

#include <array>
#include <cstdio>
#include <string_view>

namespace tvoxsp
{

namespace
{

int play(Args args)
{
    const bool graph = !args.empty() && std::string_view(args[0]) == "--graph";
    const Args files = args.subspan(graph ? 1 : 0);
    if (files.size() > 1)
        return kUsage;
    Session session;
    struct tervox &ctx = session.context();
    if (!files.empty())
        ctx.silent_wav_path = files[0];
    if (graph) {
        // Graph playback stops at Ctrl-C by itself.
        if (tervox_agmplay(&ctx) == 0)
            return 0;
        std::fprintf(stderr, "tvoxsp: %s was not played through the graph of %s\n",
                     ctx.silent_wav_path, ctx.backend_name ? ctx.backend_name : "no back-end");
        return kFailed;
    }
    if (files.empty()) {
        const int32_t result = tervox_tplay_test();
        if (result == 0)
            return 0;
        std::fprintf(stderr, "tvoxsp: %s\n",
                     result == kNoMixer ? "card 0's mixer does not open"
                                        : "the loop file was not played");
        return kFailed;
    }
    if (tervox_tplay(&ctx) == 0)
        return 0;
    std::fprintf(stderr, "tvoxsp: %s was not played\n", ctx.silent_wav_path);
    return kFailed;
}

constexpr std::array kPlayCommands = {
    Command{"play", "[--graph] [FILE]",
            "play a WAV file on card 0 (no FILE: route both amplifiers and play "
            "/sdcard/Music/lrp_loop.wav); --graph: through the calibration's audio graph on "
            "card 100 (no FILE: the silent file), until its end or Ctrl-C",
            play},
};

} // namespace

std::span<const Command> play_commands()
{
    return kPlayCommands;
}

} // namespace tvoxsp
