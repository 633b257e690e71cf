/*
 * libtvoxsp: speaker-protection support for the "T" (top) and "B" (bottom) smart amplifiers.
 * The whole exported interface, one header per family of functions.
 */
#ifndef TVOXSP_H
#define TVOXSP_H

#include "tvoxsp/calibration.h"
#include "tvoxsp/context.h"
#include "tvoxsp/mixer.h"
#include "tvoxsp/playback.h"
#include "tvoxsp/qdsp.h"
#include "tvoxsp/regtools.h"
#include "tvoxsp/storage.h"
#include "tvoxsp/util.h"

#endif /* TVOXSP_H */
