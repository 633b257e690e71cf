// The DSP model of the virtual amplifier pair: how the protection firmware of each amplifier
// channel ("T" = 0, "B" = 1) answers a calibration and a speaker diagnostic.
//
// The model publishes what the firmware measured into the stored values of the controls that
// show it, when it measures; reads return the stored values. So a value preset by hand stands
// until the model measures again, and every process (and `tvoxsim show`) sees the same firmware.
//
// Calibration. Every write of 2 to "X DSP Mode" starts a calibration on channel X. It measures
// once the channel has heard silence for kSettleNs while in that mode with its amplifier on
// ("X AMP Enable Switch" 1) and its source on the DSP ("X PCM Source" DSP), counted from the
// later of the mode write and the path becoming ready. Silence is a stream whose peak stays at or
// below kSilentPeak and that reaches the amplifiers: any stream of card 0, or a stream of the AGM
// card whose front end was connected to the amplifiers' back end kAmpBackEnd when it started.
// The measurement of the channel's speaker (speaker.h) goes to every read-back control of the
// channel: "X DSP Get CAL_R", "X DSP Get CAL_STATUS", "X DSP1 Protection 5f210
// CAL_{R,STATUS,CHECKSUM}" and "X Protection 5f210 CAL_{R,STATUS,CHECKSUM}", and stays after the
// mode returns to 1. A calibration that has not heard enough publishes nothing: on a channel
// never measured the status words keep their default 0; on one measured before, the start of
// the calibration turns the status into 2 (no signal), keeping CAL_R.
//
// Diagnostic. Each run of a stream that has played silence to the amplifiers for kSettleNs
// (amplifiers on or off: the diagnostic switches them off before it plays) measures F0 once:
// "X [DSP1 ]Protection 5f210 DIAG_{F0_STATUS,F0,Z_LOW_DIFF}" get the diagnosis of the speaker
// of that moment against the CAL_R in use (speaker.h). Until then they hold 0 (not measured).
//
// The CAL_R the DSP uses is the value of "X DSP Set CAL_R". Writing "X DSP Set CAL_AMBIENT"
// publishes it to "X [DSP1 ]Protection 5f210 CAL_AMBIENT". "X AMP Active Status" is published
// when a stream starts or stops and when the amplifier is switched: 1 while the amplifier is on
// and a stream reaching it runs. All times are CLOCK_MONOTONIC, the clock of the stream records;
// what the model keeps lives in the state's model area.
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

// What channel `channel` (below kChannels) reports now: its speaker, the CAL_R in use and the
// values its read-back controls hold.
struct ChannelReport {
    SpeakerConfig speaker;
    int32_t cal_r_in_use;
    bool calibrating; // DSP mode 2
    bool calibrated;  // the model has measured this channel since the state was made
    Calibration calibration;
    Diagnosis diagnosis;
    bool active;
};
ChannelReport report(Session &session, unsigned channel);

// The storage of "X <suffix>" (X the channel's letter) on card 0, created with its defaults
// when missing; null when the card has no such control.
ControlSlot *channel_slot(Session &session, unsigned channel, std::string_view suffix);

// The peak level of the loudest stream now playing to the amplifiers (0 when none plays).
double playing_peak(Session &session);

// Puts another speaker behind `channel` and journals it; the firmware notices at its next
// measurement.
void set_speaker(Session &session, unsigned channel, const SpeakerConfig &speaker);

} // namespace tvox::sim::dsp
