// The phone folder of a simulator folder: what the library finds at its fixed phone paths once
// they are mapped into "<dir>/phone" (sim/preload).
//
//   phone/odm/etc/backend_conf.xml             back ends of the virtual AGM card
//   phone/odm/etc/audio/silent-3sec.wav        3 s of silence, 48 kHz, 2 ch, 16 bit
//   phone/sdcard/Music/lrp_loop.wav            0.5 s tone, left then right, 48 kHz, 2 ch, 16 bit
//   phone/sdcard/Music/loud.wav                1 s tone at 80 % of full scale on both channels
//   phone/sdcard/Download/                     real-time log folder
//   phone/mnt/vendor/persist/audio/            calibration files
#pragma once

#include "state.h"

#include <string>

namespace tvox::sim
{

// The back end whose graph the simulator builds without an MFC module.
inline constexpr const char *kNoMfcBackend = "TDM-LPAIF-RX-PRIMARY";

// Creates the phone folder of simulator folder `dir` (its files are replaced, other files in
// it stay) and marks kNoMfcBackend in the state. 0 or -errno.
int install_phone(const std::string &dir);

// The WAV files of the phone folder, whole: a canonical 44-byte header and the samples.
std::string silent_wav();
std::string lrp_loop_wav();
// Loud enough that the live log shows the coils heating and the protection stepping in.
std::string loud_wav();

} // namespace tvox::sim
