// tvoxsp commands for the engineering tools: amplifier registers, the live protection log, the
// register monitor, the DSP switches.
#include "arguments.h"
#include "command.h"
#include "live.h"
#include "output.h"
#include "rtlog_plot.h"
#include "stream_tap.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace tvoxsp
{

namespace
{

int without_arguments(Args args, int32_t (*operation)())
{
    if (!args.empty())
        return kUsage;
    Session session;
    // The paths behind these give -22 when card 0 does not open; the tool then says why.
    const int32_t result = operation();
    if (result == kNoMixer && !card0_opens())
        return kNoDevice;
    return zero_is_success(result);
}

// A register line of the register tools ("read : 0x2020 -- T: 0x00000008, B: 0x00000008,"):
// its values per channel; nothing for other lines (or another operation than `op`).
std::optional<Json::Value> register_values(std::string_view line, std::string_view op)
{
    const size_t dash = line.find(" -- ");
    if (!line.starts_with(std::string(op) + " : ") || dash == std::string_view::npos)
        return std::nullopt;
    Json::Value channels(Json::arrayValue);
    const std::string rest(line.substr(dash + 4));
    for (size_t at = 0; at < rest.size();) {
        const size_t colon = rest.find(": 0x", at);
        if (colon == std::string::npos)
            break;
        const size_t name_start = rest.find_first_not_of(' ', at);
        Json::Value channel;
        channel["name"] = rest.substr(name_start, colon - name_start);
        char *end = nullptr;
        channel["value"] =
            static_cast<Json::UInt>(std::strtoul(rest.c_str() + colon + 2, &end, 16));
        channels.append(channel);
        at = static_cast<size_t>(end - rest.c_str()) + 1;
    }
    return channels;
}

// The register tools read through the register control of each amplifier; a control that is
// missing or refuses the request leaves 0 in the printed line as if it were read.
// The values printed go to "channels".
int registers(int32_t status, StreamTap &errors, const char *what, std::string_view op)
{
    if (status == 1) {
        card0_opens();
        return kNoDevice;
    }
    const std::string printed = errors.text();
    for (size_t start = 0; start < printed.size();) {
        const size_t end = std::min(printed.find('\n', start), printed.size());
        if (const auto values = register_values(printed.substr(start, end - start), op))
            result()["channels"] = *values;
        start = end + 1;
    }
    if (!setter_refused(printed))
        return zero_is_success(status);
    // The setter names a control it does not find: that amplifier's register control is missing.
    const bool missing = printed.find("Invalid mixer control") != std::string::npos;
    return fail(missing ? kNoDevice : kFailed,
                text_of("%s: the register control refused the request: the values "
                        "shown were not read",
                        what));
}

int reg(Args args)
{
    if (args.empty())
        return kUsage;
    const std::string_view op = args[0];
    const std::optional<std::vector<uint32_t>> values = unsigned_numbers(args.subspan(1));
    if (!values)
        return kUsage;
    const std::vector<uint32_t> &v = *values;
    Session session;
    StreamTap errors(2);
    if (!v.empty())
        result()["register"] = v[0];
    if (op == "read" && v.size() == 1)
        return registers(tervox_log_reg_read(v[0]), errors, "reg read", "read");
    if (op == "write" && v.size() == 2) {
        result()["written"] = v[1];
        return registers(tervox_log_reg_write(v[0], v[1]), errors, "reg write", "write");
    }
    if (op == "update" && v.size() == 3) {
        result()["mask"] = v[1];
        result()["value"] = v[2];
        return registers(tervox_log_reg_update_bits(v[0], v[1], v[2]), errors, "reg update",
                         "update bits");
    }
    return kUsage;
}

// One live log line ("2024-01-01 10:00:00.000   T: 1.00, 1.00, 0.1000, 0.1000, 100, 100, Y
// B: ..."): per channel its columns; nothing for the library's other lines.
std::optional<Json::Value> rtlog_channels(std::string_view line, std::string &header,
                                          std::string &row)
{
    if (line.empty() || line[0] < '0' || line[0] > '9' || line.size() < 25)
        return std::nullopt;
    static constexpr std::array<const char *, 6> kColumns = {"c1",     "c1_max", "c3",
                                                             "c3_max", "reg",    "reg_max"};
    Json::Value channels(Json::arrayValue);
    std::string rest(line.substr(23));
    for (size_t at = 0;;) {
        const size_t colon = rest.find(": ", at);
        if (colon == std::string::npos)
            break;
        const size_t name_start = rest.find_first_not_of(' ', at);
        Json::Value channel;
        const std::string name = rest.substr(name_start, colon - name_start);
        channel["name"] = name;
        const char *cursor = rest.c_str() + colon + 2;
        for (size_t i = 0; i < kColumns.size(); ++i) {
            char *end = nullptr;
            const double value = std::strtod(cursor, &end);
            if (end == cursor || *end != ',')
                return std::nullopt;
            channel[kColumns[i]] = i >= 4 ? Json::Value(static_cast<int>(value)) : value;
            header += (header.empty() ? "" : ",") + name + "_" + kColumns[i];
            row +=
                (row.empty() ? "" : ",") + std::string(cursor, static_cast<size_t>(end - cursor));
            cursor = end + 2;
        }
        channel["active"] = *cursor == 'Y';
        header += "," + name + "_active";
        row += std::string(",") + *cursor;
        channels.append(channel);
        at = static_cast<size_t>(cursor - rest.c_str()) + 1;
    }
    if (channels.empty())
        return std::nullopt;
    return channels;
}

// The live run's end object, for the exit line the library printed (or none).
void live_end(const LiveRun &run, std::string_view exit_line)
{
    Json::Value end;
    end["type"] = "end";
    end["status"] = std::string(exit_line);
    end["samples"] = static_cast<Json::UInt64>(run.samples());
    end["t_ms"] = run.elapsed_ms();
    set_live_end(end);
}

int rtlog(Args args)
{
    const std::optional<LiveOptions> options = live_options(args, true, false);
    if (!options || !options->positionals.empty())
        return kUsage;
    Session session;
    LiveRun run(*options);
    if (!run.ready())
        return kFailed;
    std::string exit_line;
    int32_t result = 0;
    {
        StreamTap out(1, [&](std::string_view line) {
            std::string header;
            std::string row;
            if (const auto channels = rtlog_channels(line, header, row)) {
                Json::Value sample;
                sample["channels"] = *channels;
                run.sample(sample, std::string(line), header, row);
            } else if (line.starts_with("rtlog exit - ")) {
                exit_line = line;
            } else {
                run.pass(line);
            }
        });
        result = tervox_prot_rtlog(options->interval_ms);
    }
    if (!json_output() && !exit_line.empty())
        std::printf("%s\n", exit_line.c_str());
    live_end(run, exit_line);
    // A log that ends "Failed" keeps its sample buffers in the context; teardown does not
    // release them.
    for (tervox_rtlog_channel &channel : session.context().rtlog) {
        std::free(std::exchange(channel.data, nullptr));
        std::free(std::exchange(channel.line, nullptr));
    }
    if (result == 1 && !card0_opens())
        return kNoDevice;
    if (result == 0 && exit_line != "rtlog exit - Failed")
        return 0;
    return fail(kFailed, text_of("the live log failed: %s",
                                 result == -1 ? "its file cannot be written"
                                              : "a control of the live log refused (see the "
                                                "lines above)"));
}

int monitor(Args args)
{
    const std::optional<LiveOptions> options = live_options(args, false, true);
    if (!options)
        return kUsage;
    const std::optional<std::vector<uint32_t>> regs = unsigned_numbers(options->positionals);
    if (!regs || regs->empty())
        return kUsage;
    Session session;
    LiveRun run(*options);
    std::string exit_line;
    bool refused = false;
    int32_t result = 0;
    {
        Json::Value registers(Json::arrayValue);
        std::string text;
        StreamTap errors(2, [&](std::string_view line) {
            const std::optional<Json::Value> values = register_values(line, "read");
            if (!values) {
                refused = refused || setter_refused(line);
                std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
                return;
            }
            Json::Value reg;
            reg["register"] = (*regs)[registers.size()];
            reg["channels"] = *values;
            registers.append(reg);
            text += (text.empty() ? clock_stamp() + "  " : std::string("\n              ")) +
                    std::string(line);
            if (registers.size() < regs->size())
                return;
            Json::Value sample;
            sample["registers"] = registers;
            run.sample(sample, text, "", "");
            registers = Json::Value(Json::arrayValue);
            text.clear();
        });
        StreamTap out(1, [&](std::string_view line) {
            if (line.starts_with("monitor registers exit - "))
                exit_line = line;
        });
        result = tervox_regs_monitor(regs->data(), regs->size(), options->interval_ms);
    }
    if (!json_output() && !exit_line.empty())
        std::printf("%s\n", exit_line.c_str());
    live_end(run, exit_line);
    if (result == 1) {
        card0_opens();
        return kNoDevice;
    }
    if (refused)
        return fail(kFailed, "monitor: the register control refused the request: the values "
                             "shown were not read");
    if (exit_line.ends_with("Failed"))
        return fail(kFailed, "monitor: the last register read failed");
    return zero_is_success(result);
}

int info(Args args)
{
    if (!args.empty())
        return kUsage;
    Session session;
    const struct tervox &ctx = session.context();
    Json::Value channels(Json::arrayValue);
    for (int32_t ch = 0; ch < std::min<int32_t>(ctx.num_channels, TERVOX_MAX_CHANNELS); ++ch) {
        Json::Value channel;
        channel["name"] = ctx.channel_name[ch] ? ctx.channel_name[ch] : "?";
        channels.append(channel);
    }
    result()["channels"] = channels;
    return zero_is_success(tervox_show_info());
}

int bypass(Args args)
{
    if (args.empty() || args.size() > 2)
        return kUsage;
    const std::optional<bool> on = on_off(args.back());
    const char *channel = args.size() == 2 ? args[0] : nullptr;
    if (!on || (channel != nullptr && std::string_view(channel) != "T" &&
                std::string_view(channel) != "B"))
        return kUsage;
    Session session;
    if (!card0_opens())
        return kNoDevice;
    result()["state"] = *on ? "on" : "off";
    result()["channel"] = channel != nullptr ? Json::Value(channel) : Json::Value();
    return controls_written([&] { return tervox_dsp_bypass(channel, *on ? 1 : 0); },
                            "the amplifiers' source was not switched");
}

int reload(Args args)
{
    return without_arguments(args, tervox_reload_firmware);
}

int boot(Args args)
{
    return without_arguments(args, tervox_boot_loader);
}

int swap(Args args)
{
    std::vector<char *> rest(args.begin(), args.end());
    const bool dsp = take_flag(rest, "--dsp");
    const std::optional<bool> on = rest.size() == 1 ? on_off(rest[0]) : std::nullopt;
    if (!on)
        return kUsage;
    Session session;
    result()["state"] = *on ? "on" : "off";
    result()["dsp"] = dsp;
    if (dsp)
        return controls_written([&] { return tervox_vesk_channel_swap(*on ? 1 : 0); },
                                "the DSPs' channel balance was not set");
    if (session.context().channel_swap == nullptr)
        return fail(kFailed, "this build has no channel swap in its context; use swap --dsp");
    return controls_written([&] { return tervox_channel_swap(*on ? 1 : 0); },
                            "the channels were not swapped");
}

int plot(Args args)
{
    if (args.size() != 3 || std::string_view(args[1]) != "-o")
        return kUsage;
    return plot_rtlog(args[0], args[2]) ? 0 : kFailed;
}

constexpr std::array kRegisterCommands = {
    Command{"reg", "read REG | write REG VALUE | update REG MASK VALUE",
            "read, write or bit-update an amplifier register on every channel (decimal or 0x hex)",
            reg, "", "tvoxsp reg update 0x2020 0x8 0x8"},
    Command{"rtlog", "[--interval MS] [--count N] [--duration S] [--csv] [-o FILE]",
            "print the protection firmware's live log (and write /sdcard/Download/rtlog.txt) "
            "until Ctrl-C, SIGTERM, SIGHUP, a closed output, N samples or S seconds",
            rtlog,
            "--interval MS  between samples (above 0; default 1000)\n--count N  stop after N "
            "samples\n--duration S  stop after S seconds\n--csv  a header line, then "
            "comma-separated columns\n-o FILE  write the samples to FILE too",
            "tvoxsp rtlog --interval 100 --count 50 --csv -o /data/local/tmp/log.csv"},
    Command{"rtlog-plot", "FILE -o OUT.svg|OUT.png",
            "chart a live log file: each channel's columns and maxima over time, active shaded",
            plot, "-o OUT  the chart, SVG or PNG by its extension",
            "tvoxsp rtlog-plot rtlog.txt -o rtlog.svg"},
    Command{"monitor", "REG... [--interval MS] [--count N] [--duration S] [--changes]",
            "read the registers on every channel each interval until Ctrl-C, SIGTERM, SIGHUP, a "
            "closed output, N samples or S seconds; each line carries the time of day",
            monitor,
            "--interval MS  between samples (above 0; default 1000)\n--count N  stop after N "
            "samples\n--duration S  stop after S seconds\n--changes  print only samples that "
            "differ from the previous one",
            "tvoxsp monitor 0x2020 0x4308 --interval 100 --changes"},
    Command{"info", "", "print the amplifier channels", info, "", "tvoxsp --json info"},
    Command{"bypass", "[T|B] on|off", "feed the amplifiers from the audio port (on) or the DSP",
            bypass, "", "tvoxsp bypass T on"},
    Command{"reload", "", "mute and disable both amplifiers (firmware reload)", reload, "",
            "tvoxsp reload"},
    Command{"boot", "", "select and boot the protection firmware on both DSPs", boot, "",
            "tvoxsp boot"},
    Command{"swap", "[--dsp] on|off",
            "swap the channels through the context's channel swap (--dsp: in the amplifier "
            "DSPs)",
            swap, "--dsp  swap in the amplifier DSPs' channel balance", "tvoxsp swap --dsp on"},
};

} // namespace

std::span<const Command> register_commands()
{
    return kRegisterCommands;
}

} // namespace tvoxsp
