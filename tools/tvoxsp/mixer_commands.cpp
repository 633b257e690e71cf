// tvoxsp get, set, mixer-test and path: the library's control setter and readers on card 0, and
// its named mixer paths.
#include "arguments.h"
#include "command.h"
#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp
{

namespace
{

// The setter takes at most this many tokens; more would end the process.
constexpr size_t kMaxValueTokens = 1024;

tvox::MixerHandle open_card0()
{
    tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer)
        fail(kNoDevice, "card 0's mixer does not open: run it on the device or inside tvoxsim");
    return mixer;
}

// The control as the library finds it: a wholly numeric identifier in any base names a control,
// whose number the library then reads the plain decimal way ("022" is control 22).
struct mixer_ctl *lookup_control(struct mixer *mixer, const char *identifier)
{
    char *end = nullptr;
    std::strtol(identifier, &end, 0);
    return *identifier != '\0' && *end == '\0'
               ? mixer_get_ctl(mixer, static_cast<unsigned int>(std::atoi(identifier)))
               : mixer_get_ctl_by_name(mixer, identifier);
}

int get(Args args)
{
    const bool dsp = !args.empty() && std::string_view(args[0]) == "--dsp";
    if (args.size() != (dsp ? 2u : 1u))
        return kUsage;
    const char *name = args.back();
    const tvox::MixerHandle mixer = open_card0();
    if (!mixer)
        return kNoDevice;
    struct mixer_ctl *ctl = lookup_control(mixer.get(), name);
    if (ctl == nullptr) {
        std::fprintf(stderr, "tvoxsp: card 0 has no control '%s'\n", name);
        return kFailed;
    }
    const enum mixer_ctl_type type = mixer_ctl_get_type(ctl);
    const unsigned int count = mixer_ctl_get_num_values(ctl);
    if (dsp) {
        if (type != MIXER_CTL_TYPE_BYTE || count != 4) {
            std::fprintf(stderr, "tvoxsp: '%s' is not a 4-byte DSP parameter\n", name);
            return kFailed;
        }
        std::printf("%s = %d\n", name, static_cast<int>(tervox_dsp_tmixer_get(mixer.get(), name)));
        return 0;
    }
    // The reader fills one word per value, or one byte per byte; it prints an enum's item.
    std::vector<int32_t> out(count + 1u, 0);
    const bool enumerated = type == MIXER_CTL_TYPE_ENUM;
    if (enumerated)
        std::printf("%s = ", name);
    if (tervox_tmixer_get(mixer.get(), name, out.data()) == 0 && count != 0) {
        std::fprintf(stderr, "%stvoxsp: '%s' cannot be read\n", enumerated ? "\n" : "", name);
        return kFailed;
    }
    if (enumerated) {
        std::printf(" (item %d)\n", static_cast<int>(out[0]));
    } else if (type == MIXER_CTL_TYPE_BYTE) {
        std::printf("%s =", name);
        const auto *bytes = reinterpret_cast<const uint8_t *>(out.data());
        for (unsigned int i = 0; i < count; ++i)
            std::printf(" 0x%02x", bytes[i]);
        std::printf("\n");
    } else {
        std::printf("%s = %d%s\n", name, static_cast<int>(out[0]),
                    count > 1 ? " (the first value)" : "");
    }
    return 0;
}

// The value words as one value text. The setter reads the numbers of a byte control in any
// base but those of other controls in decimal only, so their hex and octal numbers are written
// out in decimal here.
std::string value_text(Args words, bool decimal_only)
{
    std::string text;
    for (const char *word : words) {
        std::string_view rest = word;
        for (size_t end = 0; !rest.empty(); rest.remove_prefix(std::min(end + 1, rest.size()))) {
            end = std::min(rest.find_first_of(" ,"), rest.size());
            const std::string token(rest.substr(0, end));
            if (token.empty())
                continue;
            errno = 0;
            char *stop = nullptr;
            const long long number = std::strtoll(token.c_str(), &stop, 0);
            const bool numeric = *stop == '\0' && errno == 0;
            text += (text.empty() ? "" : " ") +
                    (decimal_only && numeric ? std::to_string(number) : token);
        }
    }
    return text;
}

size_t token_count(const std::string &text)
{
    return text.empty() ? 0 : static_cast<size_t>(std::count(text.begin(), text.end(), ' ')) + 1;
}

int set(Args args)
{
    if (args.size() < 2)
        return kUsage;
    const char *name = args[0];
    const tvox::MixerHandle mixer = open_card0();
    if (!mixer)
        return kNoDevice;
    struct mixer_ctl *ctl = lookup_control(mixer.get(), name);
    const std::string value = value_text(
        args.subspan(1), ctl != nullptr && mixer_ctl_get_type(ctl) != MIXER_CTL_TYPE_BYTE);
    if (token_count(value) == 0) {
        std::fprintf(stderr, "tvoxsp: no value for '%s'\n", name);
        return kUsage;
    }
    if (token_count(value) > kMaxValueTokens) {
        std::fprintf(stderr, "tvoxsp: %zu values for '%s': at most %zu are taken\n",
                     token_count(value), name, kMaxValueTokens);
        return kUsage;
    }
    const int32_t result = tervox_tmixer_set(mixer.get(), name, value.c_str());
    if (result == 0)
        return 0;
    std::fprintf(stderr, "tvoxsp: setting '%s' to '%s' failed (code %d)\n", name, value.c_str(),
                 static_cast<int>(result));
    return kFailed;
}

int mixer_test(Args args)
{
    if (!args.empty())
        return kUsage;
    if (tervox_tmixer_test() == 0)
        return 0;
    return fail(kNoDevice, "card 0's mixer does not open");
}

// The library's named paths, applied whole through the exported path applier, as the library's
// own operations apply them.
struct NamedPath {
    std::string_view name;
    std::span<const tvox::PathEntry> steps;
    std::string_view effect;
};

constexpr std::array kPaths = {
    NamedPath{"spk_playback", tvox::spk_playback_path,
              "speaker routing of the playback test (tervox_tplay_test)"},
    NamedPath{"rcv_playback", tvox::rcv_playback_path,
              "receiver routing of the playback test (tervox_tplay_test)"},
    NamedPath{"amp_off", tvox::amp_off_path,
              "both amplifiers' PCM source Zero and switched off (tervox_calib_exit)"},
    NamedPath{"amp_on_dsp", tvox::amp_on_dsp_path,
              "both amplifiers fed from the DSP and switched on (calibration start)"},
    NamedPath{"cal_mode", tvox::cal_mode_path,
              "both DSPs in calibration mode at 30 degrees ambient (calibration)"},
    NamedPath{"run_mode", tvox::run_mode_path,
              "both DSPs back in protection mode (after a calibration)"},
    NamedPath{"dsp_source", tvox::dsp_source_path,
              "both amplifiers fed from the DSP (tervox_dsp_bypass off)"},
    NamedPath{"dsp_bypass", tvox::dsp_bypass_path,
              "both amplifiers fed from the audio port (tervox_dsp_bypass on)"},
    NamedPath{"reload_off", tvox::reload_off_path,
              "both amplifiers muted and switched off for a firmware reload "
              "(tervox_reload_firmware)"},
    NamedPath{"boot_firmware", tvox::boot_firmware_path,
              "the protection firmware selected, preloaded and booted on both DSPs "
              "(tervox_boot_loader)"},
    NamedPath{"rtlog_setup", tvox::rtlog_setup_path,
              "the live log's four variables selected and logging enabled (tervox_prot_rtlog)"},
    NamedPath{"rtlog_state_clear", tvox::rtlog_state_clear_path,
              "the live log's state words cleared before a sample (tervox_prot_rtlog)"},
    NamedPath{"rtlog_stop", tvox::rtlog_stop_path, "live logging disabled (tervox_prot_rtlog)"},
};

int path(Args args)
{
    if (args.size() != 1)
        return kUsage;
    const std::string_view name = args[0];
    if (name == "--list") {
        for (const NamedPath &path : kPaths)
            std::printf("%-18.*s %.*s\n", static_cast<int>(path.name.size()), path.name.data(),
                        static_cast<int>(path.effect.size()), path.effect.data());
        return 0;
    }
    for (const NamedPath &path : kPaths) {
        if (path.name != name)
            continue;
        Session session;
        const int32_t result = tvox::apply_path(path.steps);
        if (result == kNoMixer && !card0_opens())
            return kNoDevice;
        if (result == 0)
            return 0;
        std::fprintf(stderr, "tvoxsp: path %s failed (code %d)\n", args[0],
                     static_cast<int>(result));
        return kFailed;
    }
    std::fprintf(stderr, "tvoxsp: unknown path '%s' (see tvoxsp path --list)\n", args[0]);
    return kUsage;
}

constexpr std::array kMixerCommands = {
    Command{"get", "[--dsp] CONTROL",
            "read a card 0 control (by name, or by number); --dsp: a 4-byte DSP parameter as "
            "its signed 25-bit value",
            get},
    Command{"set", "CONTROL VALUE...",
            "write a card 0 control: numbers (hex or decimal) per value or byte, or an enum item",
            set},
    Command{"mixer-test", "", "write a known value to a byte control and print what reads back",
            mixer_test},
    Command{"path", "NAME | --list", "apply one of the library's named mixer paths on card 0",
            path},
};

} // namespace

std::span<const Command> mixer_commands()
{
    return kMixerCommands;
}

} // namespace tvoxsp
