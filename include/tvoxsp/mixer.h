/* Mixer control access: the control setter and readers, mixer paths. */
#ifndef TVOXSP_MIXER_H
#define TVOXSP_MIXER_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_MIXER_H */
