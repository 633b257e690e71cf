#include "speaker.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tvox::sim::dsp
{

namespace
{

// The amplifier's resistance scale: 8192 raw steps per 5.85714 ohms.
constexpr double kOhmPerStep = 5.85714 / 8192;
constexpr uint32_t kWordMask = 0x1FFFFFF;
constexpr uint32_t kChecksumMask = 0xFFFFFF;

constexpr std::array<std::string_view, 5> kFaultNames = {"none", "open", "shorted", "calibration",
                                                         "f0"};

// The resistance the firmware sees, faults included.
int32_t measured_raw(const SpeakerConfig &speaker)
{
    switch (speaker.fault) {
    case SpeakerFault::open:
        return kRawMax;
    case SpeakerFault::shorted:
        return raw_from_ohms(kShortedOhm);
    default:
        return raw_from_ohms(speaker.resistance_ohm);
    }
}

} // namespace

int32_t raw_from_ohms(double ohms)
{
    if (!(ohms > 0)) // also NaN
        return 0;
    return static_cast<int32_t>(std::min(std::round(ohms / kOhmPerStep), double{kRawMax}));
}

double ohms_from_raw(int32_t raw)
{
    return raw * kOhmPerStep;
}

uint32_t to_word(int32_t value)
{
    return static_cast<uint32_t>(std::clamp(value, kRawMin, kRawMax)) & kWordMask;
}

uint32_t checksum(uint32_t status, int32_t cal_r)
{
    return (status + static_cast<uint32_t>(cal_r)) & kChecksumMask;
}

Calibration measure(const SpeakerConfig &speaker)
{
    const bool fails =
        speaker.fault == SpeakerFault::open || speaker.fault == SpeakerFault::calibration_failure;
    const uint32_t status = fails ? kStatusFailed : kStatusGood;
    const int32_t cal_r = measured_raw(speaker);
    return {status, cal_r, checksum(status, cal_r)};
}

Calibration no_signal(int32_t cal_r)
{
    return {kStatusNoSignal, cal_r, checksum(kStatusNoSignal, cal_r)};
}

Diagnosis diagnose(const SpeakerConfig &speaker, int32_t cal_r_in_use)
{
    const int32_t diff = measured_raw(speaker) - cal_r_in_use;
    switch (speaker.fault) {
    case SpeakerFault::open:
    case SpeakerFault::shorted:
        return {kF0Failed, 0, diff};
    default:
        break;
    }
    const auto f0 = static_cast<uint32_t>(std::clamp(std::round(speaker.f0_hz), 0.0, 1e6));
    return {speaker.fault == SpeakerFault::f0_failure ? kF0Failed : kF0Passed, f0, diff};
}

std::string_view fault_name(SpeakerFault fault)
{
    const auto index = static_cast<size_t>(fault);
    return index < kFaultNames.size() ? kFaultNames[index] : "?";
}

std::optional<SpeakerFault> fault_from_name(std::string_view name)
{
    for (size_t i = 0; i < kFaultNames.size(); ++i) {
        if (kFaultNames[i] == name)
            return static_cast<SpeakerFault>(i);
    }
    return std::nullopt;
}

} // namespace tvox::sim::dsp
