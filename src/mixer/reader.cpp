#include "mixer/control.h"
#include "mixer/mixer_handle.h"
#include "tvoxsp/mixer.h"
#include "tvoxsp/util.h"
#include "util/fatal.h"
#include "util/log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <tinyalsa/asoundlib.h>

namespace
{

constexpr std::size_t kTlvHeader = 8;

int32_t read_failed(const char *control)
{
    std::printf("Get '%s' Failed\n", tvox::printable(control));
    return 0;
}

// A byte control arrives behind an 8-byte header when it is read through TLV access.
int32_t read_bytes(struct mixer_ctl *ctl, const char *control, unsigned int count, void *out,
                   std::size_t out_size)
{
    const std::size_t header = mixer_ctl_is_access_tlv_rw(ctl) ? kTlvHeader : 0;
    // With a 32-bit size_t a count near UINT_MAX and the header wrap to a few bytes: such a
    // control is as unreadable as one whose buffer cannot be allocated.
    const bool representable = count <= SIZE_MAX - header;
    const std::size_t size = header + count;
    std::unique_ptr<uint8_t[]> staging(representable ? new (std::nothrow) uint8_t[size]()
                                                     : nullptr);
    if (!staging) {
        std::fprintf(stderr, "Failed to alloc mem for bytes %d\n", static_cast<int>(count));
        return read_failed(control);
    }
    if (mixer_ctl_get_array(ctl, staging.get(), size) < 0) {
        std::fprintf(stderr, "Failed to mixer_ctl_get_array\n");
        return read_failed(control);
    }
    if (out != nullptr)
        std::memcpy(out, staging.get() + header, std::min<std::size_t>(count, out_size));
    return static_cast<int32_t>(count);
}

// Only the first value reaches the caller; every index is still visited, and an enumerated
// control prints its current item once per value.
int32_t read_values(struct mixer_ctl *ctl, enum mixer_ctl_type type, unsigned int count, void *out,
                    std::size_t out_size)
{
    int32_t first = 0;
    for (unsigned int i = 0; i < count; ++i) {
        int32_t value = 0;
        switch (type) {
        case MIXER_CTL_TYPE_BOOL:
        case MIXER_CTL_TYPE_INT:
            value = mixer_ctl_get_value(ctl, i);
            break;
        case MIXER_CTL_TYPE_ENUM: {
            value = mixer_ctl_get_value(ctl, 0);
            const char *item = mixer_ctl_get_enum_string(ctl, static_cast<unsigned int>(value));
            std::printf("%s", tvox::printable(item));
            break;
        }
        default:
            std::printf("unknown");
            break;
        }
        if (i == 0)
            first = value;
    }
    if (out != nullptr && out_size >= sizeof first)
        std::memcpy(out, &first, sizeof first);
    if (count != 1)
        std::printf("tervox: isBug ? (nvalue = %d )\n", static_cast<int>(count));
    return static_cast<int32_t>(count);
}

} // namespace

namespace tvox
{

int32_t read_control(struct mixer *mixer, const char *control, void *out, std::size_t out_size)
{
    struct mixer_ctl *ctl = find_control(mixer, control);
    if (ctl == nullptr) {
        std::fprintf(stderr, "Invalid mixer control: %s\n", printable(control));
        return read_failed(control);
    }
    const enum mixer_ctl_type type = mixer_ctl_get_type(ctl);
    const unsigned int count = mixer_ctl_get_num_values(ctl);
    if (type == MIXER_CTL_TYPE_BYTE)
        return read_bytes(ctl, control, count, out, out_size);
    return read_values(ctl, type, count, out, out_size);
}

} // namespace tvox

extern "C" {

int32_t tervox_tmixer_get(struct mixer *mixer, const char *control, void *out)
{
    return tvox::read_control(mixer, control, out, SIZE_MAX);
}

int32_t tervox_dsp_tmixer_get(struct mixer *mixer, const char *control)
{
    // The preset stays when the control is missing, so that case reads as a recognisable value
    // rather than an error.
    uint32_t raw = 0xAABB;
    tvox::read_control(mixer, control, &raw, sizeof raw);
    const int32_t value = sign_extend32(endian_flip(raw), 24);
    tvox::log_tervox(tvox::Priority::debug, "%s: ctl(%s) = %6x\n", __func__,
                     tvox::printable(control), static_cast<unsigned int>(value));
    return value;
}

int32_t tervox_tmixer_test(void)
{
    static constexpr const char *kControl = "RCV DSP1 Protection cd CAL_R";
    static constexpr const char *kValue = "00 00 15 14";

    const tvox::MixerHandle mixer = tvox::open_mixer();
    if (!mixer) {
        std::fprintf(stderr, "Failed to open mixer\n");
        return 19;
    }
    int32_t words[128] = {-1};
    tervox_tmixer_set(mixer.get(), kControl, kValue);
    const int32_t n = tvox::read_control(mixer.get(), kControl, words, sizeof words);

    std::printf("Default: %s, num=%d\n", kValue, n);
    std::printf("%s: ", kControl);
    for (int32_t i = 0; i < n; ++i)
        std::printf("%x ", static_cast<unsigned int>(tvox::checked_at(words, i)));
    std::printf("\n");
    return 0;
}

} // extern "C"
