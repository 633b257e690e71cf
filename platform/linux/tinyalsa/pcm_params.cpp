// The limits of a PCM device as tinyalsa reports them: the kernel's refined hardware parameter
// record, read mask by mask and interval by interval, so that byte ranges, bit ranges and frame
// ranges agree as the kernel's rules make them.
#include <tinyalsa/asoundlib.h>

#include <sound/asound.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>
#include <span>
#include <string>

#include "kernel.h"

struct pcm_params {
    snd_pcm_hw_params record;
};

namespace
{

// The kernel's parameter number of each enum pcm_param.
constexpr std::array<int, PCM_PARAM_TICK_TIME + 1> kernel_params{
    SNDRV_PCM_HW_PARAM_ACCESS,      SNDRV_PCM_HW_PARAM_FORMAT,
    SNDRV_PCM_HW_PARAM_SUBFORMAT,   SNDRV_PCM_HW_PARAM_SAMPLE_BITS,
    SNDRV_PCM_HW_PARAM_FRAME_BITS,  SNDRV_PCM_HW_PARAM_CHANNELS,
    SNDRV_PCM_HW_PARAM_RATE,        SNDRV_PCM_HW_PARAM_PERIOD_TIME,
    SNDRV_PCM_HW_PARAM_PERIOD_SIZE, SNDRV_PCM_HW_PARAM_PERIOD_BYTES,
    SNDRV_PCM_HW_PARAM_PERIODS,     SNDRV_PCM_HW_PARAM_BUFFER_TIME,
    SNDRV_PCM_HW_PARAM_BUFFER_SIZE, SNDRV_PCM_HW_PARAM_BUFFER_BYTES,
    SNDRV_PCM_HW_PARAM_TICK_TIME,
};

// The kernel's parameter number, or -1 for a value outside enum pcm_param.
int kernel_param(pcm_param param)
{
    return param >= 0 && static_cast<size_t>(param) < kernel_params.size() ? kernel_params[param]
                                                                           : -1;
}

const snd_interval *interval_of(const pcm_params *params, pcm_param param)
{
    const int p = kernel_param(param);
    if (params == nullptr || p < SNDRV_PCM_HW_PARAM_FIRST_INTERVAL)
        return nullptr;
    return &params->record.intervals[p - SNDRV_PCM_HW_PARAM_FIRST_INTERVAL];
}

// Bit names of the masks as tinyalsa prints them, indexed by the kernel's values; the formats
// stop at U18_3BE and leave the numbers between GSM and SPECIAL unnamed.
constexpr std::array<const char *, 5> access_names{"MMAP_INTERLEAVED", "MMAP_NONINTERLEAVED",
                                                   "MMAP_COMPLEX", "RW_INTERLEAVED",
                                                   "RW_NONINTERLEAVED"};
constexpr std::array<const char *, SNDRV_PCM_FORMAT_U18_3BE + 1> format_names = [] {
    constexpr const char *up_to_gsm[] = {"S8",
                                         "U8",
                                         "S16_LE",
                                         "S16_BE",
                                         "U16_LE",
                                         "U16_BE",
                                         "S24_LE",
                                         "S24_BE",
                                         "U24_LE",
                                         "U24_BE",
                                         "S32_LE",
                                         "S32_BE",
                                         "U32_LE",
                                         "U32_BE",
                                         "FLOAT_LE",
                                         "FLOAT_BE",
                                         "FLOAT64_LE",
                                         "FLOAT64_BE",
                                         "IEC958_SUBFRAME_LE",
                                         "IEC958_SUBFRAME_BE",
                                         "MU_LAW",
                                         "A_LAW",
                                         "IMA_ADPCM",
                                         "MPEG",
                                         "GSM"};
    constexpr const char *from_special[] = {"SPECIAL", "S24_3LE", "S24_3BE", "U24_3LE", "U24_3BE",
                                            "S20_3LE", "S20_3BE", "U20_3LE", "U20_3BE", "S18_3LE",
                                            "S18_3BE", "U18_3LE", "U18_3BE"};
    std::array<const char *, SNDRV_PCM_FORMAT_U18_3BE + 1> names{};
    std::copy(std::begin(up_to_gsm), std::end(up_to_gsm), names.begin());
    std::copy(std::begin(from_special), std::end(from_special),
              names.begin() + SNDRV_PCM_FORMAT_SPECIAL);
    return names;
}();
constexpr std::array<const char *, 1> subformat_names{"STD"};

template <typename... Args> void append(std::string &text, const char *format, Args... args)
{
    char line[128];
    const int length = std::snprintf(line, sizeof line, format, args...);
    text.append(line, static_cast<size_t>(std::clamp(length, 0, int{sizeof line} - 1)));
}

// A mask's words (one line each when the names span more than one word) and the names of its
// bits that are set.
void append_mask(std::string &text, const pcm_mask *mask, const char *title,
                 std::span<const char *const> names)
{
    if (mask == nullptr)
        return;
    if (names.size() < 32) {
        append(text, "%12s:\t%#08x\n", title, mask->bits[0]);
    } else {
        for (size_t word = 0; word < (names.size() + 31) / 32; ++word)
            append(text, "%9s[%zu]:\t%#08x\n", title, word, mask->bits[word]);
    }
    for (size_t bit = 0; bit < names.size(); ++bit) {
        if (names[bit] != nullptr && tinyalsa::kernel::mask_has(*mask, static_cast<unsigned>(bit)))
            append(text, "%12s \t%s\n", "", names[bit]);
    }
}

} // namespace

namespace tinyalsa::kernel
{

pcm_params *new_params(const void *record, size_t record_size)
{
    if (record_size != sizeof(snd_pcm_hw_params))
        return nullptr;
    auto *params = new (std::nothrow) pcm_params;
    if (params != nullptr)
        std::memcpy(&params->record, record, sizeof params->record);
    return params;
}

} // namespace tinyalsa::kernel

extern "C" {

void pcm_params_free(struct pcm_params *pcm_params)
{
    delete pcm_params;
}

struct pcm_mask *pcm_params_get_mask(struct pcm_params *pcm_params, enum pcm_param param)
{
    const int p = kernel_param(param);
    if (pcm_params == nullptr || p < 0 || p > SNDRV_PCM_HW_PARAM_LAST_MASK)
        return nullptr;
    static_assert(sizeof(pcm_mask) == sizeof(snd_mask));
    return reinterpret_cast<pcm_mask *>(&pcm_params->record.masks[p]);
}

unsigned int pcm_params_get_min(struct pcm_params *pcm_params, enum pcm_param param)
{
    const snd_interval *interval = interval_of(pcm_params, param);
    return interval == nullptr ? 0 : interval->min;
}

unsigned int pcm_params_get_max(struct pcm_params *pcm_params, enum pcm_param param)
{
    const snd_interval *interval = interval_of(pcm_params, param);
    return interval == nullptr ? 0 : interval->max;
}

int pcm_params_to_string(struct pcm_params *params, char *string, unsigned int size)
{
    std::string text;
    append_mask(text, pcm_params_get_mask(params, PCM_PARAM_ACCESS), "Access", access_names);
    append_mask(text, pcm_params_get_mask(params, PCM_PARAM_FORMAT), "Format", format_names);
    append_mask(text, pcm_params_get_mask(params, PCM_PARAM_SUBFORMAT), "Subformat",
                subformat_names);
    struct Range {
        const char *format;
        pcm_param param;
    };
    constexpr std::array<Range, 5> ranges{{
        {"        Rate:\tmin=%uHz\tmax=%uHz\n", PCM_PARAM_RATE},
        {"    Channels:\tmin=%u\t\tmax=%u\n", PCM_PARAM_CHANNELS},
        {" Sample bits:\tmin=%u\t\tmax=%u\n", PCM_PARAM_SAMPLE_BITS},
        {" Period size:\tmin=%u\t\tmax=%u\n", PCM_PARAM_PERIOD_SIZE},
        {"Period count:\tmin=%u\t\tmax=%u\n", PCM_PARAM_PERIODS},
    }};
    for (const Range &range : ranges)
        append(text, range.format, pcm_params_get_min(params, range.param),
               pcm_params_get_max(params, range.param));
    // As snprintf: what fits, terminated, and the length the whole text needs.
    if (string != nullptr && size > 0) {
        const size_t copied = std::min<size_t>(text.size(), size - 1);
        std::memcpy(string, text.data(), copied);
        string[copied] = '\0';
    }
    return static_cast<int>(text.size());
}

} // extern "C"
