// The stored-calibration report: what the persist file, the DSP and the kernel hold, side by side.
#include "calibration/results.h"
#include "mixer/control.h"
#include "mixer/mixer_handle.h"
#include "tvoxsp.h"
#include "util/fatal.h"
#include "util/log.h"

#include <cstdio>
#include <span>

extern "C" int32_t tervox_cal_fread_and_check(void)
{
    const int32_t channels = self->num_channels;
    // Every per-channel array holds 8 entries; the report itself shows two rows at most.
    if (channels > TERVOX_MAX_CHANNELS)
        tvox::fatal();
    const size_t count = channels > 0 ? static_cast<size_t>(channels) : 0;
    uint32_t fs[TERVOX_MAX_CHANNELS] = {};
    int32_t amp_dsp[TERVOX_MAX_CHANNELS] = {};
    uint32_t kernel[TERVOX_MAX_CHANNELS] = {};
    uint32_t f0[TERVOX_MAX_CHANNELS] = {};

    // Missing files and a missing mixer show as zeros; the report is always printed.
    self->fread_backend(fs, count, self->cal_bin_path);
    if (const tvox::MixerHandle mixer = tvox::open_mixer()) {
        for (size_t i = 0; i < count; ++i) {
            const char *name = self->set_ctls[i][CTL_CAL_R];
            tvox::read_control(mixer.get(), name, &kernel[i], sizeof kernel[i]);
            amp_dsp[i] = tervox_dsp_tmixer_get(mixer.get(), name);
        }
    } else {
        tvox::log_tervox(tvox::Priority::error, "%s: Failed to open mixer\n",
                         "mixer_test_read_cal_values");
    }

    const std::span<const uint32_t> rows(fs, 2);
    int32_t ret = std::printf("'CHANNEL'     'FS'     'AMP DSP'  'KERNEL'\n");
    for (size_t i = 0; i < count; ++i) {
        const uint32_t stored = tvox::checked_at(rows, i);
        ret = std::printf("CH[%d]: %.2f(%5d) - %8d - %8d\n", static_cast<int>(i),
                          tvox::cal_r_ohms(stored), static_cast<int>(stored), amp_dsp[i],
                          static_cast<int>(kernel[i]));
    }
    if (self->diag_mode == 0)
        return ret;

    ret = std::printf("\n");
    self->fread_backend(f0, count, self->f0_path);
    const std::span<const uint32_t> f0_rows(f0, 2);
    for (size_t i = 0; i < count; ++i)
        ret = std::printf("F0 CH[%d]: %4d - '%s'\n", static_cast<int>(i),
                          static_cast<int>(tvox::checked_at(f0_rows, i)), self->f0_path);
    return ret;
}
