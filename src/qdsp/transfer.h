// Sending parameters to the protection module: one value, or a configuration in 90-word chunks.
// Every transfer opens the device DEVICE_FILE_NAME names at that moment and closes it again.
#pragma once

#include <cstdint>
#include <span>

namespace tvox
{

inline constexpr uint32_t kParamEnable = 0x10002001;
inline constexpr uint32_t kParamRxConfig = 0xA1AF05;
inline constexpr uint32_t kParamDelta = 0xA1AF0D;
inline constexpr uint32_t kParamDeltaDone = 0xA1AF0E;
inline constexpr uint32_t kParamModuleParams = 0xA1AF0F;

// Failures are logged, never reported.
void tervox_qdsp_single_transfer(uint32_t param_id, uint32_t value);

// Extended configuration (five-word chunk header); the result of closing the device, 0 also
// when the device did not open.
int tervox_qdsp_transfer_ext_config(std::span<const uint32_t> words, uint32_t param_id);

// Delta configuration under kParamDelta (six-word chunk header); as above.
int tervox_qdsp_transfer_delta_config(std::span<const uint32_t> words);

} // namespace tvox
