// The calibrations of a context: the runs in progress and the playback thread one of them
// started. The record keeps only the thread handle; the rest is kept here, so that teardown waits
// for a run another thread is making before the HAL frees the record, joins the playback thread
// only when one was started, and so that a torn-down context starts no thread that nobody would
// join.
#pragma once

#include "tvoxsp/context.h"

namespace tvox
{

// Init: calibrations of ctx may start playback threads (again).
void open_calibrations(const struct tervox *ctx);

// A calibration of ctx in progress, for its lifetime; teardown waits for it to end.
class CalibrationInProgress
{
  public:
    explicit CalibrationInProgress(const struct tervox *ctx);
    ~CalibrationInProgress();
    CalibrationInProgress(const CalibrationInProgress &) = delete;
    CalibrationInProgress &operator=(const CalibrationInProgress &) = delete;

  private:
    const struct tervox *ctx_;
};

// Joins ctx's previous playback thread if it is still unjoined, then starts `body` with `arg`
// into ctx->cal_thread. Returns pthread_create's result, or EPERM without a thread once ctx is
// torn down (until init opens it again).
int start_cal_thread(struct tervox *ctx, void *(*body)(void *), void *arg);

// Teardown: waits until no calibration of ctx is in progress, then joins its playback thread if
// one was started and not joined yet. Returns pthread_join's result, or 0 when there was nothing
// to join.
int close_calibrations(struct tervox *ctx);

} // namespace tvox
