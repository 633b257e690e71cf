#include "regtools/sampling.h"

#include "tvoxsp/regtools.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

// One byte, set from the signal handler and read by the loops of any thread.
std::atomic<bool> sig_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

// The wake descriptors of the running loops: the handler makes each readable, which ends that
// loop's sleep whichever thread the handler runs on. A loop takes a free slot for its lifetime.
struct WakeSlot {
    std::atomic<int> fd{-1};
};
std::array<WakeSlot, 8> wake_slots;
// Handlers between reading a slot and writing to its descriptor: a loop closes its descriptor
// only when none is, so a handler never writes to a number that was closed and reused.
std::atomic<int> handlers_writing{0};
static_assert(std::atomic<int>::is_always_lock_free);

constexpr int32_t kDefaultPeriodMs = 1000;

// sig_handler's effect; async-signal-safe (write(), not stdio).
void stop_sampling()
{
    static constexpr char kMessage[] = "shutdown\n";
    const ssize_t written = write(STDOUT_FILENO, kMessage, sizeof kMessage - 1);
    static_cast<void>(written);
    sig_stop.store(true);
    handlers_writing.fetch_add(1);
    for (const WakeSlot &slot : wake_slots) {
        if (const int fd = slot.fd.load(); fd >= 0) {
            const uint64_t one = 1;
            const ssize_t woken = write(fd, &one, sizeof one);
            static_cast<void>(woken);
        }
    }
    handlers_writing.fetch_sub(1);
}

int take_wake_slot()
{
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        return -1;
    for (WakeSlot &slot : wake_slots) {
        int free = -1;
        if (slot.fd.compare_exchange_strong(free, fd))
            return fd;
    }
    close(fd);
    return -1;
}

void release_wake_slot(int fd)
{
    for (WakeSlot &slot : wake_slots) {
        int mine = fd;
        slot.fd.compare_exchange_strong(mine, -1);
    }
    while (handlers_writing.load() != 0)
        sched_yield();
    close(fd);
}

} // namespace

namespace tvox::regs
{

SamplingLoop::SamplingLoop()
    : running_(interrupt::Loop::sampling, stop_sampling), wake_fd_(take_wake_slot())
{
}

SamplingLoop::~SamplingLoop()
{
    if (wake_fd_ >= 0)
        release_wake_slot(wake_fd_);
}

void SamplingLoop::sleep(const timespec &period) const
{
    // A negative descriptor is skipped: the call is a plain sleep, which a signal handled on this
    // thread cuts short.
    pollfd wake{stop_requested() ? -1 : wake_fd_, POLLIN, 0};
    ppoll(&wake, 1, &period, nullptr);
}

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
    const tvox::interrupt::SavedErrno saved;
    stop_sampling();
    tvox::interrupt::stop_others(tvox::interrupt::Loop::sampling);
}
