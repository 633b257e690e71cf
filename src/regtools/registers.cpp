#include "regtools/registers.h"

#include "mixer/control.h"
#include "mixer/mixer_handle.h"
#include "tvoxsp/mixer.h"
#include "tvoxsp/regtools.h"
#include "tvoxsp/util.h"
#include "util/fatal.h"
#include "util/text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

namespace tvox::regs
{

BlockText block_text(const std::array<uint32_t, 3> &words)
{
    BlockText text{};
    std::size_t length = 0;
    for (const uint32_t word : words) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            char digits[34];
            itoa(static_cast<int32_t>((word >> shift) & 0xFF), digits, 16);
            const int written =
                std::snprintf(text.data() + length, text.size() - length, " 0x%s", digits);
            // Only the two command words are ever rendered, and they fit; anything longer would
            // be a caller fault.
            if (written < 0 || static_cast<std::size_t>(written) >= text.size() - length)
                fatal();
            length += static_cast<std::size_t>(written);
        }
    }
    return text;
}

void write_register(struct mixer *mixer, const char *control, uint32_t reg, uint32_t value)
{
    const BlockText text = block_text({kCommandWrite, reg, value});
    tervox_tmixer_set(mixer, control, text.data());
}

uint32_t read_register(struct mixer *mixer, const char *control, uint32_t reg)
{
    BlockText text = block_text({kCommandRead, reg, 0});
    tervox_tmixer_set(mixer, control, text.data());
    // The block comes back into the same buffer; a failed read leaves it as it was, and a
    // fresh zero-filled buffer then yields 0.
    text.fill(0);
    read_control(mixer, control, text.data(), text.size());
    uint32_t value = 0;
    for (std::size_t i = 8; i < 12; ++i)
        value = value << 8 | static_cast<uint8_t>(text[i]);
    return value;
}

const char *register_control(int32_t channel)
{
    return checked_at(self->set_ctls, static_cast<std::size_t>(channel))[CTL_AMP_WR_REGISTERS];
}

} // namespace tvox::regs

namespace
{

// These tools serve at most two channels: a value for a third ends the process.
using Results = std::array<uint32_t, 2>;
constexpr uint64_t kItemLength = 15;

void print_results(uint32_t reg, const Results &values, const char *op_name)
{
    std::unique_ptr<str_builder, decltype(&str_builder_destroy)> sb(str_builder_create(128),
                                                                    &str_builder_destroy);
    str_builder_add_int(sb.get(), static_cast<int32_t>(reg), 16);
    str_builder_add_str(sb.get(), " -- ", 0);
    for (int32_t i = 0; i < self->num_channels; ++i) {
        // Each item is cut to 15 characters, as a 16-byte item buffer holds: a label longer
        // than one character loses the end of the value and the separator.
        char item[64];
        const int length = std::snprintf(
            item, sizeof item, "%s: 0x%08x, ",
            tvox::printable(tvox::checked_at(self->channel_name, static_cast<std::size_t>(i))),
            static_cast<unsigned int>(
                tvox::checked_at(std::span<const uint32_t>(values), static_cast<std::size_t>(i))));
        str_builder_add_str(
            sb.get(), item,
            std::min<uint64_t>(static_cast<uint64_t>(std::max(length, 0)), kItemLength));
    }
    std::fprintf(stderr, "%s : %s \n", op_name, tvox::printable(str_builder_peek(sb.get())));
}

// Opens card 0, stores `per_channel(mixer, control)` of every channel, then prints. A third
// channel's commands still reach its amplifier before its value ends the process.
template <typename PerChannel>
int32_t on_every_channel(const char *function, uint32_t reg, const char *op_name,
                         PerChannel per_channel)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        std::fprintf(stderr, "%s: can't open mixer\n", function);
        return 1;
    }
    Results results{};
    for (int32_t i = 0; i < self->num_channels; ++i) {
        const char *control = tvox::regs::register_control(i);
        const uint32_t value = per_channel(mixer.get(), control);
        tvox::checked_at(std::span<uint32_t>(results), static_cast<std::size_t>(i)) = value;
    }
    print_results(reg, results, op_name);
    return 0;
}

} // namespace

extern "C" {

int32_t tervox_log_reg_write(uint32_t reg, uint32_t value)
{
    return on_every_channel(__func__, reg, "write", [&](struct mixer *mixer, const char *control) {
        tvox::regs::write_register(mixer, control, reg, value);
        return tvox::regs::read_register(mixer, control, reg);
    });
}

int32_t tervox_log_reg_read(uint32_t reg)
{
    return on_every_channel(__func__, reg, "read", [&](struct mixer *mixer, const char *control) {
        return tvox::regs::read_register(mixer, control, reg);
    });
}

int32_t tervox_log_reg_update_bits(uint32_t reg, uint32_t mask, uint32_t value)
{
    return on_every_channel(__func__, reg, "update bits",
                            [&](struct mixer *mixer, const char *control) {
                                const uint32_t old = tvox::regs::read_register(mixer, control, reg);
                                const uint32_t updated = (old & ~mask) | (value & mask);
                                if (updated != old)
                                    tvox::regs::write_register(mixer, control, reg, updated);
                                return tvox::regs::read_register(mixer, control, reg);
                            });
}

} // extern "C"
