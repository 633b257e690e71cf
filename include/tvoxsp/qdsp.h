/* Tuning of the protection module on the audio DSP, through the speaker-protection driver. */
#ifndef TVOXSP_QDSP_H
#define TVOXSP_QDSP_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/*
 * Path of the driver device that tuning transfers open ("/dev/msm_tervox_playback"); read at
 * every transfer, so the host may point it elsewhere beforehand. The calibration slots always use
 * the fixed path.
 */
extern const char *DEVICE_FILE_NAME;

/*
 * Tuning files hold blocks of decimal words separated by commas: N (the word count, itself and
 * the CRC included), N-2 payload words, then the CRC-32 of the first N-1 words.
 *
 * tervox_qdsp_load_tuning: a receive configuration, line 1 "QORA_CONFIG_RX_LEFT <block>" and an
 * optional line 2 "QORA_CONFIG_RX_RIGHT <block>". tervox_qdsp_delta_tuning and
 * tervox_qdsp_set_params: one block per line, at most 100 lines. Each returns 0 when sent (an
 * empty configuration counts), -1 when the file does not open or a block fails its CRC (nothing
 * is sent then). A delta load always ends with the closing value 0, whatever the blocks held.
 */
int32_t tervox_qdsp_load_tuning(const char *path);
int32_t tervox_qdsp_delta_tuning(const char *path);
int32_t tervox_qdsp_set_params(const char *path);

/*
 * CRC-32 (zlib's) of words 0 .. N-2 of block as little-endian bytes, N = block[0]; 0 for N <= 1.
 * zlib exports a crc32 of its own: a process that loads both reaches whichever library comes
 * first in its lookup order. The library's own checks always use this one.
 */
uint32_t crc32(uint32_t *block);

/* Switches the protection module on (bit 0 of enable set) or off; always 0. */
int32_t tervox_qdsp_enable(int32_t enable);
/* "Tervox SP Channel Swap": "RL" when bit 0 of swap is set, else "LR"; 0 or -22 (no mixer). */
int32_t tervox_qdsp_channel_swap(int32_t swap);
/* Types 0 and 1 both select "RL"; other types are logged and change nothing. 0 or -22. */
int32_t tervox_qdsp_config_select(void *unused, int32_t type);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_QDSP_H */
