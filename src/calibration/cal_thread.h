// The calibration playback thread of a context. The record keeps only the thread handle; whether
// that handle still needs a join is kept here, so that a context that never ran a calibration can
// be torn down, and so that each run joins the previous run's thread before reusing the handle.
#pragma once

#include "tvoxsp/context.h"

namespace tvox
{

// Joins ctx's previous playback thread if it is still unjoined, then starts `body` with `arg`
// into ctx->cal_thread. Returns pthread_create's result.
int start_cal_thread(struct tervox *ctx, void *(*body)(void *), void *arg);

// Joins ctx's playback thread if one was started and not joined yet. Returns pthread_join's
// result, or 0 when there was nothing to join.
int join_cal_thread(struct tervox *ctx);

} // namespace tvox
