// The calibration slot the driver keeps for the protection firmware: CAL_R of both channels,
// stored and fetched through the driver device at its fixed path.
#include "qdsp/driver.h"
#include "tvoxsp.h"
#include "util/fatal.h"
#include "util/log.h"

#include <array>

namespace
{

// Two entries {valid, check, CAL_R}, channel 0 first, whatever the channel count.
constexpr size_t kEntryWords = 3;
constexpr size_t kSlotChannels = 2;
using SlotPayload = std::array<uint32_t, kEntryWords * kSlotChannels>;

// The slot requests do not follow DEVICE_FILE_NAME.
tvox::DriverDevice open_slot_device()
{
    tvox::DriverDevice device(tvox::kDriverDevice, O_RDWR | O_NONBLOCK);
    if (!device.is_open())
        tvox::log_qdsp(tvox::Priority::error, "Failed to open cal ioctl\n");
    return device;
}

tvox::DriverRequest slot_record(SlotPayload &payload)
{
    return tvox::DriverRequest::make(tvox::kTargetCalSlot, 0, payload.data(), sizeof(SlotPayload));
}

} // namespace

extern "C" int32_t tervox_cal_slot_read(uint32_t *values, size_t count)
{
    tvox::DriverDevice device = open_slot_device();
    if (!device.is_open())
        return -1;
    SlotPayload payload{};
    tvox::DriverRequest record = slot_record(payload);
    const int result = device.request(tvox::kFetchSlotRequest, record);
    if (result < 0) {
        tvox::log_qdsp(tvox::Priority::debug, "%s: Ioctl Failed\n", "tervox_cal_slot_read");
        return -1;
    }
    // The valid and check words are the driver's business.
    for (size_t channel = 0; channel < kSlotChannels; ++channel)
        values[channel] = payload[channel * kEntryWords + 2];
    for (size_t i = 0; i < count; ++i)
        tvox::log_qdsp(tvox::Priority::debug, "%s:Channel[%d] Read: CAL_R = %d\n",
                       "tervox_cal_slot_read", static_cast<int>(i), static_cast<int>(values[i]));
    return result == 0 ? 0 : -1;
}

extern "C" int32_t tervox_cal_slot_write(uint32_t *values, size_t count)
{
    tvox::DriverDevice device = open_slot_device();
    if (!device.is_open())
        return -1;
    SlotPayload payload{};
    for (size_t channel = 0; channel < kSlotChannels; ++channel) {
        const uint32_t cal_r = values[channel];
        // The check word is CAL_R + 1; it must not wrap.
        if (cal_r == UINT32_MAX)
            tvox::fatal();
        payload[channel * kEntryWords] = 1;
        payload[channel * kEntryWords + 1] = cal_r + 1;
        payload[channel * kEntryWords + 2] = cal_r;
    }
    tvox::DriverRequest record = slot_record(payload);
    const int result = device.request(tvox::kStoreSlotRequest, record);
    if (result < 0) {
        tvox::log_qdsp(tvox::Priority::error, "Failed to open ioctl\n");
        return result;
    }
    for (size_t i = 0; i < count; ++i)
        tvox::log_qdsp(tvox::Priority::debug, "%s:Channel[%d] Store: CAL_R = %d\n",
                       "tervox_cal_slot_write", static_cast<int>(i), static_cast<int>(values[i]));
    return result;
}
