/* Dropping alsa-lib's messages for the calling thread, and restoring its previous handler. */
#ifndef TINYALSA_ALSA_QUIET_H
#define TINYALSA_ALSA_QUIET_H

#include <stdarg.h>

#include <alsa/asoundlib.h>

#ifdef __cplusplus
extern "C" {
#endif

snd_local_error_handler_t tinyalsa_quiet_alsa(void);
void tinyalsa_restore_alsa(snd_local_error_handler_t previous);

#ifdef __cplusplus
}
#endif

#endif
