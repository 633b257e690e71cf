/* Test playback: WAV player and graph playback. */
#ifndef TVOXSP_PLAYBACK_H
#define TVOXSP_PLAYBACK_H

#include "tvoxsp/context.h"

#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

struct pcm_params;

/*
 * WAV player. tervox_tplay plays the context's silent_wav_path on card 0, device 0 and returns 0
 * for a RIFF/WAVE file (whatever happens while it plays), else 1. tervox_tplay_test routes both
 * amplifiers, repoints the active context's silent_wav_path to "/sdcard/Music/lrp_loop.wav" for
 * good and plays it; -22 when the mixer of card 0 does not open.
 */
int32_t tervox_tplay(struct tervox *ctx);
int32_t tervox_tplay_test(void);

/* Plays data_size bytes from the file's current position. */
void play_sample(FILE *file, uint32_t card, uint32_t device, uint32_t channels, uint32_t rate,
                 uint32_t bits, uint32_t period_size, uint32_t period_count, uint32_t data_size);

/* 1 when every parameter lies within the device's limits, else 0 (each violation printed). */
int32_t sample_is_playable(uint32_t card, uint32_t device, uint32_t channels, uint32_t rate,
                           uint32_t bits, uint32_t period_size, uint32_t period_count);

/* 1 when value lies within the device's bounds for param (an enum pcm_param), else 0. */
int32_t check_param(struct pcm_params *params, uint32_t param, uint32_t value, const char *name,
                    const char *unit);

/*
 * Graph playback: plays the context's silent_wav_path through an AGM graph on play_card,
 * play_device and backend_name. 1 when the file does not open or is not RIFF/WAVE, or when
 * backend_name is absent; 0 otherwise (failures of the graph or PCM steps are only printed).
 */
int32_t tervox_agmplay(struct tervox *ctx);

/* SIGINT handler of graph playback: ignores further signals and stops playback for good. */
void stream_close(int32_t sig);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_PLAYBACK_H */
