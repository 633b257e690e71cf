// tvoxsp: speaker calibration, diagnostic and stored-calibration report from the command line.
// Each subcommand is one row of the command table; new tools add a row.
#include "command.h"
#include "progress.h"
#include "tvoxsp.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

namespace tvoxsp
{

// The applier opens card 0's mixer even with nothing to apply, and changes nothing.
bool card0_opens()
{
    if (tervox_cal_apply(nullptr, 0) != kNoMixer)
        return true;
    std::fprintf(stderr, "tvoxsp: no card 0: run it on the device or inside tvoxsim\n");
    return false;
}

} // namespace tvoxsp

namespace
{

using tvoxsp::Args;
using tvoxsp::card0_opens;
using tvoxsp::Command;
using tvoxsp::kFailed;
using tvoxsp::kNoMixer;
using tvoxsp::kUsage;
using tvoxsp::Session;

size_t channel_count(const struct tervox &ctx)
{
    return static_cast<size_t>(std::clamp<int32_t>(ctx.num_channels, 0, TERVOX_MAX_CHANNELS));
}

const char *channel_name(const struct tervox &ctx, size_t ch)
{
    return ctx.channel_name[ch] ? ctx.channel_name[ch] : "?";
}

// The run's result says only which check failed; this says for which speaker and why, by the
// same rules: a status of 1 or 3, CAL_R within a range whose bounds are set, F0 status 2.
void print_failures(const struct tervox &ctx, bool diagnostic)
{
    for (size_t ch = 0; ch < channel_count(ctx); ++ch) {
        const tervox_cal_record &record = ctx.cal[ch];
        const tervox_cal_r_range &range = ctx.cal_r_range[ch];
        const char *name = channel_name(ctx, ch);
        const auto cal_r = static_cast<uint32_t>(record.cal_r); // the range is unsigned
        if (diagnostic && record.f0_status != 2)
            std::printf("CH[%zu] %s failed: F0 status %u, F0 %d Hz\n", ch, name, record.f0_status,
                        static_cast<int>(record.f0));
        if ((record.status | 2) != 3)
            std::printf("CH[%zu] %s failed: calibration status %u, CAL_R %d\n", ch, name,
                        record.status, static_cast<int>(record.cal_r));
        if (range.min != 0 && range.max != 0 && (cal_r < range.min || cal_r > range.max))
            std::printf("CH[%zu] %s failed: CAL_R %d out of range [%u - %u]\n", ch, name,
                        static_cast<int>(record.cal_r), range.min, range.max);
    }
}

// Reads back the files a successful run stored and compares them with what was measured: the
// run's result is success even when the persist partition took nothing.
bool stored_as_measured(const struct tervox &ctx, bool diagnostic)
{
    struct StoredFile {
        const char *path;
        int32_t (*read)(uint32_t *values, size_t count);
    };
    // The diagnostic stores the measured CAL_R words in the F0 file too.
    const std::array files = {StoredFile{ctx.cal_bin_path, tervox_cal_fread},
                              StoredFile{ctx.f0_path, tervox_f0_fread}};
    const size_t count = channel_count(ctx);
    bool ok = true;
    for (const StoredFile &file : std::span(files).first(diagnostic ? 2 : 1)) {
        std::array<uint32_t, TERVOX_MAX_CHANNELS> stored{};
        if (file.read(stored.data(), count) == -1) {
            std::printf("storing failed: nothing can be read back from %s\n", file.path);
            ok = false;
            continue;
        }
        for (size_t ch = 0; ch < count; ++ch) {
            if (static_cast<int32_t>(stored[ch]) == ctx.cal[ch].cal_r)
                continue;
            std::printf("storing failed: CH[%zu] %s measured CAL_R %d, %s holds %d\n", ch,
                        channel_name(ctx, ch), static_cast<int>(ctx.cal[ch].cal_r), file.path,
                        static_cast<int>(stored[ch]));
            ok = false;
        }
    }
    return ok;
}

// Runs a calibration (or the diagnostic), prints the library's report of it and checks that what
// was measured is what got stored.
int run_measurement(bool diagnostic)
{
    Session session;
    struct tervox &ctx = session.context();
    if (!card0_opens())
        return kFailed;
    ctx.diag_mode = diagnostic ? 1 : 0;
    const char *what = diagnostic ? "diagnostic" : "calibration";
    int32_t ret = 0;
    {
        const tvoxsp::Progress progress(diagnostic ? "diagnosing" : "calibrating");
        ret = ctx.run_calibration();
    }
    if (ret == kNoMixer && !card0_opens())
        return kFailed;
    std::array<char, 1024> report{};
    ctx.str_format_out(report.data(), report.size());
    std::fputs(report.data(), stdout);
    for (size_t ch = 0; diagnostic && ch < channel_count(ctx); ++ch)
        std::printf("CH[%zu] %s F0 = %d Hz (status %u)\n", ch, channel_name(ctx, ch),
                    static_cast<int>(ctx.cal[ch].f0), ctx.cal[ch].f0_status);
    if (ret != 0) {
        print_failures(ctx, diagnostic);
        std::fprintf(stderr, "tvoxsp: %s failed with code %d\n", what, static_cast<int>(ret));
        return kFailed;
    }
    if (!stored_as_measured(ctx, diagnostic)) {
        std::fprintf(stderr, "tvoxsp: %s measured, but storing it failed\n", what);
        return kFailed;
    }
    return 0;
}

int calibrate(Args args)
{
    return args.empty() ? run_measurement(false) : kUsage;
}

int diagnose(Args args)
{
    return args.empty() ? run_measurement(true) : kUsage;
}

int report(Args args)
{
    const bool f0 = args.size() == 1 && std::string_view(args[0]) == "--f0";
    if (!args.empty() && !f0)
        return kUsage;
    Session session;
    struct tervox &ctx = session.context();
    // The stored F0 values are part of the report in diagnostic mode.
    ctx.diag_mode = f0 ? 1 : 0;
    std::array<uint32_t, TERVOX_MAX_CHANNELS> stored{};
    const bool calibrated = tervox_cal_fread(stored.data(), channel_count(ctx)) != -1;
    tervox_cal_fread_and_check();
    if (!calibrated) {
        std::fprintf(stderr, "tvoxsp: no stored calibration in %s\n", ctx.cal_bin_path);
        return kFailed;
    }
    return 0;
}

constexpr std::array kCommands = {
    Command{"calibrate", "",
            "measure both speakers' resistance (CAL_R), store and apply it, print the result",
            calibrate},
    Command{"diagnose", "",
            "run the speaker diagnostic (F0 check), store and apply the calibration on success",
            diagnose},
    Command{"report", "[--f0]",
            "print the stored CAL_R beside the DSP's and the kernel's values (--f0: and the "
            "stored F0 file)",
            report},
    Command{"slot", "read | write CAL_R_T CAL_R_B",
            "fetch or store both CAL_R values in the driver's calibration slot", tvoxsp::slot},
    Command{"tuning", "load|delta|params|check|seal FILE",
            "send a receive configuration, delta or module parameter file to the protection "
            "module; check: list its blocks as the library judges them; seal: print it with "
            "sizes and CRCs recomputed",
            tvoxsp::tuning},
    Command{"module", "on|off | swap on|off | config TYPE",
            "switch the protection module, swap its channels, select a configuration type",
            tvoxsp::module},
};

std::vector<Command> all_commands()
{
    std::vector<Command> all(kCommands.begin(), kCommands.end());
    for (const std::span<const Command> more :
         {tvoxsp::mixer_commands(), tvoxsp::play_commands(), tvoxsp::register_commands()})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}

// "tvoxsp NAME USAGE".
void print_command_line(std::FILE *out, const Command &command)
{
    std::fprintf(out, "tvoxsp %.*s%s%.*s\n", static_cast<int>(command.name.size()),
                 command.name.data(), command.usage.empty() ? "" : " ",
                 static_cast<int>(command.usage.size()), command.usage.data());
}

void print_help(std::FILE *out)
{
    std::fprintf(out, "usage: tvoxsp <command> [arguments]\n       tvoxsp <command> --help\n"
                      "       tvoxsp --help\n\ncommands:\n");
    for (const Command &command : all_commands()) {
        std::fprintf(out, "  ");
        print_command_line(out, command);
        std::fprintf(out, "      %.*s\n", static_cast<int>(command.summary.size()),
                     command.summary.data());
    }
    std::fprintf(out, "\nNumbers are hex (0x10) or decimal. Exit status: 0 success, 1 the "
                      "operation failed, 2 usage.\n"
                      "Results are stored under /mnt/vendor/persist/audio/. Messages go to the "
                      "Android log (tags \"AHAL:TERVOX\" and \"AHAL: tervox_qdsp\").\n"
                      "Without a device, run the commands inside the virtual amplifier pair "
                      "(see tvoxsim --help), which also sets the virtual speakers.\n");
}

bool is_help_flag(std::string_view word)
{
    return word == "--help" || word == "-h";
}

} // namespace

int main(int argc, char **argv)
{
    const Args args(argv + 1, argc > 1 ? argc - 1 : 0);
    if (args.empty()) {
        print_help(stderr);
        return kUsage;
    }
    const std::string_view name = args[0];
    if (is_help_flag(name) || name == "help") {
        print_help(stdout);
        return 0;
    }
    const std::vector<Command> commands = all_commands();
    const auto command = std::find_if(commands.begin(), commands.end(),
                                      [&](const Command &c) { return c.name == name; });
    if (command == commands.end()) {
        std::fprintf(stderr, "tvoxsp: unknown command '%s' (see tvoxsp --help)\n", argv[1]);
        return kUsage;
    }
    if (args.size() == 2 && is_help_flag(args[1])) {
        std::printf("usage: ");
        print_command_line(stdout, *command);
        std::printf("  %.*s\n", static_cast<int>(command->summary.size()), command->summary.data());
        return 0;
    }
    const int status = command->run(args.subspan(1));
    if (status == kUsage) {
        std::fprintf(stderr, "tvoxsp: usage: ");
        print_command_line(stderr, *command);
    }
    return status;
}
