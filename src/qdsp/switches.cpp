// The protection module's switches: on/off through the driver, channel routing through the
// "Tervox SP Channel Swap" control.
#include "context/ctl_tables.h"
#include "mixer/mixer_handle.h"
#include "qdsp/transfer.h"
#include "tvoxsp.h"
#include "util/log.h"

namespace
{

// Writes the swap control with the mixer of card 0; -22 when that mixer does not open.
int32_t set_channel_swap(const char *caller, const char *value)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        tvox::log_qdsp(tvox::Priority::debug, "%s: Failed to open mixer\n", caller);
        return -22;
    }
    if (value != nullptr)
        tervox_tmixer_set(mixer.get(), tvox::ctl::qdsp[CTL_CHANNEL_SWAP], value);
    return 0;
}

} // namespace

extern "C" int32_t tervox_qdsp_enable(int32_t enable)
{
    tvox::tervox_qdsp_single_transfer(tvox::kParamEnable, static_cast<uint32_t>(enable & 1));
    return 0;
}

extern "C" int32_t tervox_qdsp_channel_swap(int32_t swap)
{
    return set_channel_swap("tervox_qdsp_channel_swap", (swap & 1) ? "RL" : "LR");
}

extern "C" int32_t tervox_qdsp_config_select(void *, int32_t type)
{
    // Both configurations route the channels the same way.
    const bool known = type == 0 || type == 1;
    const char *value = known ? "RL" : nullptr;
    const int32_t result = set_channel_swap("tervox_qdsp_config_select", value);
    if (result == 0 && !known)
        tvox::log_qdsp(tvox::Priority::debug, "Invalid type = %d\n", type);
    return result;
}
