/* Small C programs that call tinyalsa the way tinymix, tinypcminfo and tinyplay do, printing what
 * those tools print; compiled as C against the stand-in's header, as the tools are. */
#ifndef TESTS_PLATFORM_TINYTOOLS_H
#define TESTS_PLATFORM_TINYTOOLS_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* tinymix -D card -a: every control with its type, count, name, values and range. 0, or 1 when
 * the card does not open. */
int tinymix_list(unsigned int card, FILE *out);
/* tinypcminfo -D card -d device: both directions' masks and ranges. */
void tinypcminfo(unsigned int card, unsigned int device, FILE *out);
/* tinyplay of `frames` frames of silence (2 channels, S16_LE, 48000 Hz) in chunks of one
 * buffer, checked against the device's limits first. 0 when all played. */
int tinyplay_silence(unsigned int card, unsigned int device, unsigned int frames, FILE *out);

#ifdef __cplusplus
}
#endif

#endif
