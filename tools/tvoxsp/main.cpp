// tvoxsp: speaker calibration, diagnostic and stored-calibration report from the command line.
// Each subcommand is one row of the command table; new tools add a row.
#include "command.h"
#include "tvoxsp.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

namespace
{

using tvoxsp::Args;
using tvoxsp::Command;
using tvoxsp::kFailed;
using tvoxsp::kUsage;
using tvoxsp::Session;

// Runs a calibration (or the diagnostic) and prints the library's report of it.
int run_measurement(bool diagnostic)
{
    Session session;
    struct tervox &ctx = session.context();
    ctx.diag_mode = diagnostic ? 1 : 0;
    const int32_t ret = ctx.run_calibration();
    std::array<char, 1024> report{};
    ctx.str_format_out(report.data(), report.size());
    std::fputs(report.data(), stdout);
    if (ret != 0) {
        std::fprintf(stderr, "tvoxsp: %s failed with code %d\n",
                     diagnostic ? "diagnostic" : "calibration", static_cast<int>(ret));
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
    // The stored F0 values are part of the report in diagnostic mode.
    session.context().diag_mode = f0 ? 1 : 0;
    tervox_cal_fread_and_check();
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
};

std::vector<Command> all_commands()
{
    std::vector<Command> all(kCommands.begin(), kCommands.end());
    const std::span<const Command> registers = tvoxsp::register_commands();
    all.insert(all.end(), registers.begin(), registers.end());
    return all;
}

void print_help(std::FILE *out)
{
    std::fprintf(out, "usage: tvoxsp <command> [arguments]\n       tvoxsp --help\n\ncommands:\n");
    for (const Command &command : all_commands()) {
        std::fprintf(out, "  %.*s%s%.*s\n      %.*s\n", static_cast<int>(command.name.size()),
                     command.name.data(), command.usage.empty() ? "" : " ",
                     static_cast<int>(command.usage.size()), command.usage.data(),
                     static_cast<int>(command.summary.size()), command.summary.data());
    }
    std::fprintf(out, "\nResults are stored under /mnt/vendor/persist/audio/. Messages go to the "
                      "Android log (tags \"AHAL:TERVOX\" and \"AHAL: tervox_qdsp\").\n"
                      "Without a device, run the commands inside the virtual amplifier pair "
                      "(see tvoxsim --help), which also sets the virtual speakers.\n");
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
    if (name == "--help" || name == "-h" || name == "help") {
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
    const int status = command->run(args.subspan(1));
    if (status == kUsage)
        std::fprintf(stderr, "tvoxsp: usage: tvoxsp %.*s%s%.*s\n",
                     static_cast<int>(command->name.size()), command->name.data(),
                     command->usage.empty() ? "" : " ", static_cast<int>(command->usage.size()),
                     command->usage.data());
    return status;
}
