// Speaker diagnostic: protection-firmware results of every channel, judged by their F0 status,
// stored and applied when all pass.
#include "calibration/sequence.h"
#include "mixer/mixer_handle.h"
#include "tvoxsp.h"
#include "util/fatal.h"
#include "util/log.h"

namespace
{

// Reads every channel's protection results into its record, in the firmware's order.
int32_t read_prot_values(struct tervox *ctx, size_t channels)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        tvox::log_tervox(tvox::Priority::error, "%s: Failed to open mixer\n",
                         "mixer_read_diag_values");
        return -22;
    }
    for (size_t ch = 0; ch < channels; ++ch) {
        const char **names = tvox::checked_at(ctx->prot_ctls, ch);
        tervox_cal_record &record = ctx->cal[ch];
        auto read = [&](tervox_ctl_id id) { return tervox_dsp_tmixer_get(mixer.get(), names[id]); };
        record.f0_status = read(CTL_DIAG_F0_STATUS);
        record.f0 = read(CTL_DIAG_F0);
        record.z_low_diff = read(CTL_DIAG_Z_LOW_DIFF);
        record.status = read(CTL_CAL_STATUS);
        record.cal_r = read(CTL_CAL_R);
        record.checksum = read(CTL_CAL_CHECKSUM);
    }
    return 0;
}

} // namespace

extern "C" int32_t tervox_cal_diagnostic(void)
{
    constexpr const char *kFunction = "tervox_cal_diagnostic";
    tvox::log_tervox(tvox::Priority::info, "%s: running...\n", kFunction);
    if (const int32_t ret = tvox::switch_amps_off())
        return ret;
    if (!tvox::play_silence(self))
        return -1;

    const int32_t num_channels = self->num_channels;
    const size_t channels = num_channels > 0 ? static_cast<size_t>(num_channels) : 0;
    if (const int32_t ret = read_prot_values(self, channels))
        return ret;
    for (size_t ch = 0; ch < channels; ++ch)
        tvox::log_tervox(tvox::Priority::info, "%s: Channel[%d] CAL_R = %d, F0 = %d\n", kFunction,
                         static_cast<int>(ch), self->cal[ch].cal_r,
                         static_cast<int>(self->cal[ch].f0));
    // The measured CAL_R words: what both the F0 file and the calibration files receive.
    uint32_t cal_r[4] = {};
    for (size_t ch = 0; ch < channels; ++ch)
        tvox::checked_at(cal_r, ch) = static_cast<uint32_t>(self->cal[ch].cal_r);

    auto *records = reinterpret_cast<uint32_t *>(self->cal);
    if (const int32_t ret = tervox_cal_diag_check(records, channels))
        return ret;
    tervox_f0_fwrite(cal_r, channels);
    if (const int32_t ret = tervox_cal_check(records, channels))
        return ret;
    tervox_cal_fwrite(cal_r, channels);
    tervox_cal_apply(cal_r, channels);
    return 0;
}

extern "C" int32_t tervox_cal_run_diagnostic(void)
{
    return tervox_cal_diagnostic();
}

extern "C" int32_t tervox_cal_run_diagnostic_test(void)
{
    return tervox_cal_diagnostic();
}
