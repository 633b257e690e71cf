// The living side of the virtual amplifiers: what the protection firmware's real-time log and the
// amplifier's temperature register show while audio plays.
//
// Each channel's speaker is driven by the loudest stream now playing to the amplifiers, scaled by
// the channel it plays: its DSP's channel balance ("X DSP1 Protection 5f210 CH_BAL", second byte
// non-zero: the right channel) picks left (full level) or right (kRightLevel of it), so a swap
// exchanges what the two amplifiers log. Nothing reaches the speaker while its amplifier is off
// or its source is "Zero" (a firmware reload mutes both); with the source on the audio port
// (bypass) the speaker plays but the firmware hears nothing.
//
//   voltage  = level × kFullScaleVolts         current = voltage / resistance (open: 0,
//   excursion = level × 0.8 (an F0 fault: 0.99)                   clamped at kMaxAmps)
//   coil temperature: first order towards ambient + kKelvinPerWatt × voltage × current / 2
//   with time constant kThermalTauNs; ambient is 25 °C.
//
// The log ("X DSP1 Protection 5f210 RTLOG_STATE" and "... RTLOG_DATA") delivers while the
// protection firmware runs ("X DSP1 Firmware" Protection), is configured through the "cd"
// controls (RTLOG_ENABLE 1, RTLOG_COUNT 4, RTLOG_VARIABLE 0x6F 0x39F 0x3AC 0x3AD) and is fed
// (amplifier registers 0x2020 bit 3 and 0x2018 bit 10 set). Then RTLOG_STATE reads 1 and
// RTLOG_DATA the pairs {variable, value} of 24-bit words (sign in bit 23): 0x6F the coil
// temperature × 2^14, 0x39F the voltage × 2^19, 0x3AC the current × 2^19, 0x3AD the excursion
// × 2^23. Otherwise RTLOG_STATE reads 0 and RTLOG_DATA its last block. Register 0x4308 keeps its
// high bits; its low 12 bits read the temperature code, °C × 4 (clamped to 0..4095). Writing 1 to
// "X DSP1 Boot Switch" restarts the firmware: its log configuration is cleared and the coil starts
// at ambient again.
#pragma once

#include "model.h"
#include "state.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace tvox::sim::live
{

inline constexpr double kFullScaleVolts = 10.0;
inline constexpr double kMaxAmps = 15.9;
inline constexpr double kRightLevel = 0.6;
inline constexpr double kAmbientC = 25.0;
inline constexpr double kKelvinPerWatt = 10.0;
inline constexpr int64_t kThermalTauNs = 3'000'000'000;
inline constexpr uint32_t kTemperatureRegister = 0x4308;
inline constexpr uint32_t kFeedRegister = 0x2020;
inline constexpr uint32_t kFeedBit = 0x8;
inline constexpr uint32_t kLogRegister = 0x2018;
inline constexpr uint32_t kLogBit = 0x400;
inline constexpr std::array<uint32_t, 4> kVariables = {0x6F, 0x39F, 0x3AC, 0x3AD};

// Where the live state sits in the state's model area (the calibration model keeps the start).
inline constexpr size_t kAreaOffset = kModelAreaBytes / 2;

// What one channel's firmware and speaker show now.
struct ChannelLive {
    bool firmware_running;
    bool configured;
    bool fed;
    double level;
    double volts;
    double amps;
    double excursion;
    double temperature_c;
    uint32_t temperature_code;
    uint64_t samples; // log blocks delivered since the firmware last booted
};

// Brings channel `channel` (below dsp::kChannels) up to now and reports it.
ChannelLive report(Session &session, unsigned channel);

// Stores the temperature code in the low 12 bits of register 0x4308 of `channel`.
void refresh_temperature_register(Session &session, unsigned channel);

// Hooks of the DSP model for the channel's control named "X <suffix>". on_write() runs before a
// write is served (a read command of the temperature register refreshes the register first) and
// refuses, with -EBUSY, writes to the "cd" algorithm's controls while another firmware than
// Protection is selected; on_read() fills the log controls.
int on_write(Session &session, unsigned channel, std::string_view suffix, Value value);
void on_read(Session &session, unsigned channel, std::string_view suffix, Value value);

} // namespace tvox::sim::live
