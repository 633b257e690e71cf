/*
 * libtvoxsp: speaker-protection support for the "T" (top) and "B" (bottom) smart amplifiers.
 *
 * The context record and the types shared by every family of functions. It is plain C so that a
 * HAL written in C or C++ sees the same layout; members and slots keep their order and types.
 */
#ifndef TVOXSP_CONTEXT_H
#define TVOXSP_CONTEXT_H

#include <pthread.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mixer;

/* Index into every control-name table. Ids 10 and 12 are unused slots. */
enum tervox_ctl_id {
    CTL_CAL_R = 0,
    CTL_CAL_STATUS = 1,
    CTL_CAL_CHECKSUM = 2,
    CTL_CAL_AMBIENT = 3,
    CTL_DIAG_F0_STATUS = 4,
    CTL_DIAG_F0 = 5,
    CTL_DIAG_Z_LOW_DIFF = 6,
    CTL_QORA_STATE = 7,
    CTL_CH_BAL = 8,
    CTL_SET_CAL_R = 9,
    CTL_AMP_ACTIVE_STATUS = 11,
    CTL_RTLOG_STATE = 13,
    CTL_RTLOG_DATA = 14,
    CTL_AMP_WR_REGISTERS = 15,
    CTL_CHANNEL_SWAP = 16,
    CTL_DELTA = 17,
    CTL_LOAD_RX_CONFIG = 18,
};

/* Entries of a control-name table and of the per-channel arrays of the context. */
enum { TERVOX_NUM_CTLS = 19, TERVOX_MAX_CHANNELS = 8 };

/* One channel's measurement: words 0-2 come from a calibration, all six from a diagnostic. */
typedef struct tervox_cal_record {
    uint32_t status;
    uint32_t checksum;
    int32_t cal_r;      /* raw resistance; ohms = cal_r * 5.85714 / 8192 */
    uint32_t f0_status; /* 2 = passed */
    uint32_t f0;
    uint32_t z_low_diff;
} tervox_cal_record;

/* One channel's state of the real-time protection log. */
typedef struct tervox_rtlog_channel {
    uint8_t *data; /* 160 bytes: RTLOG_STATE and RTLOG_DATA */
    int32_t data_size;
    char *line; /* 128 characters: this channel's text of the current sample */
    double combined;
    double var4_raw;
    double var3_raw;
    double var1;
    double combined_max;
    double var1_max;
    int32_t reg_max;
    int32_t reg_now;
    uint32_t active;
    uint32_t active_prev;
} tervox_rtlog_channel;

/* Accepted raw CAL_R range of one channel; a bound of 0 disables the check. */
struct tervox_cal_r_range {
    uint32_t min;
    uint32_t max;
};

struct tervox;

typedef int32_t (*tervox_playback_fn)(struct tervox *ctx);
typedef int32_t (*tervox_file_backend_fn)(uint32_t *values, size_t count, const char *path);
typedef int32_t (*tervox_channel_swap_fn)(int32_t swap);
typedef int32_t (*tervox_run_calibration_fn)(void);
typedef int32_t (*tervox_values_fn)(uint32_t *values, size_t count);
typedef int32_t (*tervox_get_result_fn)(float *out, size_t count);
typedef int32_t (*tervox_format_fn)(char *out, size_t size);

/* The context record. The HAL owns it (zero-filled) and hands it to tervox_cal_init. */
struct tervox {
    const char **set_ctls[TERVOX_MAX_CHANNELS];  /* controls the library writes */
    const char **get_ctls[TERVOX_MAX_CHANNELS];  /* DSP read-back controls */
    const char **prot_ctls[TERVOX_MAX_CHANNELS]; /* protection-firmware parameter controls */
    const char **qdsp_ctls;                      /* host DSP module controls */
    tervox_rtlog_channel rtlog[TERVOX_MAX_CHANNELS];
    tervox_cal_record cal[TERVOX_MAX_CHANNELS];
    uint32_t cal_r_default[TERVOX_MAX_CHANNELS];
    struct tervox_cal_r_range cal_r_range[TERVOX_MAX_CHANNELS];
    pthread_mutex_t mutex;
    pthread_t cal_thread;
    uint32_t play_card;
    uint32_t play_device;
    const char *backend_name;
    uint8_t diag_mode;
    tervox_playback_fn playback;
    const char *silent_wav_path;
    const char *cal_bin_path;
    const char *cal_txt_path;
    const char *f0_path;
    tervox_file_backend_fn fwrite_backend;
    tervox_file_backend_fn fread_backend;
    tervox_file_backend_fn txt_fwrite_backend;
    tervox_channel_swap_fn channel_swap;
    int32_t num_channels;
    uint32_t cal_state; /* 0 idle, 1 running, 2 finished */
    uint8_t cal_ok;
    const char *channel_name[TERVOX_MAX_CHANNELS];
    int32_t swap_state;
    tervox_run_calibration_fn run_calibration;
    tervox_values_fn cal_fwrite;
    tervox_values_fn cal_fread;
    tervox_get_result_fn get_result;
    tervox_values_fn apply;
    tervox_format_fn str_format_out;
};

#pragma GCC visibility push(default)

/* The active context: set by tervox_cal_init (and again by tervox_cal_deinit). */
extern struct tervox *self;
/* Kept for the HAL; the library never reads or writes it. */
extern void *tervox_this;

/* Binds ctx as the active context and fills its defaults; returns pthread_mutex_init's result. */
int32_t tervox_cal_init(struct tervox *ctx);
/* Joins the calibration thread (if one was started) and destroys the context mutex. */
int32_t tervox_cal_deinit(struct tervox *ctx);
/* Switches both amplifiers off; returns the mixer path's result. */
int32_t tervox_calib_exit(void);
/* An empty hook. */
void tervox_cal_exit(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_CONTEXT_H */
