// The speaker-protection driver of the virtual amplifier pair: what the kernel driver does with
// the requests that reach "/dev/msm_tervox_playback", kept in the simulator's shared state.
//
// The driver takes a 24-byte record {size 24, target, parameter id, payload length, payload
// address} through the pointer ioctl carries. Set requests (target 1) carry one 4-byte value or
// a 384-byte chunk of a configuration: a header {total bytes, data bytes, last, reserved...,
// constant 4} of five words, or six under the delta id 0xA1AF0D, then the data. Chunks are
// reassembled per parameter id and a configuration counts once its final chunk fits. Slot
// requests (target 2) store or fetch the 24-byte calibration slot. Every request leaves a line
// "driver ..." in the journal.
#pragma once

#include "state.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tvox::sim::driver
{

inline constexpr const char *kDevicePath = "/dev/msm_tervox_playback";

inline constexpr uint32_t kSetParam = 0xC00861DC;
inline constexpr uint32_t kStoreSlot = 0xC00861DE;
inline constexpr uint32_t kFetchSlot = 0xC00861DF;

inline constexpr uint32_t kParamEnable = 0x10002001;
inline constexpr uint32_t kParamDelta = 0xA1AF0D;
inline constexpr uint32_t kParamDeltaDone = 0xA1AF0E;

// Opening the device: 0, or -ENOENT while the device is set absent.
int open_device(Session &session, int flags);
void close_device(Session &session);

// One ioctl with the pointer it carries: 0 or a negative errno (-ENOTTY for a request the driver
// does not know, -EINVAL for a malformed record or chunk, a fault's errno).
int request(Session &session, unsigned long number, void *argument);

// The configuration last completed under `param_id`, if any.
const DriverConfig *complete_config(Session &session, uint32_t param_id);

// "set", "store", "fetch", or the number in hex.
std::string request_name(uint32_t number);
std::optional<uint32_t> request_from_name(std::string_view name);

} // namespace tvox::sim::driver
