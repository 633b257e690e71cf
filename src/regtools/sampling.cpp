#include "regtools/sampling.h"

#include "tvoxsp/regtools.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

// One byte, set from the signal handler and read by the loops of any thread.
std::atomic<bool> sig_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

// Readable from the first SIGINT on, like the flag: it wakes the sleep of every sampling loop,
// whichever thread the handler runs on. Made when a loop first installs the handler and kept for
// the process; without it (no descriptor left) a sleep ends only when the signal hits its thread.
std::atomic<int> wake_fd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

constexpr int32_t kDefaultPeriodMs = 1000;

void make_wake_fd()
{
    if (wake_fd.load() >= 0)
        return;
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int none = -1;
    if (fd >= 0 && !wake_fd.compare_exchange_strong(none, fd))
        close(fd);
}

// sig_handler's effect; async-signal-safe (write(), not stdio).
void stop_sampling()
{
    static constexpr char kMessage[] = "shutdown\n";
    const ssize_t written = write(STDOUT_FILENO, kMessage, sizeof kMessage - 1);
    static_cast<void>(written);
    sig_stop.store(true);
    if (const int fd = wake_fd.load(); fd >= 0) {
        const uint64_t one = 1;
        const ssize_t woken = write(fd, &one, sizeof one);
        static_cast<void>(woken);
    }
}

} // namespace

namespace tvox::regs
{

SamplingLoop::SamplingLoop() : Running(interrupt::Loop::sampling, stop_sampling) {}

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
    make_wake_fd();
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

void sleep_period(const timespec &period)
{
    // A negative descriptor is skipped: the call is a plain sleep, which a signal handled on this
    // thread cuts short.
    pollfd wake{stop_requested() ? -1 : wake_fd.load(), POLLIN, 0};
    ppoll(&wake, 1, &period, nullptr);
}

} // namespace tvox::regs

extern "C" void sig_handler(int32_t)
{
    const tvox::interrupt::SavedErrno saved;
    stop_sampling();
    tvox::interrupt::stop_others(tvox::interrupt::Loop::sampling);
}
