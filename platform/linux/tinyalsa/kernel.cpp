#include "kernel.h"

#include <sound/asound.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace tinyalsa::kernel
{
namespace
{

struct FreeTlv {
    void operator()(snd_ctl_tlv *tlv) const { std::free(tlv); }
};

// The ioctl record: {numid, length} followed by the container.
std::unique_ptr<snd_ctl_tlv, FreeTlv> new_tlv(unsigned int numid, size_t size)
{
    auto *raw = static_cast<snd_ctl_tlv *>(std::calloc(1, sizeof(snd_ctl_tlv) + size));
    if (raw != nullptr) {
        raw->numid = numid;
        raw->length = static_cast<unsigned int>(size);
    }
    return std::unique_ptr<snd_ctl_tlv, FreeTlv>(raw);
}

} // namespace

int tlv_read(int fd, unsigned int numid, void *container, size_t size)
{
    auto tlv = new_tlv(numid, size);
    if (!tlv)
        return -ENOMEM;
    if (ioctl(fd, SNDRV_CTL_IOCTL_TLV_READ, tlv.get()) < 0)
        return -errno;
    std::memcpy(container, tlv->tlv, size);
    return 0;
}

int tlv_write(int fd, unsigned int numid, const void *container, size_t size)
{
    auto tlv = new_tlv(numid, size);
    if (!tlv)
        return -ENOMEM;
    std::memcpy(tlv->tlv, container, size);
    return ioctl(fd, SNDRV_CTL_IOCTL_TLV_WRITE, tlv.get()) < 0 ? -errno : 0;
}

int fill_sw_params(void *record, size_t record_size, const SwParams &values,
                   unsigned long buffer_size)
{
    if (record_size != sizeof(snd_pcm_sw_params))
        return -EINVAL;
    auto &params = *static_cast<snd_pcm_sw_params *>(record);
    // The kernel's own checks of these fields.
    if (values.avail_min == 0)
        return -EINVAL;
    if (values.silence_size >= params.boundary) {
        if (values.silence_threshold != 0)
            return -EINVAL;
    } else if (values.silence_size > values.silence_threshold ||
               values.silence_threshold > buffer_size) {
        return -EINVAL;
    }
    params.tstamp_mode = SNDRV_PCM_TSTAMP_ENABLE;
    params.tstamp_type =
        values.monotonic ? SNDRV_PCM_TSTAMP_TYPE_MONOTONIC : SNDRV_PCM_TSTAMP_TYPE_GETTIMEOFDAY;
    params.period_step = 1;
    params.start_threshold = values.start_threshold;
    params.stop_threshold = values.stop_threshold;
    params.avail_min = values.avail_min;
    params.silence_threshold = values.silence_threshold;
    params.silence_size = values.silence_size;
    return 0;
}

} // namespace tinyalsa::kernel
