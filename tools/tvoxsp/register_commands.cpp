// tvoxsp commands for the engineering tools: amplifier registers, the live protection log, the
// register monitor, the DSP switches.
#include "arguments.h"
#include "command.h"
#include "rtlog_plot.h"
#include "stream_tap.h"

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

// A leading "--interval MS": the interval (0 when absent, the library's one second), and the
// arguments after it; nothing when MS is not a number.
std::optional<std::pair<int32_t, Args>> interval(Args args)
{
    if (args.empty() || std::string_view(args[0]) != "--interval")
        return std::pair{0, args};
    if (args.size() < 2)
        return std::nullopt;
    const std::optional<int32_t> ms = signed_number(args[1]);
    if (!ms)
        return std::nullopt;
    if (*ms < 0) {
        std::fprintf(stderr, "tvoxsp: the interval is a number of milliseconds, not %s\n", args[1]);
        return std::nullopt;
    }
    return std::pair{static_cast<int32_t>(*ms), args.subspan(2)};
}

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

// The register tools read through the register control of each amplifier; a control that is
// missing or refuses the request leaves 0 in the printed line as if it were read.
int registers(int32_t result, StreamTap &errors, const char *what)
{
    if (result == 1) {
        card0_opens();
        return kNoDevice;
    }
    if (!setter_refused(errors.text()))
        return zero_is_success(result);
    std::fprintf(stderr,
                 "tvoxsp: %s: the register control refused the request: the values "
                 "shown were not read\n",
                 what);
    return kFailed;
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
    if (op == "read" && v.size() == 1)
        return registers(tervox_log_reg_read(v[0]), errors, "reg read");
    if (op == "write" && v.size() == 2)
        return registers(tervox_log_reg_write(v[0], v[1]), errors, "reg write");
    if (op == "update" && v.size() == 3)
        return registers(tervox_log_reg_update_bits(v[0], v[1], v[2]), errors, "reg update");
    return kUsage;
}

int rtlog(Args args)
{
    const auto parsed = interval(args);
    if (!parsed || !parsed->second.empty())
        return kUsage;
    Session session;
    StreamTap out(1);
    const int32_t result = tervox_prot_rtlog(parsed->first);
    // A log that ends "Failed" keeps its sample buffers in the context; teardown does not
    // release them.
    for (tervox_rtlog_channel &channel : session.context().rtlog) {
        std::free(std::exchange(channel.data, nullptr));
        std::free(std::exchange(channel.line, nullptr));
    }
    if (result == 1 && !card0_opens())
        return kNoDevice;
    if (result == 0 && !out.saw("rtlog exit - Failed"))
        return 0;
    std::fprintf(stderr, "tvoxsp: the live log failed: %s\n",
                 result == -1 ? "its file cannot be written"
                              : "a control of the live log refused (see the lines above)");
    return kFailed;
}

int monitor(Args args)
{
    const auto parsed = interval(args);
    if (!parsed)
        return kUsage;
    const std::optional<std::vector<uint32_t>> regs = unsigned_numbers(parsed->second);
    if (!regs || regs->empty())
        return kUsage;
    Session session;
    StreamTap out(1);
    StreamTap errors(2);
    const int32_t result = tervox_regs_monitor(regs->data(), regs->size(), parsed->first);
    const bool failed = out.saw("monitor registers exit - Failed");
    const int status = registers(result, errors, "monitor");
    if (status != 0 || !failed)
        return status;
    std::fprintf(stderr, "tvoxsp: monitor: the last register read failed\n");
    return kFailed;
}

int info(Args args)
{
    return without_arguments(args, tervox_show_info);
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
    const bool dsp = !args.empty() && std::string_view(args[0]) == "--dsp";
    const Args rest = args.subspan(dsp ? 1 : 0);
    const std::optional<bool> on = rest.size() == 1 ? on_off(rest[0]) : std::nullopt;
    if (!on)
        return kUsage;
    Session session;
    if (dsp)
        return controls_written([&] { return tervox_vesk_channel_swap(*on ? 1 : 0); },
                                "the DSPs' channel balance was not set");
    if (session.context().channel_swap == nullptr) {
        std::fprintf(stderr, "tvoxsp: this build has no channel swap in its context; use "
                             "swap --dsp\n");
        return kFailed;
    }
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
            "read, write or bit-update an amplifier register on every channel (hex or decimal)",
            reg},
    Command{"rtlog", "[--interval MS]",
            "print the protection firmware's live log (and write /sdcard/Download/rtlog.txt) "
            "until Ctrl-C",
            rtlog},
    Command{"rtlog-plot", "FILE -o OUT.svg|OUT.png",
            "chart a live log file: each channel's columns and maxima over time, active shaded",
            plot},
    Command{"monitor", "[--interval MS] REG...",
            "read the registers on every channel each interval until Ctrl-C", monitor},
    Command{"info", "", "print the amplifier channels", info},
    Command{"bypass", "[T|B] on|off", "feed the amplifiers from the audio port (on) or the DSP",
            bypass},
    Command{"reload", "", "mute and disable both amplifiers (firmware reload)", reload},
    Command{"boot", "", "select and boot the protection firmware on both DSPs", boot},
    Command{"swap", "[--dsp] on|off",
            "swap the channels through the context's channel swap (--dsp: in the amplifier "
            "DSPs)",
            swap},
};

} // namespace

std::span<const Command> register_commands()
{
    return kRegisterCommands;
}

} // namespace tvoxsp
