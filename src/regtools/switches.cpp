// DSP switches: bypass, firmware reload and boot, channel swap.
#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "tvoxsp/mixer.h"
#include "tvoxsp/regtools.h"
#include "util/fatal.h"
#include "util/log.h"

#include <cstdio>
#include <cstring>

namespace
{

constexpr int32_t kNoMixer = -22;
constexpr const char *kBalanceOwn = "00, 00, 00, 00";
// "40" is decimal under the setter's number rules, as the firmware's balance word expects.
constexpr const char *kBalanceOther = "00, 40, 00, 00";

// The channel-balance control of `channel`; a context without that channel ends the process
// instead of dereferencing its missing table.
const char *balance_control(std::size_t channel)
{
    const char **table = tvox::checked_at(self->set_ctls, channel);
    if (table == nullptr)
        tvox::fatal();
    return table[CTL_CH_BAL];
}

} // namespace

extern "C" {

int32_t tervox_dsp_bypass(const char *name, int32_t bypass)
{
    const std::span<const tvox::PathEntry> table =
        bypass != 0 ? std::span<const tvox::PathEntry>(tvox::dsp_bypass_path)
                    : std::span<const tvox::PathEntry>(tvox::dsp_source_path);
    if (name == nullptr)
        return tvox::apply_path(table);
    const tvox::MixerHandle mixer = tvox::open_mixer();
    int32_t result = 0;
    for (const tvox::PathEntry &entry : table) {
        const char *found = std::strstr(entry.control, name);
        if (found != entry.control)
            continue;
        std::printf("%p =? %p, %s\n", static_cast<const void *>(found),
                    static_cast<const void *>(entry.control), entry.control);
        result = tervox_tmixer_set(mixer.get(), entry.control, entry.value);
    }
    return result;
}

int32_t tervox_reload_firmware(void)
{
    if (const int32_t result = tvox::apply_path(tvox::reload_off_path); result != 0)
        return result;
    return tvox::apply_path(tvox::reload_load_path);
}

int32_t tervox_boot_loader(void)
{
    return tvox::apply_path(tvox::boot_firmware_path);
}

int32_t tervox_vesk_channel_swap(int32_t swap)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        tvox::log_tervox(tvox::Priority::debug, "%s: Failed to open mixer\n", __func__);
        return kNoMixer;
    }
    const bool swapped = swap != 0;
    tvox::log_tervox(tvox::Priority::debug, "%s: swap = %d, val = %d", __func__, swapped ? 1 : 0,
                     static_cast<int>(self->swap_state));
    tervox_tmixer_set(mixer.get(), balance_control(0), swapped ? kBalanceOther : kBalanceOwn);
    tervox_tmixer_set(mixer.get(), balance_control(1), swapped ? kBalanceOwn : kBalanceOther);
    return 0;
}

int32_t tervox_channel_swap(int32_t swap)
{
    return self->channel_swap(swap & 1);
}

} // extern "C"
