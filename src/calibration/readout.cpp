#include "calibration/readout.h"

#include "calibration/results.h"
#include "mixer/mixer_handle.h"
#include "tvoxsp.h"
#include "util/fatal.h"
#include "util/log.h"

namespace tvox
{

int32_t mixer_read_cal_values(tervox_cal_record (&records)[TERVOX_MAX_CHANNELS], uint32_t count)
{
    const MixerHandle mixer = open_mixer();
    if (!mixer) {
        log_tervox(Priority::error, "%s: Failed to open mixer\n", "mixer_read_cal_values");
        return -22;
    }
    const char **names = nullptr;
    // The channel counter is 8 bits wide and tested after each channel, as the firmware
    // interface was written; a channel past the per-channel arrays ends the process.
    uint8_t channel = 0;
    do {
        names = checked_at(self->get_ctls, channel);
        tervox_cal_record &record = checked_at(records, channel);
        record.status = tervox_dsp_tmixer_get(mixer.get(), names[CTL_CAL_STATUS]);
        record.cal_r = tervox_dsp_tmixer_get(mixer.get(), names[CTL_CAL_R]);
        record.checksum = tervox_dsp_tmixer_get(mixer.get(), names[CTL_CAL_CHECKSUM]);
    } while (static_cast<uint32_t>(++channel) != count);
    // The ambient temperature the DSP calibrated at goes to the log only.
    tervox_dsp_tmixer_get(mixer.get(), names[CTL_CAL_AMBIENT]);
    return 0;
}

} // namespace tvox

extern "C" int32_t tervox_cal_get_result(float *out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        out[i] = tvox::measured_ohms(tvox::checked_at(self->cal, i).cal_r);
    return 0;
}

extern "C" int32_t tervox_cal_f0_get_result(uint32_t *out, size_t count)
{
    for (size_t i = 0; i < count; ++i)
        out[i] = tvox::checked_at(self->cal, i).f0;
    return 0;
}
