#include "util/interrupt.h"

#include <array>
#include <atomic>
#include <cstddef>

namespace tvox::interrupt
{

namespace
{

constexpr std::size_t kKinds = 2;

// Read by signal handlers: lock-free atomics only.
std::array<std::atomic<int>, kKinds> running{};
std::array<std::atomic<void (*)()>, kKinds> stops{};
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<void (*)()>::is_always_lock_free);

constexpr std::size_t index(Loop kind)
{
    return static_cast<std::size_t>(kind);
}

} // namespace

Running::Running(Loop kind, void (*stop)()) : kind_(kind)
{
    stops[index(kind)].store(stop);
    running[index(kind)].fetch_add(1);
}

Running::~Running()
{
    running[index(kind_)].fetch_sub(1);
}

void stop_others(Loop caught_by)
{
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        if (kind == index(caught_by) || running[kind].load() == 0)
            continue;
        if (void (*stop)() = stops[kind].load())
            stop();
    }
}

} // namespace tvox::interrupt
