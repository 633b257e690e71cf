// Calibration run: the state machine the HAL calls, the online and synchronous sequences and the
// playback thread.
#include "calibration/cal_thread.h"
#include "calibration/readout.h"
#include "calibration/sequence.h"
#include "mixer/control.h"
#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "tvoxsp.h"
#include "util/atomic.h"
#include "util/fatal.h"
#include "util/log.h"

#include <algorithm>
#include <chrono>
#include <thread>

using namespace std::chrono_literals;

namespace tvox
{

bool play_silence(struct tervox *ctx)
{
    if (ctx->playback == nullptr) {
        log_tervox(Priority::info, "No dummy playbcak api, error!\n");
        return false;
    }
    ctx->playback(ctx);
    return true;
}

int32_t switch_amps_off()
{
    if (const int32_t ret = apply_path(amp_off_path))
        return ret;
    if (const int32_t ret = apply_path({}))
        return ret;
    return apply_path({});
}

} // namespace tvox

namespace
{

enum : uint32_t { kIdle = 0, kRunning = 1, kFinished = 2 };

// Two channels are measured; their CAL_R words are what gets stored and applied.
using CalValues = uint32_t[2];

uint32_t *records_of(struct tervox *ctx)
{
    return reinterpret_cast<uint32_t *>(ctx->cal);
}

// Logs each channel's measurement and gathers its CAL_R into values (a third channel ends the
// process: only two words are stored).
void collect_cal_r(const char *function, CalValues &values)
{
    const int32_t channels = self->num_channels;
    for (int32_t ch = 0; ch < channels; ++ch) {
        const tervox_cal_record &record = tvox::checked_at(self->cal, ch);
        tvox::log_tervox(
            tvox::Priority::info, "%s: Channel[%d] : status[%d], chksum[%d], calr[%d]\n", function,
            ch, static_cast<int>(record.status), static_cast<int>(record.checksum), record.cal_r);
    }
    for (int32_t ch = 0; ch < channels; ++ch)
        tvox::checked_at(values, ch) = static_cast<uint32_t>(self->cal[ch].cal_r);
}

// True when an amplifier reports activity, or when that cannot be told (no mixer).
bool amps_active()
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        tvox::log_tervox(tvox::Priority::error, "%s: Failed to open mixer\n",
                         "tervox_amp_is_active");
        return true;
    }
    // One word, cleared once: a channel whose control cannot be read repeats the previous one.
    uint32_t word = 0;
    uint32_t any = 0;
    for (int32_t ch = 0; ch < self->num_channels; ++ch) {
        const char **names = tvox::checked_at(self->set_ctls, ch);
        tvox::read_control(mixer.get(), names[CTL_AMP_ACTIVE_STATUS], &word, sizeof word);
        any |= word;
    }
    return any != 0;
}

} // namespace

extern "C" void *tervox_calibration_thread(void *)
{
    tvox::log_tervox(tvox::Priority::info, "calibration thread start");
    // deinit may rebind the context while this thread starts.
    tvox::play_silence(tvox::atomic_load(self));
    tvox::log_tervox(tvox::Priority::info, "calibration thread stop");
    return nullptr;
}

extern "C" int32_t tervox_cal_calibration_online(void)
{
    constexpr const char *kFunction = "tervox_cal_calibration_online";
    const tvox::CalibrationInProgress in_progress(self);
    tvox::apply_path(tvox::amp_on_dsp_path);
    if (tvox::start_cal_thread(self, tervox_calibration_thread, self) != 0)
        tvox::log_tervox(tvox::Priority::error, "%s: create calib thread failed", kFunction);
    // Both waits fall inside the 3-second silent file the thread is playing.
    std::this_thread::sleep_for(200ms);
    tvox::apply_path(tvox::cal_mode_path);
    tvox::log_tervox(tvox::Priority::info, "%s: start to calibrate", kFunction);
    std::this_thread::sleep_for(2500ms);

    // A failed read leaves the amplifiers in calibration mode; the run switches them off.
    int32_t ret = tvox::mixer_read_cal_values(self->cal, static_cast<uint32_t>(self->num_channels));
    if (ret != 0)
        return ret;
    CalValues values = {0, 0};
    collect_cal_r(kFunction, values);
    tvox::log_tervox(tvox::Priority::info, "%s: start to check cal", kFunction);
    ret = tervox_cal_check(records_of(self), static_cast<size_t>(self->num_channels));
    if (ret != 0) {
        tvox::log_tervox(tvox::Priority::info, "%s: apply mixer path", kFunction);
        tvox::apply_path(tvox::run_mode_path);
        return ret;
    }
    const auto channels = static_cast<size_t>(self->num_channels);
    self->fwrite_backend(values, channels, self->cal_bin_path);
    self->txt_fwrite_backend(values, channels, self->cal_txt_path);
    tvox::log_tervox(tvox::Priority::info, "%s: apply mixer path", kFunction);
    tvox::apply_path(tvox::run_mode_path);
    tervox_cal_apply(values, channels);
    return 0;
}

extern "C" int32_t tervox_cal_calibration(void)
{
    constexpr const char *kFunction = "tervox_cal_calibration";
    const tvox::CalibrationInProgress in_progress(self);
    if (amps_active()) {
        tvox::log_tervox(tvox::Priority::error, "%s: AMP is active, abort calibration!\n",
                         kFunction);
        tvox::atomic_store(self->cal_ok, 0);
        return -1;
    }
    if (const int32_t ret = tvox::switch_amps_off())
        return ret;
    // This sequence plays the whole file before it reads.
    if (!tvox::play_silence(self))
        return -1;
    if (const int32_t ret =
            tvox::mixer_read_cal_values(self->cal, static_cast<uint32_t>(self->num_channels)))
        return ret;
    CalValues values = {0, 0};
    collect_cal_r(kFunction, values);
    const auto channels = static_cast<size_t>(self->num_channels);
    if (const int32_t ret = tervox_cal_check(records_of(self), std::min<size_t>(channels, 2)))
        return ret;
    tervox_cal_fwrite(values, channels);
    tervox_cal_apply(values, channels);
    return 0;
}

extern "C" int32_t tervox_cal_run_calibration(void)
{
    constexpr const char *kFunction = "tervox_cal_run_calibration";
    struct tervox *ctx = self;
    // Teardown waits for this run: it writes into the record up to its return.
    const tvox::CalibrationInProgress in_progress(ctx);
    // A plain word in the record, so a HAL sees 0, 1 or 2; atomic access keeps a refused
    // concurrent call well defined.
    uint32_t &state = ctx->cal_state;
    int32_t ret = -1;
    int32_t tries = 1;
    if (tvox::atomic_exchange(state, kRunning) == kRunning) {
        tvox::log_tervox(tvox::Priority::error, "%s: calibration is already running!\n", kFunction);
    } else {
        tvox::log_tervox(tvox::Priority::info, "%s: running...\n", kFunction);
        tvox::log_tervox(tvox::Priority::info, "%s: count = %d\n", kFunction, 0);
        ret = ctx->diag_mode ? tervox_cal_diagnostic() : tervox_cal_calibration_online();
        tries = 0;
        if (ret != 0) {
            std::this_thread::sleep_for(500ms);
            tries = -1;
        }
        tvox::atomic_store(ctx->cal_ok, ret == 0);
        tvox::atomic_store(state, kFinished);
        tvox::apply_path(tvox::amp_off_path);
    }
    tvox::atomic_store(state, kIdle);
    tvox::log_tervox(tvox::Priority::info, "%s: Tried %d times, ret = %d, state = %d\n", kFunction,
                     tries, ret, 0);
    return ret;
}

extern "C" int32_t tervox_cal_run_calibration_test(void)
{
    return tervox_cal_run_calibration();
}
