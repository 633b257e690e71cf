/* Written in C: alsa-lib's header declares snd_lib_error_set_local() outside its extern "C"
 * block, so C++ code cannot call it by that declaration. */
#include <alsa/asoundlib.h>

#include "alsa_quiet.h"

static void drop_message(const char *file, int line, const char *function, int err,
                         const char *format, va_list args)
{
    (void)file;
    (void)line;
    (void)function;
    (void)err;
    (void)format;
    (void)args;
}

snd_local_error_handler_t tinyalsa_quiet_alsa(void)
{
    return snd_lib_error_set_local(drop_message);
}

void tinyalsa_restore_alsa(snd_local_error_handler_t previous)
{
    snd_lib_error_set_local(previous);
}
