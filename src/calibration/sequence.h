// Steps shared by the calibration sequences and the diagnostic.
#pragma once

#include "tvoxsp/context.h"

#include <cstdint>

namespace tvox
{

// Plays the silent file through the context's playback slot on the calling thread. False (and
// logged) when no playback is installed.
bool play_silence(struct tervox *ctx);

// Switches both amplifiers off, then opens and closes the mixer twice more (empty paths), as the
// firmware expects before a measurement. Returns the first nonzero path result, else 0.
int32_t switch_amps_off();

} // namespace tvox
