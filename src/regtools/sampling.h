// What the sampling loops of the live log and the register monitor share: the period, the sleep
// between samples and the process-wide stop flag that SIGINT sets. The flag is never cleared:
// after one SIGINT every later loop of the process stops before its first sample.
#pragma once

#include "util/interrupt.h"

#include <cstdint>
#include <ctime>

namespace tvox::regs
{

// A sampling loop in progress, for the object's lifetime. Its sleeps end at once when SIGINT
// comes, on whichever thread of the process the signal lands and whichever of the library's
// handlers catches it (graph playback's too).
class SamplingLoop
{
  public:
    SamplingLoop();
    ~SamplingLoop();
    SamplingLoop(const SamplingLoop &) = delete;
    SamplingLoop &operator=(const SamplingLoop &) = delete;

    // Sleeps for the period between samples. A stop requested before the sleep began (while a
    // sample was taken) lets the whole period pass.
    void sleep(const timespec &period) const;

  private:
    interrupt::Running running_;
    int wake_fd_; // -1 when no slot or descriptor was left: the sleep ends on its own thread only
};

// interval_ms when it is 1 or more, else one second.
timespec sampling_period(int32_t interval_ms);

// Installs sig_handler for SIGINT; false (with the message on standard error) when it fails.
bool catch_sigint();

bool stop_requested();

} // namespace tvox::regs
