/* Calibration run, readout, apply and check, result formatting. */
#ifndef TVOXSP_CALIBRATION_H
#define TVOXSP_CALIBRATION_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/*
 * Calibration run. tervox_cal_run_calibration (the context's run_calibration slot) refuses with -1
 * while a run is in progress; otherwise it runs the diagnostic when diag_mode is set, else the
 * online calibration, records the outcome in cal_ok and switches the amplifiers off. It returns
 * the step's result (0 for success). cal_state is 0 again when it returns.
 */
int32_t tervox_cal_run_calibration(void);
int32_t tervox_cal_run_calibration_test(void);
/* Measures CAL_R while the playback thread plays silence; stores and applies good results. */
int32_t tervox_cal_calibration_online(void);
/* The older sequence: plays the silent file on the calling thread, then reads, checks, stores. */
int32_t tervox_cal_calibration(void);
/* Body of the playback thread: calls the active context's playback slot. */
void *tervox_calibration_thread(void *arg);

/* CAL_R of the first count channels in ohms; always 0. */
int32_t tervox_cal_get_result(float *out, size_t count);
/* Raw F0 of the first count channels; always 0. */
int32_t tervox_cal_f0_get_result(uint32_t *out, size_t count);

/*
 * Checks of count tervox_cal_record entries (records points at six words per channel). The result
 * is 0 when all pass; otherwise a pattern that starts at 1 and is shifted left by ch + 1 for each
 * failing channel ch (channel 0 gives 2, channel 1 gives 4, both 8). tervox_cal_check judges the
 * status (1 or 3 pass) and then the context's CAL_R ranges: a value out of range gives 16.
 * tervox_cal_diag_check judges the F0 status (2 passes).
 */
int32_t tervox_cal_check(uint32_t *records, size_t count);
int32_t tervox_cal_diag_check(uint32_t *records, size_t count);
/* Writes one raw CAL_R per channel into the DSPs: 0, -22 without a mixer, else the last channel's
 * set result. */
int32_t tervox_cal_apply(uint32_t *values, size_t count);

/* Report of the last calibration beside the stored values, into out (size bytes, always cleared
 * first). Returns the length of the channel lines. */
int32_t tervox_cal_str_format_out(char *out, size_t size);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_CALIBRATION_H */
