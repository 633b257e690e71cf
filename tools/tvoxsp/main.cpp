// tvoxsp: speaker calibration, diagnostic and stored-calibration report from the command line.
// Each subcommand is one row of the command table; new tools add a row.
#include "command.h"
#include "library_log.h"
#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "progress.h"
#include "stream_tap.h"
#include "tvoxsp.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
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
using tvoxsp::player_failure;
using tvoxsp::Session;
using tvoxsp::StreamTap;

size_t channel_count(const struct tervox &ctx)
{
    return static_cast<size_t>(std::clamp<int32_t>(ctx.num_channels, 0, TERVOX_MAX_CHANNELS));
}

const char *channel_name(const struct tervox &ctx, size_t ch)
{
    return ctx.channel_name[ch] ? ctx.channel_name[ch] : "?";
}

constexpr double kOhmsPerWord = 5.85714 / 8192;
// The DSPs' CAL_R of an open speaker: no current flows.
constexpr int32_t kOpenCircuit = 0xFFFFFF;

double ohms(int32_t cal_r)
{
    return cal_r * kOhmsPerWord;
}

// "8391 (6.00 ohm)", "16777215 (open circuit)".
std::string resistance(int32_t cal_r)
{
    std::array<char, 64> text{};
    if (cal_r == kOpenCircuit)
        std::snprintf(text.data(), text.size(), "%d (open circuit)", static_cast<int>(cal_r));
    else
        std::snprintf(text.data(), text.size(), "%d (%.2f ohm)", static_cast<int>(cal_r),
                      ohms(cal_r));
    return text.data();
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
        const std::string measured = resistance(static_cast<int32_t>(record.cal_r));
        if (diagnostic && record.f0_status != 2)
            std::printf("CH[%zu] %s failed: F0 status %u, F0 %d Hz\n", ch, name, record.f0_status,
                        static_cast<int>(record.f0));
        if ((record.status | 2) != 3)
            std::printf("CH[%zu] %s failed: calibration status %u, CAL_R %s\n", ch, name,
                        record.status, measured.c_str());
        if (range.min != 0 && range.max != 0 && (cal_r < range.min || cal_r > range.max))
            std::printf("CH[%zu] %s failed: CAL_R %s out of range [%u - %u] (%.2f - %.2f ohm)\n",
                        ch, name, measured.c_str(), range.min, range.max, ohms(range.min),
                        ohms(range.max));
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

// An integer control of every channel, read through the library's reader (CAL_R in use, the
// amplifiers' active flags). Nothing when card 0 does not open.
std::optional<std::array<int32_t, TERVOX_MAX_CHANNELS>> channel_values(const struct tervox &ctx,
                                                                       tervox_ctl_id id)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer)
        return std::nullopt;
    std::array<int32_t, TERVOX_MAX_CHANNELS> values{};
    for (size_t ch = 0; ch < channel_count(ctx); ++ch) {
        std::array<int32_t, 8> out{}; // room for a control of a few values
        tervox_tmixer_get(mixer.get(), ctx.set_ctls[ch][id], out.data());
        values[ch] = out[0];
    }
    return values;
}

// What the DSPs use after the run: the CAL_R each was given.
bool applied_as_measured(const struct tervox &ctx)
{
    const auto in_use = channel_values(ctx, CTL_SET_CAL_R);
    bool ok = in_use.has_value();
    for (size_t ch = 0; in_use && ch < channel_count(ctx); ++ch) {
        if ((*in_use)[ch] == ctx.cal[ch].cal_r)
            continue;
        std::printf("applying failed: CH[%zu] %s measured CAL_R %s, the DSP uses %s\n", ch,
                    channel_name(ctx, ch), resistance(ctx.cal[ch].cal_r).c_str(),
                    resistance((*in_use)[ch]).c_str());
        ok = false;
    }
    return ok;
}

sigset_t interrupt_set()
{
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    return interrupt;
}

// The amplifiers play audio: a measurement now would hear it.
bool amplifier_active(const struct tervox &ctx)
{
    const auto active = channel_values(ctx, CTL_AMP_ACTIVE_STATUS);
    return active && std::any_of(active->begin(), active->end(), [](int32_t v) { return v != 0; });
}

// Runs the context's calibration run on a thread of its own while this one waits for Ctrl-C,
// which SIGINT_blocked() keeps from every thread: Ctrl-C then ends the tool at once, with both
// amplifiers off, after `before_exit` (the taps hand over what they hold).
int32_t interruptible(const char *what, struct tervox &ctx,
                      const std::function<void()> &before_exit)
{
    std::atomic<bool> done{false};
    int32_t result = 0;
    std::thread worker([&] {
        result = ctx.run_calibration();
        done = true;
    });
    const sigset_t interrupt = interrupt_set();
    const timespec poll{0, 20'000'000};
    while (!done) {
        if (sigtimedwait(&interrupt, nullptr, &poll) != SIGINT)
            continue;
        tvox::apply_path(tvox::amp_off_path);
        before_exit();
        std::printf("%s interrupted: nothing was stored; both amplifiers are off\n", what);
        std::fflush(stdout);
        _exit(kFailed); // the run's thread sleeps inside the library: it cannot be joined now
    }
    worker.join();
    return result;
}

// Runs a calibration (or the diagnostic), prints the library's report of it and the tool's
// verdict: success only when the measurement passed, was stored and is what the DSPs use.
int run_measurement(Args args, bool diagnostic)
{
    const bool force = args.size() == 1 && std::string_view(args[0]) == "--force";
    if (args.size() != (force ? 1u : 0u))
        return kUsage;
    Session session;
    struct tervox &ctx = session.context();
    if (!card0_opens())
        return kFailed;
    const char *what = diagnostic ? "diagnostic" : "calibration";
    if (!force && amplifier_active(ctx)) {
        std::fprintf(stderr,
                     "tvoxsp: an amplifier is active (AMP Active Status): audio is playing and "
                     "the %s would measure it; stop playback or give --force\n",
                     what);
        return kFailed;
    }
    ctx.diag_mode = diagnostic ? 1 : 0;
    // Before any thread starts: each inherits the mask, so Ctrl-C reaches only sigtimedwait.
    const sigset_t interrupt = interrupt_set();
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    int32_t ret = 0;
    std::string printed;
    {
        std::optional<tvoxsp::Progress> progress;
        progress.emplace(diagnostic ? "diagnosing" : "calibrating");
        StreamTap out(1);
        StreamTap errors(2);
        ret = interruptible(what, ctx, [&] {
            progress.reset();
            out.text();
            errors.text();
        });
        printed = out.text() + errors.text();
    }
    if (ret == kNoMixer && !card0_opens())
        return kFailed;
    std::array<char, 1024> report{};
    ctx.str_format_out(report.data(), report.size());
    // The report's own last line says only what the library's checks saw.
    std::string_view lines = report.data();
    lines = lines.substr(0, lines.rfind('\n', lines.size() >= 2 ? lines.size() - 2 : 0) + 1);
    std::fwrite(lines.data(), 1, lines.size(), stdout);
    for (size_t ch = 0; diagnostic && ch < channel_count(ctx); ++ch)
        std::printf("CH[%zu] %s F0 = %d Hz (status %u)\n", ch, channel_name(ctx, ch),
                    static_cast<int>(ctx.cal[ch].f0), ctx.cal[ch].f0_status);
    std::string failure;
    if (const std::optional<std::string> step = player_failure(printed)) {
        failure = "the silent playback failed: " + *step;
    } else if (ret != 0) {
        print_failures(ctx, diagnostic);
        failure = "the measurement is out of bounds";
    } else if (!stored_as_measured(ctx, diagnostic)) {
        failure = "storing failed";
    } else if (!applied_as_measured(ctx)) {
        failure = "applying failed";
    }
    std::printf("%s %s%s%s\n", what, failure.empty() ? "success" : "failed",
                failure.empty() ? "" : ": ", failure.c_str());
    std::printf("both amplifiers are off\n");
    return failure.empty() ? 0 : kFailed;
}

int calibrate(Args args)
{
    return run_measurement(args, false);
}

int diagnose(Args args)
{
    return run_measurement(args, true);
}

// The stored calibration file as it lies: nothing when absent.
std::optional<std::string> stored_bytes(const char *path)
{
    std::FILE *file = std::fopen(path, "rb");
    if (file == nullptr)
        return std::nullopt;
    std::string bytes;
    std::array<char, 256> buffer{};
    for (size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), file)) > 0;)
        bytes.append(buffer.data(), got);
    std::fclose(file);
    return bytes;
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
    const size_t count = channel_count(ctx);
    std::array<uint32_t, TERVOX_MAX_CHANNELS> stored{};
    const bool calibrated = tervox_cal_fread(stored.data(), count) != -1;
    tervox_cal_fread_and_check();
    if (f0)
        std::printf("(the F0 file holds the CAL_R words the diagnostic measured, not Hz)\n");
    const std::optional<std::string> bytes = stored_bytes(ctx.cal_bin_path);
    if (bytes && bytes->size() != count * sizeof(uint32_t)) {
        std::printf("%s holds %zu bytes, not %zu: it is no calibration file\n", ctx.cal_bin_path,
                    bytes->size(), count * sizeof(uint32_t));
        return kFailed;
    }
    if (!calibrated || !bytes) {
        std::fprintf(stderr, "tvoxsp: no stored calibration in %s\n", ctx.cal_bin_path);
        return kFailed;
    }
    if (bytes->find_first_not_of('\0') == std::string::npos) {
        std::printf("%s holds zeros: no speaker was calibrated\n", ctx.cal_bin_path);
        return kFailed;
    }
    const auto in_use = channel_values(ctx, CTL_SET_CAL_R);
    bool same = in_use.has_value();
    for (size_t ch = 0; in_use && ch < count; ++ch) {
        if (static_cast<int32_t>(stored[ch]) == (*in_use)[ch])
            continue;
        std::printf("CH[%zu] %s: stored CAL_R %s differs from the one in use, %s\n", ch,
                    channel_name(ctx, ch), resistance(static_cast<int32_t>(stored[ch])).c_str(),
                    resistance((*in_use)[ch]).c_str());
        same = false;
    }
    return same ? 0 : kFailed;
}

constexpr std::array kCommands = {
    Command{"calibrate", "[--force]",
            "measure both speakers' resistance (CAL_R), store and apply it, print the result; "
            "leaves both amplifiers off (refused while one is active, unless --force)",
            calibrate},
    Command{"diagnose", "[--force]",
            "run the speaker diagnostic (F0 check), store and apply the calibration on success; "
            "leaves both amplifiers off (refused while one is active, unless --force)",
            diagnose},
    Command{"report", "[--f0]",
            "print the stored CAL_R beside the DSP's and the kernel's values (--f0: and the "
            "stored F0 file)",
            report},
    Command{"slot", "read | write CAL_R_T CAL_R_B",
            "fetch or store both CAL_R values in the driver's calibration slot", tvoxsp::slot},
    Command{"tuning", "load|delta|params [--force] FILE | check|seal FILE",
            "send a receive configuration, delta or module parameter file to the protection "
            "module; check: list its blocks as the library judges them; seal: print it with "
            "sizes and CRCs recomputed; --force sends a file whose only faults are cosmetic",
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
    std::fprintf(out, "usage: tvoxsp [-v] <command> [arguments]\n       tvoxsp <command> --help\n"
                      "       tvoxsp --help\n\n-v: show the library's log on standard error "
                      "(ANDROID_LOG_TAGS filters it)\n\ncommands:\n");
    for (const Command &command : all_commands()) {
        std::fprintf(out, "  ");
        print_command_line(out, command);
        std::fprintf(out, "      %.*s\n", static_cast<int>(command.summary.size()),
                     command.summary.data());
    }
    std::fprintf(out,
                 "\nNumbers are hex (0x10) or decimal. Exit status: 0 success, 1 the "
                 "operation failed, 2 usage.\n"
                 "Results are stored under /mnt/vendor/persist/audio/. The library logs to the "
                 "Android log (tags \"AHAL:TERVOX\" and \"AHAL: tervox_qdsp\"); "
                 "TVOXSP_LOG_FILE=FILE appends its lines to FILE.\n"
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
    Args args(argv + 1, argc > 1 ? argc - 1 : 0);
    const bool verbose = !args.empty() && std::string_view(args[0]) == "-v";
    args = args.subspan(verbose ? 1 : 0);
    // The library's stdio output passes through pipes the tool taps: keep a terminal's lines live.
    if (isatty(STDOUT_FILENO) == 1)
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    tvoxsp::watch_library_log(verbose, args);
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
        std::fprintf(stderr, "tvoxsp: unknown command '%s' (see tvoxsp --help)\n", args[0]);
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
