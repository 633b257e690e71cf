/* Mixer control access: the control setter and readers, mixer paths. */
#ifndef TVOXSP_MIXER_H
#define TVOXSP_MIXER_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/*
 * Control values are text: tokens separated by spaces and commas, numbers in C notation (17, 0x11,
 * 021). A byte control takes one number per byte; other controls one number per value (a single
 * number goes to every value) or, for an enumerated control, one item name. A control is named by
 * its name, or by its number when the text is a number.
 *
 * Returns 0; -1 when value_text holds no token or a byte control cannot be written; 2 when no
 * control matches; 22 when the control refuses a value. Errors are printed on standard error.
 */
int32_t tervox_tmixer_set(struct mixer *mixer, const char *control, const char *value_text);

/*
 * Reads a control into out (the bytes of a byte control, else the first value as an int32_t;
 * out must hold the whole control). Returns the control's value count, 0 when it is missing or
 * unreadable.
 */
int32_t tervox_tmixer_get(struct mixer *mixer, const char *control, void *out);

/* A 4-byte DSP parameter (most significant byte first) as a signed 25-bit number. */
int32_t tervox_dsp_tmixer_get(struct mixer *mixer, const char *control);

/* Writes a known value to a byte control of card 0 and prints what reads back; 19 when the mixer
 * does not open. */
int32_t tervox_tmixer_test(void);

/* One step of a mixer path: a control and its value text, or "udelay" and a pause in µs. */
struct tervox_mixer_path_entry {
    const char *control;
    const char *value;
};

/*
 * Applies count entries in order on card 0, opening its mixer once. Returns 0, or the setter's
 * result for the first entry that fails (the entries before it stay applied). A mixer that does
 * not open (a card not registered yet, a DSP restart) is logged and gives -22.
 */
int32_t tervox_apply_mixer_path(const struct tervox_mixer_path_entry *path, size_t count);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_MIXER_H */
