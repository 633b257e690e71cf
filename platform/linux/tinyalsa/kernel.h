// What tinyalsa hands the kernel itself, where alsa-lib's own rules would answer differently.
// alsa-lib's opaque parameter records are the kernel's structures (it passes them to the ioctls
// as they are), so they are filled here field by field; this header names no ALSA type, because
// alsa-lib's headers and the kernel's cannot meet in one file.
#ifndef TINYALSA_KERNEL_H
#define TINYALSA_KERNEL_H

#include <tinyalsa/asoundlib.h>

#include <cstddef>

namespace tinyalsa::kernel
{

// A pcm_params holding a copy of alsa-lib's hardware parameter record of `record_size` bytes, as
// tinyalsa keeps the kernel's answer; null when out of memory or the record is not the kernel's.
pcm_params *new_params(const void *record, size_t record_size);

// Whether bit `index` of a mask is set.
constexpr bool mask_has(const pcm_mask &mask, unsigned int index)
{
    constexpr unsigned int word_bits = 8 * sizeof mask.bits[0];
    return index / word_bits < sizeof mask.bits / sizeof mask.bits[0] &&
           ((mask.bits[index / word_bits] >> (index % word_bits)) & 1) != 0;
}

// A control's TLV container as tinyalsa sends it: all `size` bytes at `container`, whatever its
// length word says, through the control device `fd`. Reads fill all `size` bytes. 0 or -errno.
int tlv_read(int fd, unsigned int numid, void *container, size_t size);
int tlv_write(int fd, unsigned int numid, const void *container, size_t size);

// The software parameters tinyalsa sets, in frames.
struct SwParams {
    unsigned long start_threshold;
    unsigned long stop_threshold;
    unsigned long avail_min;
    unsigned long silence_threshold;
    unsigned long silence_size;
    bool monotonic; // timestamps from CLOCK_MONOTONIC rather than the time of day
};

// Writes `values` into alsa-lib's software parameter record `record` of `record_size` bytes (the
// rest stays as alsa-lib filled it) after the checks the kernel makes against a buffer of
// `buffer_size` frames: alsa-lib's setters refuse a silence threshold of the whole buffer and
// raise avail_min to a period, the kernel does neither. 0 or -EINVAL.
int fill_sw_params(void *record, size_t record_size, const SwParams &values,
                   unsigned long buffer_size);

} // namespace tinyalsa::kernel

#endif
