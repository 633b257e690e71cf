#include "calibration/cal_thread.h"

#include <algorithm>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace tvox
{

namespace
{

// Contexts whose cal_thread holds a started, not yet joined thread. A HAL has one context, so
// the list stays tiny; the lock also orders a join against a concurrent start.
std::mutex registry_lock;
std::vector<const struct tervox *> unjoined;

int join_locked(struct tervox *ctx)
{
    const auto it = std::find(unjoined.begin(), unjoined.end(), ctx);
    if (it == unjoined.end())
        return 0;
    unjoined.erase(it);
    return pthread_join(ctx->cal_thread, nullptr);
}

} // namespace

int start_cal_thread(struct tervox *ctx, void *(*body)(void *), void *arg)
{
    std::lock_guard lock(registry_lock);
    join_locked(ctx);
    const int ret = pthread_create(&ctx->cal_thread, nullptr, body, arg);
    if (ret == 0)
        unjoined.push_back(ctx);
    return ret;
}

int join_cal_thread(struct tervox *ctx)
{
    std::lock_guard lock(registry_lock);
    return join_locked(ctx);
}

} // namespace tvox
