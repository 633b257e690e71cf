/* Calibration files, stored-calibration report and diagnostics. */
#ifndef TVOXSP_STORAGE_H
#define TVOXSP_STORAGE_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_STORAGE_H */
