// What the sampling loops of the live log and the register monitor share: the period, the sleep
// between samples and the process-wide stop flag that SIGINT sets. The flag is never cleared:
// after one SIGINT every later loop of the process stops before its first sample.
#pragma once

#include "util/interrupt.h"

#include <cstdint>
#include <ctime>

namespace tvox::regs
{

// A sampling loop in progress: a SIGINT that graph playback's handler catches ends it too.
class SamplingLoop : interrupt::Running
{
  public:
    SamplingLoop();
};

// interval_ms when it is 1 or more, else one second.
timespec sampling_period(int32_t interval_ms);

// Installs sig_handler for SIGINT; false (with the message on standard error) when it fails.
bool catch_sigint();

bool stop_requested();

// Sleeps for the period between samples. A SIGINT during the sleep ends it at once, on whichever
// thread of the process the signal lands; a stop requested before the sleep began (while a
// sample was taken) lets the whole period pass.
void sleep_period(const timespec &period);

} // namespace tvox::regs
