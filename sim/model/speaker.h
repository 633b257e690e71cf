// What the protection firmware measures on one speaker: the pure rules of the DSP model, with no
// state and no clock.
//
// Units, as the firmware reports them in its 4-byte big-endian parameter words:
//   CAL_R and DIAG_Z_LOW_DIFF: raw resistance code, ohms = raw × 5.85714 / 8192
//   DIAG_F0: resonance frequency in whole hertz
//
// Calibration status (CAL_STATUS):
//   0 not calibrated   1 good   2 no signal (no silent stream long enough)   4 measurement failed
// F0 status (DIAG_F0_STATUS):
//   0 not measured     1 failed (out of limits, or no resonance)            2 passed
//
// Faults: an open speaker fails the measurement and reads the largest resistance a word holds; a
// shorted one measures fine at a tenth of an ohm (which any range check rejects); a calibration
// fault fails the measurement at the speaker's true resistance; an F0 fault only fails the F0
// diagnostic. Open and shorted speakers have no resonance either.
#pragma once

#include "layout.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tvox::sim::dsp
{

inline constexpr uint32_t kStatusGood = 1;
inline constexpr uint32_t kStatusNoSignal = 2;
inline constexpr uint32_t kStatusFailed = 4;

inline constexpr uint32_t kF0Failed = 1;
inline constexpr uint32_t kF0Passed = 2;

// The largest positive value of a signed 25-bit DSP word: what an open speaker reads.
inline constexpr int32_t kRawMax = 0xFFFFFF;
inline constexpr int32_t kRawMin = -0x1000000;
inline constexpr double kShortedOhm = 0.1;

// Raw resistance code of `ohms`, rounded to nearest and clamped to the word's positive range.
int32_t raw_from_ohms(double ohms);
double ohms_from_raw(int32_t raw);

// The four bytes of a signed 25-bit DSP word, most significant first (negative values in two's
// complement over 25 bits, as the firmware sends them).
uint32_t to_word(int32_t value);

struct Calibration {
    uint32_t status;
    int32_t cal_r;
    uint32_t checksum;
};

// The firmware's checksum of a calibration result: status plus CAL_R, in 24 bits.
uint32_t checksum(uint32_t status, int32_t cal_r);
// A measurement that ran long enough on `speaker`.
Calibration measure(const SpeakerConfig &speaker);
// A calibration that heard no usable signal; CAL_R stays what it was.
Calibration no_signal(int32_t cal_r);

struct Diagnosis {
    uint32_t f0_status;
    uint32_t f0_hz;
    int32_t z_low_diff; // measured resistance minus the CAL_R the DSP works with, raw units
};

// The F0 diagnostic of `speaker`, against the CAL_R the DSP uses.
Diagnosis diagnose(const SpeakerConfig &speaker, int32_t cal_r_in_use);

// Fault names as the tool takes and prints them: none, open, shorted, calibration, f0.
std::string_view fault_name(SpeakerFault fault);
std::optional<SpeakerFault> fault_from_name(std::string_view name);

} // namespace tvox::sim::dsp
