#include "calibration/cal_thread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <pthread.h>

namespace tvox
{

namespace
{

// Contexts whose cal_thread holds a started, not yet joined thread. A HAL has one context, so
// the table stays tiny; it is fixed so that starting a run never allocates. The lock also orders
// a join against a concurrent start.
constexpr size_t kMaxUnjoined = 16;
std::mutex registry_lock;
std::array<const struct tervox *, kMaxUnjoined> unjoined = {};

int join_locked(struct tervox *ctx)
{
    const auto it = std::find(unjoined.begin(), unjoined.end(), ctx);
    if (ctx == nullptr || it == unjoined.end())
        return 0;
    *it = nullptr;
    return pthread_join(ctx->cal_thread, nullptr);
}

} // namespace

int start_cal_thread(struct tervox *ctx, void *(*body)(void *), void *arg)
{
    std::lock_guard lock(registry_lock);
    join_locked(ctx);
    // With every entry taken the start fails as pthread_create does when it lacks resources.
    const auto free_entry = std::find(unjoined.begin(), unjoined.end(), nullptr);
    if (free_entry == unjoined.end())
        return EAGAIN;
    const int ret = pthread_create(&ctx->cal_thread, nullptr, body, arg);
    if (ret == 0)
        *free_entry = ctx;
    return ret;
}

int join_cal_thread(struct tervox *ctx)
{
    std::lock_guard lock(registry_lock);
    return join_locked(ctx);
}

} // namespace tvox
