// The library's mixer paths: ordered (control, value text) steps on card 0, applied whole with
// apply_path. "udelay" steps pause for the given number of microseconds.
#pragma once

#include "tvoxsp/mixer.h"

#include <array>
#include <span>

namespace tvox
{

using PathEntry = tervox_mixer_path_entry;

inline int32_t apply_path(std::span<const PathEntry> path)
{
    return tervox_apply_mixer_path(path.data(), path.size());
}

// Speaker and receiver routing for the playback test.
inline constexpr auto spk_playback_path = std::to_array<PathEntry>({
    {"SPK DSP1 Firmware", "Protection"},
    {"SPK DSP_RX1 Source", "ASP_RX2"},
    {"SPK DSP_RX2 Source", "ASP_RX2"},
    {"SPK AMP Enable Switch", "1"},
    {"SPK DACPCM Source", "DSP_TX1"},
    {"SPK Digital PCM Volume", "817"},
});

inline constexpr auto rcv_playback_path = std::to_array<PathEntry>({
    {"RCV DSP1 Firmware", "Protection"},
    {"RCV DSP_RX1 Source", "ASP_RX1"},
    {"RCV DSP_RX2 Source", "ASP_RX1"},
    {"RCV AMP Enable Switch", "1"},
    {"RCV DACPCM Source", "DSP_TX1"},
    {"RCV Digital PCM Volume", "817"},
    {"PRI_MI2S_RX Audio Mixer MultiMedia1", "1"},
});

// Both amplifiers muted and switched off.
inline constexpr auto amp_off_path = std::to_array<PathEntry>({
    {"T PCM Source", "Zero"},
    {"T AMP Enable Switch", "0"},
    {"B PCM Source", "Zero"},
    {"B AMP Enable Switch", "0"},
});

// Both amplifiers fed by their DSP and switched on.
inline constexpr auto amp_on_dsp_path = std::to_array<PathEntry>({
    {"T PCM Source", "DSP"},
    {"T AMP Enable Switch", "1"},
    {"B PCM Source", "DSP"},
    {"B AMP Enable Switch", "1"},
});

// Calibration mode at an ambient temperature of 30.
inline constexpr auto cal_mode_path = std::to_array<PathEntry>({
    {"T DSP Set CAL_AMBIENT", "30"},
    {"T DSP Mode", "2"},
    {"B DSP Set CAL_AMBIENT", "30"},
    {"B DSP Mode", "2"},
});

// Back to normal protection.
inline constexpr auto run_mode_path = std::to_array<PathEntry>({
    {"T DSP Mode", "1"},
    {"B DSP Mode", "1"},
});

inline constexpr auto dsp_source_path = std::to_array<PathEntry>({
    {"T PCM Source", "DSP"},
    {"B PCM Source", "DSP"},
});

inline constexpr auto dsp_bypass_path = std::to_array<PathEntry>({
    {"T PCM Source", "ASPRX1"},
    {"B PCM Source", "ASPRX1"},
});

// The firmware reload's own table, with the amplifier-off steps.
inline constexpr auto reload_off_path = amp_off_path;

// Applied after reload_off_path: it only opens and closes the mixer.
inline constexpr std::array<PathEntry, 0> reload_load_path{};

// The real-time log samples four protection variables on each amplifier.
inline constexpr auto rtlog_setup_path = std::to_array<PathEntry>({
    {"T DSP1 Protection cd RTLOG_ENABLE", "00 00 00 00"},
    {"B DSP1 Protection cd RTLOG_ENABLE", "00 00 00 00"},
    {"T DSP1 Protection cd RTLOG_VARIABLE",
     "0x00 0x00 0x00 0x6F 0x00 0x00 0x03 0x9F 0x00 0x00 0x03 0xAC 0x00 0x00 0x03 0xAD"},
    {"B DSP1 Protection cd RTLOG_VARIABLE",
     "0x00 0x00 0x00 0x6F 0x00 0x00 0x03 0x9F 0x00 0x00 0x03 0xAC 0x00 0x00 0x03 0xAD"},
    {"T DSP1 Protection cd RTLOG_COUNT", "00 00 00 04"},
    {"B DSP1 Protection cd RTLOG_COUNT", "00 00 00 04"},
    {"T DSP1 Protection cd RTLOG_ENABLE", "00 00 00 01"},
    {"B DSP1 Protection cd RTLOG_ENABLE", "00 00 00 01"},
});

inline constexpr auto rtlog_state_clear_path = std::to_array<PathEntry>({
    {"T DSP1 Protection cd RTLOG_STATE", "00 00 00 00"},
    {"B DSP1 Protection cd RTLOG_STATE", "00 00 00 00"},
});

inline constexpr auto rtlog_stop_path = std::to_array<PathEntry>({
    {"T DSP1 Protection cd RTLOG_ENABLE", "00 00 00 00"},
    {"B DSP1 Protection cd RTLOG_ENABLE", "00 00 00 00"},
});

inline constexpr auto boot_firmware_path = std::to_array<PathEntry>({
    {"T DSP1 Firmware", "Protection"},
    {"T DSP1 Preload Switch", "1"},
    {"T DSP1 Boot Switch", "1"},
    {"B DSP1 Firmware", "Protection"},
    {"B DSP1 Preload Switch", "1"},
    {"B DSP1 Boot Switch", "1"},
});

} // namespace tvox
