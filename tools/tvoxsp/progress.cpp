#include "progress.h"

#include <chrono>
#include <cstdio>
#include <unistd.h>

namespace tvoxsp
{

namespace
{

constexpr std::chrono::milliseconds kRedraw{200};

} // namespace

Progress::Progress(const char *what)
{
    if (isatty(STDOUT_FILENO) == 1)
        thread_ = std::thread([this, what] { show(what); });
}

Progress::~Progress()
{
    if (!thread_.joinable())
        return;
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    stop_.notify_one();
    thread_.join();
}

void Progress::show(const char *what)
{
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    do {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        std::fprintf(stderr, "\rtvoxsp: %s, %.1f s elapsed", what, elapsed.count());
    } while (!stop_.wait_for(lock, kRedraw, [this] { return stopped_; }));
    std::fprintf(stderr, "\r\033[K");
}

} // namespace tvoxsp
