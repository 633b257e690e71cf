// What the sampling loops of the live log and the register monitor share: the period and the
// process-wide stop flag that SIGINT sets. The flag is never cleared: after one SIGINT every
// later loop of the process stops before its first sample.
#pragma once

#include <cstdint>
#include <ctime>

namespace tvox::regs
{

// interval_ms when it is 1 or more, else one second.
timespec sampling_period(int32_t interval_ms);

// Installs sig_handler for SIGINT; false (with the message on standard error) when it fails.
bool catch_sigint();

bool stop_requested();

} // namespace tvox::regs
