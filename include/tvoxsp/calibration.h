/* Lifecycle, calibration run, readout, apply and check, result formatting. */
#ifndef TVOXSP_CALIBRATION_H
#define TVOXSP_CALIBRATION_H

#include "tvoxsp/context.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* TVOXSP_CALIBRATION_H */
