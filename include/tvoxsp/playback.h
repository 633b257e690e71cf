/* Test playback: WAV player and graph playback. */
#ifndef TVOXSP_PLAYBACK_H
#define TVOXSP_PLAYBACK_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_PLAYBACK_H */
