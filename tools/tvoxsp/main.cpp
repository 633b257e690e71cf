// tvoxsp: speaker calibration, diagnostic and stored-calibration report from the command line.
// Each subcommand is one row of a command table; new tools add a row.
#include "command.h"
#include "library_log.h"
#include "output.h"
#include "tvoxsp.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// CMake passes the project's version; Android.bp builds without it.
#ifndef TVOXSP_VERSION
#define TVOXSP_VERSION "0.1"
#endif

namespace tvoxsp
{

// The applier opens card 0's mixer even with nothing to apply, and changes nothing.
bool card0_opens()
{
    if (tervox_cal_apply(nullptr, 0) != kNoMixer)
        return true;
    fail(kNoDevice, "no card 0: run it on the device or inside tvoxsim");
    return false;
}

} // namespace tvoxsp

namespace
{

using tvoxsp::Args;
using tvoxsp::Command;
using tvoxsp::kUsage;

std::vector<Command> all_commands()
{
    std::vector<Command> all;
    for (const std::span<const Command> more :
         {tvoxsp::calibration_commands(), tvoxsp::qdsp_commands(), tvoxsp::mixer_commands(),
          tvoxsp::play_commands(), tvoxsp::register_commands()})
        all.insert(all.end(), more.begin(), more.end());
#ifdef TVOXSP_SERVE
    const std::span<const Command> serve = tvoxsp::serve_commands();
    all.insert(all.end(), serve.begin(), serve.end());
#endif
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
    std::fprintf(out, "usage: tvoxsp [-v] [--json] <command> [arguments]\n"
                      "       tvoxsp <command> --help\n       tvoxsp --help | --version\n\n"
                      "-v: show the library's log on standard error (ANDROID_LOG_TAGS filters it)\n"
                      "--json: print one JSON document on standard output (live commands: a JSON "
                      "object per line)\n\ncommands:\n");
    for (const Command &command : all_commands()) {
        std::fprintf(out, "  ");
        print_command_line(out, command);
        std::fprintf(out, "      %.*s\n", static_cast<int>(command.summary.size()),
                     command.summary.data());
    }
    std::fprintf(out,
                 "\nNumbers are decimal or 0x hex (a leading 0 is not octal). Exit status: 0 "
                 "success, 1 failed, 2 usage, 3 no device, 4 busy, 5 measurement out of range, "
                 "6 storing failed, 7 applying failed, 8 mismatch, 130 interrupted.\n"
                 "Results are stored under /mnt/vendor/persist/audio/. The library logs to the "
                 "Android log (tags \"AHAL:TERVOX\" and \"AHAL: tervox_qdsp\"); "
                 "TVOXSP_LOG_FILE=FILE appends its lines to FILE.\n"
                 "Without a device, run the commands inside the virtual amplifier pair "
                 "(see tvoxsim --help), which also sets the virtual speakers.\n");
}

// A command's --help: its line, summary, a line per option and an example.
void print_command_help(const Command &command)
{
    std::printf("usage: ");
    print_command_line(stdout, command);
    std::printf("  %.*s\n", static_cast<int>(command.summary.size()), command.summary.data());
    if (!command.options.empty()) {
        std::printf("\noptions:\n");
        std::string_view options = command.options;
        while (!options.empty()) {
            const size_t end = std::min(options.find('\n'), options.size());
            std::printf("  %.*s\n", static_cast<int>(end), options.data());
            options.remove_prefix(std::min(end + 1, options.size()));
        }
    }
    if (!command.example.empty())
        std::printf("\nexample:\n  %.*s\n", static_cast<int>(command.example.size()),
                    command.example.data());
}

bool is_help_flag(std::string_view word)
{
    return word == "--help" || word == "-h";
}

} // namespace

int main(int argc, char **argv)
{
    Args args(argv + 1, argc > 1 ? argc - 1 : 0);
    bool verbose = false;
    bool json = false;
    for (; !args.empty(); args = args.subspan(1)) {
        const std::string_view word = args[0];
        if (word == "-v")
            verbose = true;
        else if (word == "--json")
            json = true;
        else
            break;
    }
    if (!args.empty() && std::string_view(args[0]) == "--version") {
        std::printf("tvoxsp %s\n", TVOXSP_VERSION);
        return 0;
    }
    tvoxsp::start_output(json);
    // The library's stdio output passes through pipes the tool taps: keep a terminal's lines live.
    if (isatty(STDOUT_FILENO) == 1)
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    tvoxsp::watch_library_log(verbose, args);
    if (args.empty()) {
        print_help(stderr);
        tvoxsp::noted(kUsage, "no command (see tvoxsp --help)");
        tvoxsp::finish_output("", kUsage);
        return kUsage;
    }
    const std::string_view name = args[0];
    // Help is text (on standard error with --json, beside an envelope of success).
    if (is_help_flag(name) || name == "help") {
        print_help(stdout);
        tvoxsp::finish_output("help", 0);
        return 0;
    }
    const std::vector<Command> commands = all_commands();
    const auto command = std::find_if(commands.begin(), commands.end(),
                                      [&](const Command &c) { return c.name == name; });
    if (command == commands.end()) {
        const int status =
            tvoxsp::fail(kUsage, "unknown command '" + std::string(name) + "' (see tvoxsp --help)");
        tvoxsp::finish_output(name, status);
        return status;
    }
    if (args.size() == 2 && is_help_flag(args[1])) {
        print_command_help(*command);
        tvoxsp::finish_output(name, 0);
        return 0;
    }
    const int status = command->run(args.subspan(1));
    if (status == kUsage) {
        std::fprintf(stderr, "tvoxsp: usage: ");
        print_command_line(stderr, *command);
        tvoxsp::noted(kUsage, "usage: tvoxsp " + std::string(command->name) + " " +
                                  std::string(command->usage));
    }
    tvoxsp::finish_output(name, status);
    return status;
}
