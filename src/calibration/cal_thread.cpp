#include "calibration/cal_thread.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <vector>

namespace tvox
{

namespace
{

struct Calibrations {
    const struct tervox *ctx;
    int in_progress = 0;
    bool unjoined = false; // cal_thread holds a started thread
    bool open = false;     // between init and teardown
};

// A HAL has one context, so the list stays tiny. An entry lives while its context is open, or
// while it has a run in progress or a thread to join.
std::mutex registry_lock;
std::condition_variable run_ended;
std::vector<Calibrations> contexts;

std::vector<Calibrations>::iterator find(const struct tervox *ctx)
{
    return std::find_if(contexts.begin(), contexts.end(),
                        [ctx](const Calibrations &c) { return c.ctx == ctx; });
}

Calibrations &entry(const struct tervox *ctx)
{
    const auto it = find(ctx);
    return it != contexts.end() ? *it : contexts.emplace_back(Calibrations{ctx});
}

void drop_if_unused(const struct tervox *ctx)
{
    const auto it = find(ctx);
    if (it != contexts.end() && !it->open && it->in_progress == 0 && !it->unjoined)
        contexts.erase(it);
}

} // namespace

void open_calibrations(const struct tervox *ctx)
{
    std::lock_guard lock(registry_lock);
    entry(ctx).open = true;
}

CalibrationInProgress::CalibrationInProgress(const struct tervox *ctx) : ctx_(ctx)
{
    std::lock_guard lock(registry_lock);
    ++entry(ctx).in_progress;
}

CalibrationInProgress::~CalibrationInProgress()
{
    std::lock_guard lock(registry_lock);
    --entry(ctx_).in_progress;
    drop_if_unused(ctx_);
    run_ended.notify_all();
}

int start_cal_thread(struct tervox *ctx, void *(*body)(void *), void *arg)
{
    std::lock_guard lock(registry_lock);
    Calibrations &c = entry(ctx);
    if (c.unjoined) {
        pthread_join(ctx->cal_thread, nullptr);
        c.unjoined = false;
    }
    // Teardown has joined what it would join: a torn-down context starts nothing.
    const int ret = c.open ? pthread_create(&ctx->cal_thread, nullptr, body, arg) : EPERM;
    c.unjoined = ret == 0;
    drop_if_unused(ctx);
    return ret;
}

int close_calibrations(struct tervox *ctx)
{
    std::unique_lock lock(registry_lock);
    if (find(ctx) == contexts.end())
        return 0;
    // A run in progress may still start its playback thread: it is joined below.
    run_ended.wait(lock, [ctx] { return entry(ctx).in_progress == 0; });
    entry(ctx).open = false;
    const bool unjoined = entry(ctx).unjoined;
    const pthread_t thread = ctx->cal_thread;
    entry(ctx).unjoined = false;
    drop_if_unused(ctx);
    lock.unlock();
    return unjoined ? pthread_join(thread, nullptr) : 0;
}

} // namespace tvox
