/* String builder and numeric helpers for DSP words. */
#ifndef TVOXSP_UTIL_H
#define TVOXSP_UTIL_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_UTIL_H */
