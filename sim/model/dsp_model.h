// The DSP model of the virtual amplifier pair: how the protection firmware of each amplifier
// channel ("T" = 0, "B" = 1) answers a calibration and a speaker diagnostic.
//
// Calibration. Writing 2 to "X DSP Mode" starts a calibration on channel X; it measures once the
// channel has heard silence for kSettleNs while in that mode with its amplifier on ("X AMP Enable
// Switch" 1) and its source on the DSP ("X PCM Source" DSP). Silence is a stream whose peak stays
// at or below kSilentPeak and that reaches the amplifiers: any stream of card 0, or a stream of
// the AGM card whose front end is connected to the amplifiers' back end kAmpBackEnd. Until then
// the channel reports status 2 (no signal); once heard, the measurement of its speaker
// (speaker.h) and stays until the next calibration starts, also after the mode returns to 1.
// The result is reported on every read-back control of the channel: "X DSP Get CAL_R",
// "X DSP Get CAL_STATUS", "X DSP1 Protection 5f210 CAL_{R,STATUS,CHECKSUM}" and
// "X Protection 5f210 CAL_{R,STATUS,CHECKSUM}". Before any calibration the status is 0 and
// CAL_R is the one the DSP uses.
//
// Diagnostic. "X [DSP1 ]Protection 5f210 DIAG_{F0_STATUS,F0,Z_LOW_DIFF}" report the F0
// diagnosis of the channel's speaker (speaker.h) once any silent stream that reaches the
// amplifiers has run for kSettleNs (the diagnostic plays silence with the amplifiers off);
// before that, F0 status 0 (not measured).
//
// The CAL_R the DSP uses is the value of "X DSP Set CAL_R"; "X [DSP1 ]Protection 5f210
// CAL_AMBIENT" read the ambient temperature of "X DSP Set CAL_AMBIENT". "X AMP Active Status"
// is 1 while the amplifier is on and a stream reaching it runs. All times are CLOCK_MONOTONIC,
// the clock of the stream records; what the model keeps lives in the state's model area, so
// every process sees the same firmware.
#pragma once

#include "speaker.h"
#include "state.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace tvox::sim::dsp
{

inline constexpr size_t kChannels = 2;
inline constexpr int64_t kSettleNs = 1'500'000'000;
inline constexpr double kSilentPeak = 0.001;
inline constexpr std::string_view kAmpBackEnd = "TDM-LPAIF-RX-SECONDARY";

// "T" for channel 0, "B" for channel 1.
std::string_view channel_letter(unsigned channel);
// Channel of "T", "B", "0" or "1".
std::optional<unsigned> channel_from_name(std::string_view name);

// What channel `channel` (below kChannels) reports now, as its controls would.
struct ChannelReport {
    SpeakerConfig speaker;
    int32_t cal_r_in_use;
    bool calibrating; // DSP mode 2
    bool calibrated;  // a calibration has measured or given up since the state was made
    Calibration calibration;
    Diagnosis diagnosis;
    bool active;
};
ChannelReport report(Session &session, unsigned channel);

// Puts another speaker behind `channel` and journals it.
void set_speaker(Session &session, unsigned channel, const SpeakerConfig &speaker);

} // namespace tvox::sim::dsp
