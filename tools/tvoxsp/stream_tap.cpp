#include "stream_tap.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace tvoxsp
{

namespace
{

constexpr size_t kKept = 64 * 1024;

std::FILE *stream_of(int fd)
{
    return fd == 1 ? stdout : stderr;
}

} // namespace

StreamTap::StreamTap(int fd, LineHandler on_line) : fd_(fd), on_line_(std::move(on_line))
{
    int ends[2];
    std::fflush(stream_of(fd_));
    if (pipe(ends) != 0)
        return; // untapped: the call still runs, its output goes straight through
    saved_ = dup(fd_);
    if (saved_ < 0 || dup2(ends[1], fd_) < 0) {
        close(ends[0]);
        close(ends[1]);
        if (saved_ >= 0)
            close(saved_);
        saved_ = -1;
        return;
    }
    write_end_ = ends[1];
    reader_ = std::thread([this, from = ends[0], to = dup(saved_)] { pass_through(from, to); });
}

StreamTap::~StreamTap()
{
    stop();
}

void StreamTap::stop()
{
    if (saved_ < 0)
        return;
    std::fflush(stream_of(fd_));
    dup2(saved_, fd_);
    close(saved_);
    close(write_end_);
    saved_ = -1;
    reader_.join();
}

std::string StreamTap::text()
{
    stop();
    const std::lock_guard lock(mutex_);
    return seen_;
}

void StreamTap::pass_through(int from, int to)
{
    // A Ctrl-C belongs to the thread that runs the call: it cuts the call's sleep short.
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t got = read(from, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        const auto size = static_cast<size_t>(got);
        if (on_line_) {
            partial_.append(buffer.data(), size);
            for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
                on_line_(std::string_view(partial_).substr(0, end));
                partial_.erase(0, end + 1);
            }
            continue;
        }
        for (size_t done = 0; done < size;) {
            const ssize_t put = write(to, buffer.data() + done, size - done);
            if (put <= 0)
                break;
            done += static_cast<size_t>(put);
        }
        const std::lock_guard lock(mutex_);
        seen_.append(buffer.data(), size);
        if (seen_.size() > kKept)
            seen_.erase(0, seen_.size() - kKept);
    }
    close(from);
    close(to);
}

bool setter_refused(std::string_view printed)
{
    static constexpr std::array<std::string_view, 7> kRefusals = {
        "Error: ",         "Invalid mixer control: ", "Failed to set binary control",
        " not an integer", " should be between [",    "strtol: ",
        "Enclose strings",
    };
    return std::any_of(kRefusals.begin(), kRefusals.end(), [&](std::string_view refusal) {
        return printed.find(refusal) != std::string_view::npos;
    });
}

// The players report a failed step only in what they print (their result stays 0): the first
// line that tells one, or nothing.
std::optional<std::string> player_failure(const std::string &printed)
{
    static constexpr std::array<std::string_view, 8> kFailures = {
        "Unable to open PCM device",
        "Unable to allocate",
        "Error playing sample",
        "device only supports",
        "Failed to",
        "Invalid input, entry not found",
        "start error",
        "Unable to open file",
    };
    for (size_t start = 0; start < printed.size();) {
        const size_t end = std::min(printed.find('\n', start), printed.size());
        const std::string_view line = std::string_view(printed).substr(start, end - start);
        for (std::string_view failure : kFailures) {
            if (line.find(failure) != std::string_view::npos)
                return std::string(line);
        }
        start = end + 1;
    }
    return std::nullopt;
}

} // namespace tvoxsp
