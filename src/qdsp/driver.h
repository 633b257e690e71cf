// The speaker-protection driver's character device: the request record every ioctl points at,
// the request numbers, and an owning descriptor.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

namespace tvox
{

// The driver reaches the record through the 8-byte pointer the size field of each request
// number declares, whatever the record's own size.
inline constexpr unsigned long kSetParamRequest = 0xC00861DC;
inline constexpr unsigned long kStoreSlotRequest = 0xC00861DE;
inline constexpr unsigned long kFetchSlotRequest = 0xC00861DF;

inline constexpr uint32_t kTargetModule = 1;
inline constexpr uint32_t kTargetCalSlot = 2;

inline constexpr const char *kDriverDevice = "/dev/msm_tervox_playback";

// The path tuning transfers open, as the exported DEVICE_FILE_NAME holds it at this moment.
const char *device_file_name();

// Host byte order; the payload address is 64 bits wide on 32-bit hosts too.
struct DriverRequest {
    uint32_t size;
    uint32_t target;
    uint32_t param_id;
    uint32_t length;
    uint64_t payload;

    static DriverRequest make(uint32_t target, uint32_t param_id, const void *payload,
                              uint32_t length)
    {
        return {sizeof(DriverRequest), target, param_id, length,
                static_cast<uint64_t>(reinterpret_cast<uintptr_t>(payload))};
    }
};
static_assert(sizeof(DriverRequest) == 24);

// An open driver device, closed on every path; close() when its result matters.
class DriverDevice
{
  public:
    // Never inherited by a program the HAL starts.
    DriverDevice(const char *path, int flags) : fd_(::open(path, flags | O_CLOEXEC)) {}
    ~DriverDevice() { close(); }
    DriverDevice(DriverDevice &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    DriverDevice(const DriverDevice &) = delete;
    DriverDevice &operator=(const DriverDevice &) = delete;

    bool is_open() const { return fd_ >= 0; }
    int request(unsigned long number, DriverRequest &record) const
    {
        return ::ioctl(fd_, number, &record);
    }
    int close()
    {
        const int result = fd_ >= 0 ? ::close(fd_) : 0;
        fd_ = -1;
        return result;
    }

  private:
    int fd_;
};

} // namespace tvox
