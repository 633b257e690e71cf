// The register monitor and the amplifier information dump.
#include "regtools/sampling.h"
#include "tvoxsp/regtools.h"
#include "tvoxsp/util.h"
#include "util/fatal.h"
#include "util/text.h"

#include <cstdio>
#include <limits>
#include <memory>

namespace
{

using Builder = std::unique_ptr<str_builder, decltype(&str_builder_destroy)>;

} // namespace

extern "C" {

int32_t tervox_regs_monitor(const uint32_t *regs, size_t count, int32_t interval_ms)
{
    const tvox::regs::SamplingLoop loop;
    if (!tvox::regs::catch_sigint())
        return 1;
    const timespec period = tvox::regs::sampling_period(interval_ms);
    int32_t last = 0;
    while (!tvox::regs::stop_requested()) {
        // The register index is a signed 32-bit counter: a list it cannot count ends the process.
        for (int32_t k = 0; static_cast<size_t>(k) < count; ++k) {
            last = tervox_log_reg_read(regs[k]);
            if (k == std::numeric_limits<int32_t>::max())
                tvox::fatal();
        }
        loop.sleep(period);
    }
    std::printf("monitor registers exit - %s\n", last == 0 ? "OK" : "Failed");
    return 0;
}

int32_t tervox_show_info(void)
{
    const Builder sb(str_builder_create(256), &str_builder_destroy);
    str_builder_add_str(sb.get(), "Show Info:\n", 0);
    str_builder_add_str(sb.get(), "--------------------------\n", 0);
    str_builder_add_str(sb.get(), "AMPs Desc: \n", 0);
    for (int32_t i = 0; i < self->num_channels; ++i) {
        str_builder_add_str(
            sb.get(), tvox::printable(tvox::checked_at(self->channel_name, static_cast<size_t>(i))),
            0);
        str_builder_add_str(sb.get(), ", ", 0);
    }
    str_builder_add_str(sb.get(), "\n", 0);
    // Out of memory there is no builder, and the text reads as a null one.
    std::printf("%s\n", tvox::printable(str_builder_peek(sb.get())));
    return 0;
}

} // extern "C"
