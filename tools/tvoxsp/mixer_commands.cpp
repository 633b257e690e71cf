// tvoxsp get, set, mixer-test and path: the library's control setter and readers on card 0, and
// its named mixer paths.
#include "arguments.h"
#include "command.h"
#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "output.h"

#include <json/json.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tvoxsp
{

namespace
{

// The setter takes at most this many tokens; more would end the process.
constexpr size_t kMaxValueTokens = 1024;

// "-D CARD" anywhere in the arguments, as tinymix takes it (card 0 by default); the other
// arguments stay in order. Nothing (the reason printed) for a card that is no number.
std::optional<unsigned int> take_card(Args args, std::vector<char *> &rest)
{
    unsigned int card = tvox::kAmpCard;
    for (size_t i = 0; i < args.size(); ++i) {
        if (std::string_view(args[i]) != "-D") {
            rest.push_back(args[i]);
            continue;
        }
        const std::optional<uint32_t> number =
            i + 1 < args.size() ? unsigned_number(args[++i]) : std::nullopt;
        if (!number)
            return std::nullopt;
        card = *number;
    }
    return card;
}

tvox::MixerHandle open_card(unsigned int card)
{
    tvox::MixerHandle mixer = tvox::open_mixer(card);
    if (!mixer)
        fail(kNoDevice, text_of("card %u's mixer does not open: run it on the device or inside "
                                "tvoxsim",
                                card));
    return mixer;
}

// The control an identifier names: its id as tinymix counts them (from 0, decimal or 0x hex) or
// its name.
struct mixer_ctl *lookup_control(struct mixer *mixer, const char *identifier)
{
    if (const std::optional<uint32_t> id = control_id(identifier))
        return mixer_get_ctl(mixer, *id);
    return mixer_get_ctl_by_name(mixer, identifier);
}

// "BOOL", "INT", "ENUM", "BYTE" (tinyalsa's words).
std::string type_of(struct mixer_ctl *ctl)
{
    return mixer_ctl_get_type_string(ctl);
}

// A control as tinymix shows it, for the text and the JSON: id, name, type, value count, every
// value (enum items by name), the items of an enum and the range of an integer.
struct ControlView {
    unsigned int id;
    std::string name;
    std::string type;
    unsigned int count;
    Json::Value values{Json::arrayValue};
    Json::Value items{Json::arrayValue};
    std::optional<std::pair<int, int>> range;
};

ControlView view_of(struct mixer *mixer, struct mixer_ctl *ctl)
{
    ControlView view;
    view.id = mixer_ctl_get_id(ctl);
    view.name = mixer_ctl_get_name(ctl);
    view.type = type_of(ctl);
    view.count = mixer_ctl_get_num_values(ctl);
    const enum mixer_ctl_type type = mixer_ctl_get_type(ctl);
    if (type == MIXER_CTL_TYPE_BYTE) {
        // The library's reader takes a byte control whole, a TLV one as well.
        std::vector<uint8_t> bytes(view.count + sizeof(int32_t));
        if (tervox_tmixer_get(mixer, view.name.c_str(), bytes.data()) ==
            static_cast<int32_t>(view.count))
            for (unsigned int i = 0; i < view.count; ++i)
                view.values.append(bytes[i]);
        return view;
    }
    if (type == MIXER_CTL_TYPE_ENUM)
        for (unsigned int item = 0; item < mixer_ctl_get_num_enums(ctl); ++item)
            view.items.append(mixer_ctl_get_enum_string(ctl, item));
    for (unsigned int i = 0; i < view.count; ++i) {
        const int value = mixer_ctl_get_value(ctl, i);
        if (type == MIXER_CTL_TYPE_ENUM && value >= 0 &&
            value < static_cast<int>(view.items.size()))
            view.values.append(view.items[value]);
        else
            view.values.append(value);
    }
    if (type == MIXER_CTL_TYPE_INT)
        view.range = {mixer_ctl_get_range_min(ctl), mixer_ctl_get_range_max(ctl)};
    return view;
}

Json::Value json_of(const ControlView &view, bool with_id = true)
{
    Json::Value control;
    if (with_id)
        control["id"] = view.id;
    control["name"] = view.name;
    control["type"] = view.type;
    control["count"] = view.count;
    control["values"] = view.values;
    if (view.type == "ENUM")
        control["items"] = view.items;
    if (view.range) {
        control["min"] = view.range->first;
        control["max"] = view.range->second;
    }
    return control;
}

// "0x00 0x01" for bytes, "DSP" or "100 200" for the others.
std::string values_text(const ControlView &view)
{
    std::string text;
    for (const Json::Value &value : view.values) {
        text += text.empty() ? "" : " ";
        text += value.isString()      ? value.asString()
                : view.type == "BYTE" ? text_of("0x%02x", value.asUInt())
                                      : std::to_string(value.asInt());
    }
    return text;
}

// Prints what get and set show, and fills the document.
void show(unsigned int card, const ControlView &view)
{
    std::printf("%s = %s", view.name.c_str(), values_text(view).c_str());
    if (view.type == "ENUM" && view.count == 1) {
        for (unsigned int item = 0; item < view.items.size(); ++item)
            if (view.items[item] == view.values[0])
                std::printf(" (item %u)", item);
    }
    std::printf("\n");
    result()["card"] = card;
    const Json::Value control = json_of(view);
    for (const std::string &field : control.getMemberNames())
        result()[field] = control[field];
}

int get(Args args)
{
    std::vector<char *> rest;
    const std::optional<unsigned int> card = take_card(args, rest);
    if (!card)
        return kUsage;
    const bool dsp = take_flag(rest, "--dsp");
    if (rest.size() != 1)
        return kUsage;
    const char *name = rest.back();
    const tvox::MixerHandle mixer = open_card(*card);
    if (!mixer)
        return kNoDevice;
    struct mixer_ctl *ctl = lookup_control(mixer.get(), name);
    if (ctl == nullptr)
        return fail(kFailed, text_of("card %u has no control '%s'", *card, name));
    if (dsp) {
        if (mixer_ctl_get_type(ctl) != MIXER_CTL_TYPE_BYTE || mixer_ctl_get_num_values(ctl) != 4)
            return fail(kFailed, text_of("'%s' is not a 4-byte DSP parameter", name));
        const int32_t value = tervox_dsp_tmixer_get(mixer.get(), mixer_ctl_get_name(ctl));
        std::printf("%s = %d\n", mixer_ctl_get_name(ctl), static_cast<int>(value));
        result()["card"] = *card;
        result()["id"] = mixer_ctl_get_id(ctl);
        result()["name"] = mixer_ctl_get_name(ctl);
        result()["dsp_value"] = value;
        return 0;
    }
    const ControlView view = view_of(mixer.get(), ctl);
    if (view.values.size() != view.count)
        return fail(kFailed, text_of("'%s' cannot be read", name));
    show(*card, view);
    return 0;
}

// tinymix's listing: a line per control with every value, enum items with the current one
// marked, integer ranges; --names: the names alone.
int controls(Args args)
{
    std::vector<char *> rest;
    const std::optional<unsigned int> card = take_card(args, rest);
    const bool names = take_flag(rest, "--names");
    if (!card || !rest.empty())
        return kUsage;
    const tvox::MixerHandle mixer = open_card(*card);
    if (!mixer)
        return kNoDevice;
    Json::Value list(Json::arrayValue);
    if (!names)
        std::printf("%-4s %-5s %-5s %-44s %s\n", "id", "type", "count", "name", "values");
    for (unsigned int id = 0; id < mixer_get_num_ctls(mixer.get()); ++id) {
        struct mixer_ctl *ctl = mixer_get_ctl(mixer.get(), id);
        if (ctl == nullptr)
            continue;
        const ControlView view = view_of(mixer.get(), ctl);
        list.append(names ? Json::Value(view.name) : json_of(view));
        if (names) {
            std::printf("%s\n", view.name.c_str());
            continue;
        }
        std::string values = values_text(view);
        if (view.type == "ENUM") {
            values.clear();
            for (const Json::Value &item : view.items)
                values += (values.empty() ? "" : " ") +
                          std::string(item == view.values[0] ? ">" : "") + item.asString();
        }
        if (view.range)
            values += text_of(" (range %d->%d)", view.range->first, view.range->second);
        std::printf("%-4u %-5s %-5u %-44s %s\n", id, view.type.c_str(), view.count,
                    view.name.c_str(), values.c_str());
    }
    result()["card"] = *card;
    result()[names ? "names" : "controls"] = list;
    return 0;
}

// The value words as one value text. The setter reads the numbers of a byte control by its own
// rules (any C base) but those of other controls in decimal only, so their 0x hex numbers are
// written out in decimal here (a leading zero is decimal, as everywhere in the tool).
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
            const std::optional<long long> number = whole_number(token.c_str());
            text += (text.empty() ? "" : " ") +
                    (decimal_only && number ? std::to_string(*number) : token);
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
    std::vector<char *> rest;
    const std::optional<unsigned int> card = take_card(args, rest);
    if (!card || rest.size() < 2)
        return kUsage;
    const char *name = rest[0];
    const tvox::MixerHandle mixer = open_card(*card);
    if (!mixer)
        return kNoDevice;
    struct mixer_ctl *ctl = lookup_control(mixer.get(), name);
    // The setter finds a control by its name (a number it would read as its own id).
    const char *identifier = ctl != nullptr ? mixer_ctl_get_name(ctl) : name;
    const std::string value = value_text(
        Args(rest).subspan(1), ctl != nullptr && mixer_ctl_get_type(ctl) != MIXER_CTL_TYPE_BYTE);
    if (token_count(value) == 0) {
        tell(text_of("no value for '%s'", name));
        return kUsage;
    }
    if (token_count(value) > kMaxValueTokens) {
        tell(text_of("%zu values for '%s': at most %zu are taken", token_count(value), name,
                     kMaxValueTokens));
        return kUsage;
    }
    const int32_t written = tervox_tmixer_set(mixer.get(), identifier, value.c_str());
    if (written != 0)
        return fail(kFailed, text_of("setting '%s' to '%s' failed (code %d)", name, value.c_str(),
                                     static_cast<int>(written)));
    show(*card, view_of(mixer.get(), ctl));
    return 0;
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

const NamedPath *named_path(std::string_view name)
{
    for (const NamedPath &path : kPaths) {
        if (path.name == name)
            return &path;
    }
    fail(kUsage, text_of("unknown path '%.*s' (see tvoxsp path --list)",
                         static_cast<int>(name.size()), name.data()));
    return nullptr;
}

// The control and value pairs a path applies, in order.
int show_path(const NamedPath &path)
{
    Json::Value steps(Json::arrayValue);
    for (const tvox::PathEntry &step : path.steps) {
        std::printf("%s = %s\n", step.control, step.value);
        Json::Value entry;
        entry["control"] = step.control;
        entry["value"] = step.value;
        steps.append(entry);
    }
    result()["path"] = std::string(path.name);
    result()["steps"] = steps;
    return 0;
}

int path(Args args)
{
    const bool show = args.size() == 2 && std::string_view(args[0]) == "--show";
    if (args.size() != (show ? 2u : 1u))
        return kUsage;
    const std::string_view name = args.back();
    if (name == "--list" && !show) {
        Json::Value list(Json::arrayValue);
        for (const NamedPath &path : kPaths) {
            std::printf("%-18.*s %.*s\n", static_cast<int>(path.name.size()), path.name.data(),
                        static_cast<int>(path.effect.size()), path.effect.data());
            Json::Value entry;
            entry["name"] = std::string(path.name);
            entry["effect"] = std::string(path.effect);
            list.append(entry);
        }
        result()["paths"] = list;
        return 0;
    }
    const NamedPath *path = named_path(name);
    if (path == nullptr)
        return kUsage;
    if (show)
        return show_path(*path);
    Session session;
    result()["path"] = std::string(path->name);
    const int32_t applied = tvox::apply_path(path->steps);
    if (applied == kNoMixer && !card0_opens())
        return kNoDevice;
    if (applied == 0)
        return 0;
    return fail(kApplying, text_of("path %s failed (code %d)", std::string(name).c_str(),
                                   static_cast<int>(applied)));
}

constexpr std::array kMixerCommands = {
    Command{"get", "[-D CARD] [--dsp] CONTROL",
            "read a control (by name, or by id as tinymix counts them from 0): every value, "
            "enum items by name; --dsp: a 4-byte DSP parameter as its signed 25-bit value",
            get,
            "-D CARD  the card (default 0)\n--dsp  read a 4-byte DSP parameter as its signed "
            "25-bit value",
            "tvoxsp get -D 0 'T PCM Source'"},
    Command{"set", "[-D CARD] CONTROL VALUE...",
            "write a control through the library's setter: numbers per value (decimal or 0x hex) "
            "or an enum item; a byte control's bytes keep the setter's own rules (any C base)",
            set, "-D CARD  the card (default 0)", "tvoxsp set 'T PCM Source' DSP"},
    Command{"controls", "[-D CARD] [--names]",
            "list every control of the card as tinymix does: id, type, value count, name, every "
            "value (enum items, the current one marked >), integer ranges",
            controls, "-D CARD  the card (default 0)\n--names  the names alone (for completion)",
            "tvoxsp controls --names"},
    Command{"mixer-test", "", "write a known value to a byte control and print what reads back",
            mixer_test, "", "tvoxsp mixer-test"},
    Command{"path", "NAME | --show NAME | --list",
            "apply one of the library's named mixer paths on card 0; --show: print the control "
            "and value pairs it applies; --list: name every path",
            path, "--show NAME  the path's control and value pairs\n--list  every path",
            "tvoxsp path --show amp_off"},
};

} // namespace

std::span<const Command> mixer_commands()
{
    return kMixerCommands;
}

} // namespace tvoxsp
