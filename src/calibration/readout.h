// Reading the DSPs' calibration results after a measurement.
#pragma once

#include "tvoxsp/context.h"

#include <cstdint>

namespace tvox
{

// Reads status, CAL_R and checksum of channels 0 .. count-1 into records from the active context's
// read-back controls. At least channel 0 is read, so a count of 0 walks on to channel 8 and ends
// the process. Returns 0, or -22 when the mixer does not open.
int32_t mixer_read_cal_values(tervox_cal_record (&records)[TERVOX_MAX_CHANNELS], uint32_t count);

} // namespace tvox
