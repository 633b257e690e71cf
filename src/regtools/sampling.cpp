#include "regtools/sampling.h"

#include "tvoxsp/regtools.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace
{

// One byte, set from the signal handler and read by the loops of any thread.
std::atomic<bool> sig_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

constexpr int32_t kDefaultPeriodMs = 1000;

} // namespace

namespace tvox::regs
{

timespec sampling_period(int32_t interval_ms)
{
    const int32_t period = interval_ms >= 1 ? interval_ms : kDefaultPeriodMs;
    timespec sleep{};
    sleep.tv_sec = period / 1000;
    sleep.tv_nsec = static_cast<long>(period % 1000) * 1'000'000L;
    return sleep;
}

bool catch_sigint()
{
    if (std::signal(SIGINT, sig_handler) == SIG_ERR) {
        std::fprintf(stderr, "Error registering signal handler\n");
        return false;
    }
    return true;
}

bool stop_requested()
{
    return sig_stop.load();
}

} // namespace tvox::regs

extern "C" void sig_handler(int32_t)
{
    // write(), not stdio: this runs inside a signal handler.
    static constexpr char kMessage[] = "shutdown\n";
    const ssize_t written = write(STDOUT_FILENO, kMessage, sizeof kMessage - 1);
    static_cast<void>(written);
    sig_stop.store(true);
}
