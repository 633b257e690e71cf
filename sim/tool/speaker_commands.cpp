// Commands about the speakers behind the amplifiers and what their DSPs report: speaker, speakers.
#include "command.h"
#include "dsp_model.h"
#include "state.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

namespace tvox::sim::tool
{

namespace
{

constexpr std::string_view kSpeakerUsage = "T|B [--ohms R] [--f0 HZ] "
                                           "[--fault none|open|shorted|calibration|f0]";

// Limits of the speaker the model can stand for: its CAL_R code must fit the DSP's word, and
// its F0 lie in the audio band.
constexpr double kMaxOhms = 1000;
constexpr double kMaxF0Hz = 24000;

// A finite number above 0 and at most `max`, or nothing.
std::optional<double> positive_number(const char *text, double max)
{
    char *end = nullptr;
    const double value = std::strtod(text, &end);
    if (*text == '\0' || *end != '\0' || !std::isfinite(value) || value <= 0 || value > max)
        return std::nullopt;
    return value;
}

void print_speaker(unsigned channel, const SpeakerConfig &speaker)
{
    std::printf("%s: speaker %.2f ohm (CAL_R %d), F0 %.0f Hz, fault %s\n",
                dsp::channel_letter(channel).data(), speaker.resistance_ohm,
                dsp::raw_from_ohms(speaker.resistance_ohm), speaker.f0_hz,
                dsp::fault_name(speaker.fault).data());
}

int speaker(std::span<char *const> args)
{
    if (args.empty())
        return usage_error("speaker", "no channel given");
    const std::optional<unsigned> channel = dsp::channel_from_name(args[0]);
    if (!channel)
        return usage_error("speaker", std::string("no such channel: ") + args[0]);
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    Session session = state->lock();
    SpeakerConfig config = session.speaker(*channel);
    for (size_t i = 1; i < args.size(); i += 2) {
        const std::string_view option = args[i];
        if (i + 1 >= args.size())
            return usage_error("speaker", std::string(option) + " needs a value");
        const char *text = args[i + 1];
        if (option == "--ohms" || option == "--f0") {
            const bool resistance = option == "--ohms";
            const double max = resistance ? kMaxOhms : kMaxF0Hz;
            const std::optional<double> number = positive_number(text, max);
            if (!number)
                return usage_error("speaker", std::string(option) +
                                                  " takes a number above 0 and at most " +
                                                  std::to_string(static_cast<int>(max)));
            (resistance ? config.resistance_ohm : config.f0_hz) = *number;
        } else if (option == "--fault") {
            const std::optional<SpeakerFault> fault = dsp::fault_from_name(text);
            if (!fault)
                return usage_error("speaker", std::string("unknown fault: ") + text);
            config.fault = *fault;
        } else {
            return usage_error("speaker", std::string("unknown option: ") + std::string(option));
        }
    }
    if (args.size() > 1)
        dsp::set_speaker(session, *channel, config);
    print_speaker(*channel, config);
    return 0;
}

int speakers(std::span<char *const> args)
{
    if (!args.empty())
        return usage_error("speakers", "too many arguments");
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    Session session = state->lock();
    for (unsigned channel = 0; channel < dsp::kChannels; ++channel) {
        const dsp::ChannelReport report = dsp::report(session, channel);
        const char *letter = dsp::channel_letter(channel).data();
        print_speaker(channel, report.speaker);
        std::printf("%s: DSP uses CAL_R %d (%.2f ohm)\n", letter, report.cal_r_in_use,
                    dsp::ohms_from_raw(report.cal_r_in_use));
        std::printf("%s: %s, status %u, CAL_R %d (%.2f ohm), checksum %u\n", letter,
                    report.calibrating  ? "calibrating"
                    : report.calibrated ? "last calibration"
                                        : "not calibrated",
                    report.calibration.status, report.calibration.cal_r,
                    dsp::ohms_from_raw(report.calibration.cal_r), report.calibration.checksum);
        std::printf("%s: F0 status %u, F0 %u Hz, Z_LOW_DIFF %d, amplifier %s\n", letter,
                    report.diagnosis.f0_status, report.diagnosis.f0_hz, report.diagnosis.z_low_diff,
                    report.active ? "active" : "idle");
    }
    return 0;
}

const Registration registrations[] = {
    Registration{{"speaker", kSpeakerUsage,
                  "show or change the speaker behind a channel (its resistance, F0, fault)",
                  speaker, "--ohms= --f0= --fault="}},
    Registration{{"speakers", "",
                  "show both speakers and what their DSPs report (CAL_R in use, calibration, F0)",
                  speakers}},
};

} // namespace

} // namespace tvox::sim::tool
