// Start-up and teardown of the context record the HAL hands in.
#include "calibration/cal_thread.h"
#include "context/ctl_tables.h"
#include "mixer/paths.h"
#include "tvoxsp.h"
#include "util/exported_data.h"
#include "util/fatal.h"
#include "util/log.h"

#include <pthread.h>

struct tervox *self = nullptr;
void *tervox_this = nullptr;

namespace
{

// The amplifier pair of this product; the one-channel branch below serves builds for a single
// amplifier.
constexpr int32_t kChannels = 2;
constexpr uint32_t kDefaultCalR = 8391;
constexpr tervox_cal_r_range kTopRange{8000, 12000};
constexpr tervox_cal_r_range kBottomRange{6500, 10500};

} // namespace

extern "C" int32_t tervox_cal_init(struct tervox *ctx)
{
    // The playback thread of a run may be reading self at this moment.
    tvox::publish(self, "self", ctx);
    // These lines are emitted on every start-up; log readers key on them.
    for (int i = 0; i <= 2; ++i)
        tvox::log_tervox(tvox::Priority::error, "channel[%d] : %d - %d\n", i, kChannels, kChannels);

    ctx->set_ctls[0] = tvox::ctl::top_write;
    ctx->get_ctls[0] = tvox::ctl::top_read;
    ctx->num_channels = kChannels;
    ctx->prot_ctls[0] = tvox::ctl::top_protection;
    ctx->channel_name[0] = "T";

    const int32_t channels = ctx->num_channels;
    if (channels >= 2) {
        ctx->get_ctls[1] = tvox::ctl::bottom_read;
        ctx->prot_ctls[1] = tvox::ctl::bottom_protection;
        ctx->set_ctls[1] = tvox::ctl::bottom_write;
        ctx->channel_name[1] = "B";
        // Only two channels have defaults to fill.
        if (channels != 2)
            tvox::fatal();
        ctx->cal_r_default[0] = kDefaultCalR;
        ctx->cal_r_default[1] = kDefaultCalR;
        ctx->cal_r_range[0] = kTopRange;
        ctx->cal_r_range[1] = kBottomRange;
    } else if (channels == 1) {
        ctx->cal_r_default[0] = kDefaultCalR;
        ctx->cal_r_range[0] = kTopRange;
    }

    ctx->playback = tervox_agmplay;
    ctx->channel_swap = tervox_qdsp_channel_swap;
    ctx->fread_backend = tervox_default_fread;
    ctx->fwrite_backend = tervox_default_fwrite;
    ctx->txt_fwrite_backend = tervox_ascii_fwrite;
    ctx->qdsp_ctls = tvox::ctl::qdsp;
    ctx->silent_wav_path = "/odm/etc/audio/silent-3sec.wav";
    ctx->cal_bin_path = "/mnt/vendor/persist/audio/tvox_calr.bin";
    ctx->cal_txt_path = "/mnt/vendor/persist/audio/tvox_calr.txt";
    ctx->f0_path = "/mnt/vendor/persist/audio/tvox_f0.bin";
    ctx->play_card = 100;
    ctx->play_device = 100;
    ctx->cal_ok = 1;
    ctx->backend_name = "TDM-LPAIF-RX-SECONDARY";
    ctx->run_calibration = tervox_cal_run_calibration;
    ctx->str_format_out = tervox_cal_str_format_out;
    ctx->apply = tervox_cal_apply;
    ctx->get_result = tervox_cal_get_result;
    ctx->cal_fwrite = tervox_cal_fwrite;
    ctx->cal_fread = tervox_cal_fread;
    ctx->diag_mode = 0;
    tvox::open_calibrations(ctx);
    return pthread_mutex_init(&ctx->mutex, nullptr);
}

extern "C" int32_t tervox_cal_deinit(struct tervox *ctx)
{
    // A run on another thread ends before the HAL may free the record (and before self is
    // rebound under it); a context that never started a calibration has no thread to join.
    const int joined = tvox::close_calibrations(ctx);
    tvox::publish(self, "self", ctx);
    if (joined < 0)
        tvox::log_tervox(tvox::Priority::info, "%s: Unable to join the boot thread",
                         "tervox_cal_deinit");
    return pthread_mutex_destroy(&self->mutex);
}

extern "C" int32_t tervox_calib_exit(void)
{
    return tvox::apply_path(tvox::amp_off_path);
}

extern "C" void tervox_cal_exit(void) {}
