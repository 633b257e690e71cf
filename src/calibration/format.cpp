// Text report of the last calibration beside the stored values.
#include "calibration/results.h"
#include "tvoxsp.h"
#include "util/atomic.h"
#include "util/fatal.h"
#include "util/log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace
{

// Appends text to the NUL-terminated contents of out, never past its size bytes.
void append_bounded(char *out, size_t size, std::string_view text)
{
    if (size == 0)
        return;
    const size_t used = strnlen(out, size - 1);
    const size_t room = size - 1 - used;
    const size_t n = std::min(room, text.size());
    std::memcpy(out + used, text.data(), n);
    out[used + n] = '\0';
}

} // namespace

extern "C" int32_t tervox_cal_str_format_out(char *out, size_t size)
{
    if (size != 0)
        std::memset(out, 0, size);
    const bool ok = tvox::atomic_load(self->cal_ok) != 0;
    int32_t total = 0;
    if (ok) {
        // A negative count reads no channel (nor the file into the two stored words).
        const int32_t channels = std::max(self->num_channels, 0);
        // Only two channels are foreseen: a third ends the process. The measured value is the
        // single-precision figure the HAL reads from get_result, so both print the same digits.
        float ohms[2] = {0, 0};
        for (int32_t ch = 0; ch < channels; ++ch)
            tvox::checked_at(ohms, ch) = tvox::measured_ohms(self->cal[ch].cal_r);
        // A missing file leaves the stored values at 0; the report is written all the same.
        uint32_t stored[2] = {0, 0};
        self->fread_backend(stored, static_cast<size_t>(channels), self->cal_bin_path);
        for (int32_t ch = 0; ch < channels; ++ch) {
            char line[128] = {};
            const uint32_t raw = tvox::checked_at(stored, ch);
            std::snprintf(line, sizeof line, "CH[%d] %s = %.2f, %5d(%.2f) <-- '%s'\n", ch,
                          self->channel_name[ch], static_cast<double>(ohms[ch]),
                          static_cast<int>(raw), tvox::cal_r_ohms(raw), self->cal_bin_path);
            const auto length = static_cast<int32_t>(std::strlen(line));
            if (__builtin_add_overflow(total, length, &total))
                tvox::fatal();
            // A line that does not fit is counted but dropped.
            if (size < static_cast<size_t>(total))
                break;
            append_bounded(out, size, line);
        }
    }
    append_bounded(out, size, ok ? "calibration success\n" : "calibration failed\n");
    tvox::log_tervox(tvox::Priority::info, "%s: \n %s", "tervox_cal_str_format_out",
                     size != 0 ? out : "");
    return total;
}
