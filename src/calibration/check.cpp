// Judging calibration and diagnostic results, and writing CAL_R into the DSPs.
#include "calibration/results.h"
#include "mixer/mixer_handle.h"
#include "tvoxsp.h"
#include "util/fatal.h"
#include "util/log.h"

#include <span>

namespace
{

// The caller's records: six words per channel, laid out as tervox_cal_record.
std::span<const tervox_cal_record> as_records(const uint32_t *words, size_t count)
{
    return {reinterpret_cast<const tervox_cal_record *>(words), count};
}

// Calibration status bit 0 means "done"; bit 1 may accompany it.
constexpr bool status_passed(uint32_t status)
{
    return (status | 2) == 3;
}

constexpr uint32_t kF0Passed = 2;
constexpr uint32_t kOutOfRange = 16;

} // namespace

extern "C" int32_t tervox_cal_check(uint32_t *records, size_t count)
{
    const auto channels = as_records(records, count);
    tvox::FailurePattern pattern;
    for (size_t ch = 0; ch < channels.size(); ++ch) {
        const tervox_cal_record &record = channels[ch];
        if (status_passed(record.status))
            continue;
        tvox::log_tervox(tvox::Priority::error,
                         "%s: Channel[%d] CAL_R = %d, STATUS = %d, Failed!\n", "tervox_cal_check",
                         static_cast<int>(ch), record.cal_r, static_cast<int>(record.status));
        pattern.fail(ch);
    }
    for (size_t ch = 0; ch < channels.size(); ++ch) {
        const tervox_cal_r_range range = tvox::checked_at(self->cal_r_range, ch);
        if (range.min == 0 || range.max == 0)
            continue;
        const uint32_t cal_r = static_cast<uint32_t>(channels[ch].cal_r);
        if (cal_r >= range.min && cal_r <= range.max)
            continue;
        tvox::log_tervox(tvox::Priority::error,
                         "%s: Channel[%d] CAL_R = %d, out of range[%d - %d]!\n", "tervox_cal_check",
                         static_cast<int>(ch), channels[ch].cal_r, static_cast<int>(range.min),
                         static_cast<int>(range.max));
        pattern.set(kOutOfRange);
    }
    return pattern.result();
}

extern "C" int32_t tervox_cal_diag_check(uint32_t *records, size_t count)
{
    const auto channels = as_records(records, count);
    tvox::FailurePattern pattern;
    for (size_t ch = 0; ch < channels.size(); ++ch) {
        if (channels[ch].f0_status == kF0Passed)
            continue;
        tvox::log_tervox(tvox::Priority::info, "%s:channel[%d] f0 = %d, Failed!\n",
                         "tervox_cal_diag_check", static_cast<int>(ch),
                         static_cast<int>(channels[ch].f0));
        pattern.fail(ch);
    }
    return pattern.result();
}

extern "C" int32_t tervox_cal_apply(uint32_t *values, size_t count)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        tvox::log_tervox(tvox::Priority::error, "%s: Failed to open mixer\n", "tervox_cal_apply");
        return -22;
    }
    int32_t ret = 0;
    for (size_t ch = 0; ch < count; ++ch) {
        const char **names = tvox::checked_at(self->set_ctls, ch);
        const auto value = static_cast<int32_t>(values[ch]);
        tvox::log_tervox(tvox::Priority::info, "%s: Channel[%d] CAL_R = %d\n", "tervox_cal_apply",
                         static_cast<int>(ch), value);
        char text[34]; // 32 binary digits, a sign and the NUL: room for any base
        ret = tervox_tmixer_set(mixer.get(), names[CTL_SET_CAL_R], itoa(value, text, 10));
        if (ret != 0)
            tvox::log_tervox(tvox::Priority::info, "Channel[%d] CAL_R = %d, Applying failed!\n",
                             static_cast<int>(ch), value);
    }
    return ret;
}
