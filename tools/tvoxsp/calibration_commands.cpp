// tvoxsp calibrate, diagnose, report and verify: the measurement runs with the tool's verdict on
// what was stored and applied, and the stored calibration compared with every place that holds it.
#include "calibration/results.h"
#include "command.h"
#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "output.h"
#include "progress.h"
#include "stream_tap.h"
#include "tvoxsp.h"

#include <signal.h>
#include <unistd.h>

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

namespace tvoxsp
{

namespace
{

using Words = std::array<int32_t, TERVOX_MAX_CHANNELS>;

size_t channel_count(const struct tervox &ctx)
{
    return static_cast<size_t>(std::clamp<int32_t>(ctx.num_channels, 0, TERVOX_MAX_CHANNELS));
}

const char *channel_name(const struct tervox &ctx, size_t ch)
{
    return ctx.channel_name[ch] ? ctx.channel_name[ch] : "?";
}

// The DSPs' CAL_R of an open speaker: no current flows.
constexpr int32_t kOpenCircuit = 0xFFFFFF;

// In the library's own arithmetic, so the tool prints the digits its reports print.
double ohms(int32_t cal_r)
{
    return tvox::cal_r_ohms(cal_r);
}

// "8391 (6.00 ohm)", "16777215 (open circuit)".
std::string resistance(int32_t cal_r)
{
    if (cal_r == kOpenCircuit)
        return text_of("%d (open circuit)", static_cast<int>(cal_r));
    return text_of("%d (%.2f ohm)", static_cast<int>(cal_r), ohms(cal_r));
}

// {"cal_r": 8391, "ohms": 6.0}, or null.
Json::Value resistance_json(std::optional<int32_t> cal_r)
{
    if (!cal_r)
        return Json::nullValue;
    Json::Value value;
    value["cal_r"] = *cal_r;
    value["ohms"] = ohms(*cal_r);
    return value;
}

bool in_range(const struct tervox &ctx, size_t ch, int32_t cal_r)
{
    const tervox_cal_r_range &range = ctx.cal_r_range[ch];
    const auto word = static_cast<uint32_t>(cal_r); // the range is unsigned
    return range.min == 0 || range.max == 0 || (word >= range.min && word <= range.max);
}

Json::Value range_json(const struct tervox &ctx, size_t ch)
{
    const tervox_cal_r_range &range = ctx.cal_r_range[ch];
    Json::Value value;
    value["min"] = range.min;
    value["max"] = range.max;
    value["min_ohms"] = ohms(static_cast<int32_t>(range.min));
    value["max_ohms"] = ohms(static_cast<int32_t>(range.max));
    return value;
}

// The run's result says only which check failed; this says for which speaker and why, by the
// same rules: a status of 1 or 3, CAL_R within a range whose bounds are set, F0 status 2. Prints
// a line per reason; gives the channel's reasons.
std::string failure_reasons(const struct tervox &ctx, size_t ch, bool diagnostic)
{
    const tervox_cal_record &record = ctx.cal[ch];
    const tervox_cal_r_range &range = ctx.cal_r_range[ch];
    const std::string measured = resistance(record.cal_r);
    std::string reasons;
    const auto reason = [&](const std::string &why) {
        std::printf("CH[%zu] %s failed: %s\n", ch, channel_name(ctx, ch), why.c_str());
        reasons += (reasons.empty() ? "" : "; ") + why;
    };
    if (diagnostic && record.f0_status != 2)
        reason(text_of("F0 status %u, F0 %d Hz", record.f0_status, static_cast<int>(record.f0)));
    if ((record.status | 2) != 3)
        reason(text_of("calibration status %u, CAL_R %s", record.status, measured.c_str()));
    if (!in_range(ctx, ch, record.cal_r))
        reason(text_of("CAL_R %s out of range [%u - %u] (%.2f - %.2f ohm)", measured.c_str(),
                       range.min, range.max, ohms(static_cast<int32_t>(range.min)),
                       ohms(static_cast<int32_t>(range.max))));
    return reasons;
}

// An integer control of every channel, read through the library's reader (CAL_R in use, the
// amplifiers' active flags). Nothing when card 0 does not open.
std::optional<Words> channel_values(const struct tervox &ctx, tervox_ctl_id id)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer)
        return std::nullopt;
    Words values{};
    for (size_t ch = 0; ch < channel_count(ctx); ++ch) {
        std::array<int32_t, 8> out{}; // room for a control of a few values
        tervox_tmixer_get(mixer.get(), ctx.set_ctls[ch][id], out.data());
        values[ch] = out[0];
    }
    return values;
}

// The CAL_R each DSP reports it calibrates with: a 4-byte DSP parameter.
std::optional<Words> dsp_cal_r(const struct tervox &ctx)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer)
        return std::nullopt;
    Words values{};
    for (size_t ch = 0; ch < channel_count(ctx); ++ch)
        values[ch] = tervox_dsp_tmixer_get(mixer.get(), ctx.get_ctls[ch][CTL_CAL_R]);
    return values;
}

// The CAL_R each DSP was given.
std::optional<Words> cal_r_in_use(const struct tervox &ctx)
{
    return channel_values(ctx, CTL_SET_CAL_R);
}

// Reads back the files a successful run stored and compares them with what was measured: the
// run's result is success even when the persist partition took nothing. Marks each channel.
bool stored_as_measured(const struct tervox &ctx, bool diagnostic,
                        std::array<bool, TERVOX_MAX_CHANNELS> &stored_ok)
{
    struct StoredFile {
        const char *path;
        int32_t (*read)(uint32_t *values, size_t count);
    };
    // The diagnostic stores the measured CAL_R words in the F0 file too.
    const std::array files = {StoredFile{ctx.cal_bin_path, tervox_cal_fread},
                              StoredFile{ctx.f0_path, tervox_f0_fread}};
    const size_t count = channel_count(ctx);
    stored_ok.fill(true);
    bool ok = true;
    for (const StoredFile &file : std::span(files).first(diagnostic ? 2 : 1)) {
        std::array<uint32_t, TERVOX_MAX_CHANNELS> stored{};
        if (file.read(stored.data(), count) == -1) {
            std::printf("storing failed: nothing can be read back from %s\n", file.path);
            stored_ok.fill(false);
            ok = false;
            continue;
        }
        for (size_t ch = 0; ch < count; ++ch) {
            if (static_cast<int32_t>(stored[ch]) == ctx.cal[ch].cal_r)
                continue;
            std::printf("storing failed: CH[%zu] %s measured CAL_R %d, %s holds %d\n", ch,
                        channel_name(ctx, ch), static_cast<int>(ctx.cal[ch].cal_r), file.path,
                        static_cast<int>(stored[ch]));
            stored_ok[ch] = false;
            ok = false;
        }
    }
    return ok;
}

// What the DSPs use after the run, compared with what was measured.
bool applied_as_measured(const struct tervox &ctx, const std::optional<Words> &in_use)
{
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
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&interrupt, signal);
    return interrupt;
}

// The amplifiers play audio: a measurement now would hear it.
bool amplifier_active(const struct tervox &ctx)
{
    const auto active = channel_values(ctx, CTL_AMP_ACTIVE_STATUS);
    return active && std::any_of(active->begin(), active->end(), [](int32_t v) { return v != 0; });
}

// Runs the context's calibration run on a thread of its own while this one waits for Ctrl-C (or
// SIGTERM, SIGHUP), which the mask keeps from every thread: it then ends the tool at once, with
// both amplifiers off, after `before_exit` (the taps hand over what they hold).
int32_t interruptible(const char *command, const char *what, struct tervox &ctx,
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
        if (sigtimedwait(&interrupt, nullptr, &poll) < 0)
            continue;
        tvox::apply_path(tvox::amp_off_path);
        before_exit();
        const std::string message =
            text_of("%s interrupted: nothing was stored; both amplifiers are off", what);
        noted(kInterrupted, message);
        std::printf("%s\n", message.c_str());
        std::fflush(stdout);
        finish_output(command, kInterrupted);
        _exit(kInterrupted); // the run's thread sleeps inside the library: it cannot be joined
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
    const char *command = diagnostic ? "diagnose" : "calibrate";
    Session session;
    struct tervox &ctx = session.context();
    if (!card0_opens())
        return kNoDevice;
    const char *what = diagnostic ? "diagnostic" : "calibration";
    if (!force && amplifier_active(ctx))
        return fail(kBusy, text_of("an amplifier is active (AMP Active Status): audio is "
                                   "playing and the %s would measure it; stop playback or give "
                                   "--force",
                                   what));
    ctx.diag_mode = diagnostic ? 1 : 0;
    // Before any thread starts: each inherits the mask, so the signals reach only sigtimedwait.
    const sigset_t interrupt = interrupt_set();
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    int32_t ret = 0;
    std::string printed;
    {
        std::optional<tvoxsp::Progress> progress;
        progress.emplace(diagnostic ? "diagnosing" : "calibrating");
        StreamTap out(1);
        StreamTap errors(2);
        ret = interruptible(command, what, ctx, [&] {
            progress.reset();
            out.text();
            errors.text();
        });
        printed = out.text() + errors.text();
    }
    if (ret == kNoMixer && !card0_opens())
        return kNoDevice;
    std::array<char, 1024> report{};
    ctx.str_format_out(report.data(), report.size());
    // The report's own last line says only what the library's checks saw.
    std::string_view lines = report.data();
    lines = lines.substr(0, lines.rfind('\n', lines.size() >= 2 ? lines.size() - 2 : 0) + 1);
    std::fwrite(lines.data(), 1, lines.size(), stdout);
    for (size_t ch = 0; diagnostic && ch < channel_count(ctx); ++ch)
        std::printf("CH[%zu] %s F0 = %d Hz (status %u)\n", ch, channel_name(ctx, ch),
                    static_cast<int>(ctx.cal[ch].f0), ctx.cal[ch].f0_status);
    std::array<std::string, TERVOX_MAX_CHANNELS> reasons{};
    std::array<bool, TERVOX_MAX_CHANNELS> stored{};
    std::optional<Words> in_use;
    std::string failure;
    int status = 0;
    if (const std::optional<std::string> step = player_failure(printed)) {
        failure = "the silent playback failed: " + *step;
        status = step->find("busy") != std::string::npos ? kBusy : kFailed;
    } else if (ret != 0) {
        for (size_t ch = 0; ch < channel_count(ctx); ++ch)
            reasons[ch] = failure_reasons(ctx, ch, diagnostic);
        failure = "the measurement is out of bounds";
        status = kMeasurement;
    } else if (!stored_as_measured(ctx, diagnostic, stored)) {
        failure = "storing failed";
        status = kStoring;
    } else if (in_use = cal_r_in_use(ctx); !applied_as_measured(ctx, in_use)) {
        failure = "applying failed";
        status = kApplying;
    }
    const bool applied = status == 0;
    Json::Value channels(Json::arrayValue);
    for (size_t ch = 0; ch < channel_count(ctx); ++ch) {
        const tervox_cal_record &record = ctx.cal[ch];
        Json::Value channel;
        channel["name"] = channel_name(ctx, ch);
        channel["status"] = record.status;
        channel["checksum"] = record.checksum;
        channel["cal_r"] = record.cal_r;
        channel["ohms"] = ohms(record.cal_r);
        channel["range"] = range_json(ctx, ch);
        channel["stored"] = stored[ch];
        channel["applied"] = applied || (in_use && (*in_use)[ch] == record.cal_r);
        channel["in_use_cal_r"] = in_use ? Json::Value((*in_use)[ch]) : Json::Value();
        channel["in_use_ohms"] = in_use ? Json::Value(ohms((*in_use)[ch])) : Json::Value();
        channel["reason"] = reasons[ch].empty() ? Json::Value() : Json::Value(reasons[ch]);
        if (diagnostic) {
            channel["f0"] = record.f0;
            channel["f0_status"] = record.f0_status;
        }
        channels.append(channel);
    }
    const std::string verdict =
        std::string(what) + (failure.empty() ? " success" : " failed: " + failure);
    result()["channels"] = channels;
    result()["result"] = std::string(what) + (failure.empty() ? " success" : " failed");
    if (status != 0)
        noted(status, verdict);
    std::printf("%s\nboth amplifiers are off\n", verdict.c_str());
    return status;
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

// The stored calibration, or nothing with the failure named: no file, the wrong size, zeros.
std::optional<Words> stored_calibration(const struct tervox &ctx, int &status)
{
    const size_t count = channel_count(ctx);
    std::array<uint32_t, TERVOX_MAX_CHANNELS> stored{};
    const bool calibrated = tervox_cal_fread(stored.data(), count) != -1;
    const std::optional<std::string> bytes = stored_bytes(ctx.cal_bin_path);
    if (bytes && bytes->size() != count * sizeof(uint32_t)) {
        status = fail(kFailed, text_of("%s holds %zu bytes, not %zu: it is no calibration file",
                                       ctx.cal_bin_path, bytes->size(), count * sizeof(uint32_t)));
        return std::nullopt;
    }
    if (!calibrated || !bytes) {
        status = fail(kFailed, text_of("no stored calibration in %s", ctx.cal_bin_path));
        return std::nullopt;
    }
    if (bytes->find_first_not_of('\0') == std::string::npos) {
        status =
            fail(kFailed, text_of("%s holds zeros: no speaker was calibrated", ctx.cal_bin_path));
        return std::nullopt;
    }
    Words words{};
    std::copy_n(stored.begin(), count, words.begin());
    return words;
}

// Where a channel's CAL_R is held besides the file: a name and the value, when it reads.
struct Holder {
    const char *name; // in JSON
    const char *said; // in text: "differs from the DSP's"
    std::optional<Words> values;
};

// Compares the stored calibration with each holder per channel, printing a line per difference
// and filling "channels"; kMismatch when one differs or is out of range.
int compare(const struct tervox &ctx, const std::optional<Words> &stored,
            std::span<const Holder> holders)
{
    Json::Value channels(Json::arrayValue);
    bool all_agree = stored.has_value();
    for (size_t ch = 0; ch < channel_count(ctx); ++ch) {
        Json::Value channel;
        channel["name"] = channel_name(ctx, ch);
        channel["stored"] = stored ? resistance_json((*stored)[ch]) : Json::Value();
        bool agree = stored.has_value();
        for (const Holder &holder : holders) {
            const std::optional<int32_t> value =
                holder.values ? std::optional((*holder.values)[ch]) : std::nullopt;
            channel[holder.name] = resistance_json(value);
            if (!stored || (value && *value == (*stored)[ch]))
                continue;
            agree = false;
            std::printf("CH[%zu] %s: stored CAL_R %s differs from %s, %s\n", ch,
                        channel_name(ctx, ch), resistance((*stored)[ch]).c_str(), holder.said,
                        value ? resistance(*value).c_str() : "unreadable");
        }
        const bool ranged = stored && in_range(ctx, ch, (*stored)[ch]);
        if (stored && !ranged)
            std::printf("CH[%zu] %s: stored CAL_R %s out of range [%u - %u]\n", ch,
                        channel_name(ctx, ch), resistance((*stored)[ch]).c_str(),
                        ctx.cal_r_range[ch].min, ctx.cal_r_range[ch].max);
        channel["agree"] = agree;
        channel["in_range"] = ranged;
        channel["range"] = range_json(ctx, ch);
        all_agree = all_agree && agree && ranged;
        channels.append(channel);
    }
    result()["channels"] = channels;
    result()["agree"] = all_agree;
    if (!stored)
        return kFailed;
    return all_agree ? 0
                     : noted(kMismatch, "the stored calibration is not the one in use everywhere");
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
    tervox_cal_fread_and_check();
    if (f0)
        std::printf("(the F0 file holds the CAL_R words the diagnostic measured, not Hz)\n");
    int status = 0;
    const std::optional<Words> stored = stored_calibration(ctx, status);
    const std::array holders = {Holder{"kernel", "the one in use", cal_r_in_use(ctx)}};
    const int compared = compare(ctx, stored, holders);
    // What the DSP reports is shown beside them; `verify` holds it to the stored value too.
    const std::optional<Words> dsp = dsp_cal_r(ctx);
    for (Json::ArrayIndex ch = 0; ch < result()["channels"].size(); ++ch)
        result()["channels"][ch]["dsp"] =
            resistance_json(dsp ? std::optional((*dsp)[ch]) : std::nullopt);
    return stored ? compared : status;
}

// The driver's calibration slot; nothing when it does not read.
std::optional<Words> slot_values()
{
    std::array<uint32_t, 2> slot{};
    if (tervox_cal_slot_read(slot.data(), slot.size()) != 0)
        return std::nullopt;
    Words words{};
    std::copy(slot.begin(), slot.end(), words.begin());
    return words;
}

int verify(Args args)
{
    if (!args.empty())
        return kUsage;
    Session session;
    struct tervox &ctx = session.context();
    if (!card0_opens())
        return kNoDevice;
    int status = 0;
    const std::optional<Words> stored = stored_calibration(ctx, status);
    // The DSP reports the CAL_R it calibrates with; the kernel keeps the one it was given.
    const std::array holders = {
        Holder{"dsp", "the DSP's", dsp_cal_r(ctx)},
        Holder{"kernel", "the kernel's", cal_r_in_use(ctx)},
        Holder{"slot", "the driver slot's", slot_values()},
    };
    const std::optional<Words> &slot = holders[2].values;
    if (!slot)
        std::printf("the driver's calibration slot cannot be read\n");
    else if (std::all_of(slot->begin(), slot->end(), [](int32_t v) { return v == 0; }))
        std::printf("the driver's calibration slot is unset (a station sets it with tvoxsp slot "
                    "write CAL_R_T CAL_R_B after calibrate)\n");
    const int compared = compare(ctx, stored, holders);
    if (!stored)
        return status;
    std::printf("%s\n", compared == 0 ? "verify success" : "verify failed");
    return compared;
}

constexpr std::array kCalibrationCommands = {
    Command{"calibrate", "[--force]",
            "measure both speakers' resistance (CAL_R), store and apply it, print the result; "
            "leaves both amplifiers off (refused while one is active, unless --force)",
            calibrate, "--force  measure even while an amplifier is active",
            "tvoxsp --json calibrate"},
    Command{"diagnose", "[--force]",
            "run the speaker diagnostic (F0 check), store and apply the calibration on success; "
            "leaves both amplifiers off (refused while one is active, unless --force)",
            diagnose, "--force  measure even while an amplifier is active", "tvoxsp diagnose"},
    Command{"report", "[--f0]",
            "print the stored CAL_R beside the DSP's and the kernel's values (--f0: and the "
            "stored F0 file)",
            report, "--f0  also the stored F0 file", "tvoxsp report --f0"},
    Command{"verify", "",
            "compare the stored CAL_R with the DSP's, the kernel's and the driver slot's; exit 0 "
            "only when all agree and lie in range",
            verify, "", "tvoxsp --json verify"},
};

} // namespace

std::span<const Command> calibration_commands()
{
    return kCalibrationCommands;
}

} // namespace tvoxsp
