/* Calibration files, stored-calibration report and diagnostics. */
#ifndef TVOXSP_STORAGE_H
#define TVOXSP_STORAGE_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/*
 * File back-ends: one 32-bit word per channel, channel 0 first; 0 or -1. The binary files hold the
 * words in host byte order; the text file one line "CH[i] <name> : <raw> (<ohms>)" per channel.
 */
int32_t tervox_default_fwrite(uint32_t *values, size_t count, const char *path);
int32_t tervox_default_fread(uint32_t *values, size_t count, const char *path);
int32_t tervox_ascii_fwrite(uint32_t *values, size_t count, const char *path);

/* Both CAL_R files through the context's back-ends; the text write's result. */
int32_t tervox_cal_fwrite(uint32_t *values, size_t count);
/* -1 when the binary file cannot be read; else 0, or a pattern of channels that read 0
 * (shifted left by ch + 1 per such channel, starting at 1). */
int32_t tervox_cal_fread(uint32_t *values, size_t count);
int32_t tervox_f0_fwrite(uint32_t *values, size_t count);
int32_t tervox_f0_fread(uint32_t *values, size_t count);

/*
 * The calibration slot the driver keeps across audio-server restarts: CAL_R of channels 0 and 1
 * (values must hold both; count only bounds the logging). read: 0 or -1, values untouched on
 * failure. write: the driver's result (negative on failure) or -1 when the device does not open.
 */
int32_t tervox_cal_slot_read(uint32_t *values, size_t count);
int32_t tervox_cal_slot_write(uint32_t *values, size_t count);

/* Prints the stored, DSP and kernel CAL_R of every channel (and the stored F0 in diag_mode) on
 * standard output. */
int32_t tervox_cal_fread_and_check(void);

/*
 * Speaker diagnostic: plays silence, reads every channel's protection results, judges F0 and on
 * success stores and applies the calibration. 0; -1 without a playback slot; -22 without a mixer;
 * the F0 failure pattern; or a failing path or check result.
 */
int32_t tervox_cal_diagnostic(void);
int32_t tervox_cal_run_diagnostic(void);
int32_t tervox_cal_run_diagnostic_test(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_STORAGE_H */
