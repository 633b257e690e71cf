#include "mixer/control.h"
#include "mixer/mixer_handle.h"
#include "tvoxsp/mixer.h"
#include "util/log.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <span>
#include <unistd.h>

namespace
{

void pause_for(const char *microseconds)
{
    // Read and clamped in 64 bits on every ABI: a 32-bit long would cut 3000000000 to LONG_MAX,
    // and UINT_MAX as a 32-bit long is -1.
    const long long us = microseconds == nullptr ? 0 : std::strtoll(microseconds, nullptr, 10);
    usleep(static_cast<useconds_t>(std::clamp<long long>(us, 0, UINT_MAX)));
}

} // namespace

extern "C" int32_t tervox_apply_mixer_path(const struct tervox_mixer_path_entry *path, size_t count)
{
    if (path == nullptr && count != 0)
        return -1;
    tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        // A card not registered yet at boot, or a DSP restart: the caller decides, the audio
        // server lives on.
        tvox::log_tervox(tvox::Priority::error, "Failed to open mixer\n");
        return -EINVAL;
    }
    for (const auto &entry : std::span(path, count)) {
        if (entry.control != nullptr && std::strcmp(entry.control, "udelay") == 0) {
            pause_for(entry.value);
            continue;
        }
        tvox::log_tervox(tvox::Priority::debug, "%s: %s = %s\n", __func__,
                         tvox::printable(entry.control), tvox::printable(entry.value));
        const int32_t result = tervox_tmixer_set(mixer.get(), entry.control, entry.value);
        if (result != 0) {
            mixer.reset();
            tvox::log_tervox(tvox::Priority::error, "%s: '%s' <== '%s' failed\n", __func__,
                             tvox::printable(entry.control), tvox::printable(entry.value));
            return result;
        }
    }
    return 0;
}
