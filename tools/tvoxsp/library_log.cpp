#include "library_log.h"

#include <android/log.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>

namespace tvoxsp
{

namespace
{

// A live log runs for hours: only the latest lines are kept.
constexpr size_t kKeptLines = 4096;

constexpr std::string_view kPriorityLetters = "??VDIWEFS";

char priority_letter(int priority)
{
    return priority >= 0 && static_cast<size_t>(priority) < kPriorityLetters.size()
               ? kPriorityLetters[static_cast<size_t>(priority)]
               : '?';
}

// The lowest priority ANDROID_LOG_TAGS lets through for `tag` ("AHAL:TERVOX:d *:e"; a tag's
// priority follows its last colon, "*" is every other tag; "s" silences).
int shown_from(std::string_view tags, std::string_view tag)
{
    int wildcard = ANDROID_LOG_VERBOSE;
    int named = -1;
    while (!tags.empty()) {
        const size_t start = tags.find_first_not_of(" \t");
        if (start == std::string_view::npos)
            break;
        tags.remove_prefix(start);
        const std::string_view word = tags.substr(0, tags.find_first_of(" \t"));
        tags.remove_prefix(word.size());
        const size_t colon = word.rfind(':');
        if (colon == std::string_view::npos || colon + 2 != word.size())
            continue;
        const size_t letter = kPriorityLetters.find(static_cast<char>(word[colon + 1] & ~0x20));
        if (letter == std::string_view::npos || letter < ANDROID_LOG_VERBOSE)
            continue;
        const std::string_view name = word.substr(0, colon);
        if (name == "*")
            wildcard = static_cast<int>(letter);
        else if (name == tag)
            named = static_cast<int>(letter);
    }
    return named >= 0 ? named : wildcard;
}

class Watcher
{
  public:
    void start(bool verbose, Args command_line)
    {
        verbose_ = verbose;
        if (const char *tags = std::getenv("ANDROID_LOG_TAGS"))
            tags_ = tags;
        if (const char *path = std::getenv("TVOXSP_LOG_FILE"); path != nullptr && *path != '\0')
            file_ = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        std::string header = "== tvoxsp";
        for (const char *word : command_line)
            header += std::string(" ") + word;
        append(header + " (pid " + std::to_string(getpid()) + ")");
    }

    // Keeps the line; says whether the terminal shows it (a host with -v).
    bool keep(int priority, const char *tag, const char *message, int error)
    {
        std::string text = message != nullptr ? message : "";
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.pop_back();
        const std::string name = tag != nullptr ? tag : "";
        const std::lock_guard lock(mutex_);
        append(std::string(1, priority_letter(priority)) + " " + name + ": " + text);
        lines_.push_back({priority, name, std::move(text), error});
        if (lines_.size() > kKeptLines) {
            lines_.pop_front();
            ++dropped_;
        }
        return verbose_ && priority >= shown_from(tags_, name);
    }

    size_t mark()
    {
        const std::lock_guard lock(mutex_);
        return dropped_ + lines_.size();
    }

    std::vector<LibraryLogLine> since(size_t mark)
    {
        const std::lock_guard lock(mutex_);
        const size_t skip = mark > dropped_ ? mark - dropped_ : 0;
        if (skip >= lines_.size())
            return {};
        return {lines_.begin() + static_cast<std::ptrdiff_t>(skip), lines_.end()};
    }

  private:
    // One write per line: appends from several processes do not interleave within a line.
    void append(std::string line)
    {
        if (file_ < 0)
            return;
        line += '\n';
        if (::write(file_, line.data(), line.size()) < 0)
            file_ = -1; // the log file is a convenience: a full disk does not fail the command
    }

    std::mutex mutex_;
    std::deque<LibraryLogLine> lines_;
    size_t dropped_ = 0;
    bool verbose_ = false;
    std::string tags_;
    int file_ = -1;
};

Watcher &watcher()
{
    static Watcher instance; // outlives every thread that logs: the process ends with it
    return instance;
}

#if defined(__ANDROID__)
void hook(const struct __android_log_message *message)
{
    watcher().keep(message->priority, message->tag, message->message, errno);
    __android_log_logd_logger(message);
}
#else
void hook(const struct __android_logger_data *data, const char *message)
{
    const int error = errno;
    if (watcher().keep(data->priority, data->tag, message, error))
        __android_log_stderr_logger(data, message);
    errno = error;
}
#endif

} // namespace

void watch_library_log(bool verbose, Args command_line)
{
    watcher().start(verbose, command_line);
#if !defined(__ANDROID__)
    // Every priority reaches the hook; it decides what the terminal shows.
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
#endif
    __android_log_set_logger(hook);
}

size_t library_log_mark()
{
    return watcher().mark();
}

std::vector<LibraryLogLine> library_log_since(size_t mark)
{
    return watcher().since(mark);
}

std::optional<LibraryLogLine> library_logged(size_t mark, std::string_view part)
{
    for (LibraryLogLine &line : library_log_since(mark)) {
        if (line.text.find(part) != std::string::npos)
            return std::move(line);
    }
    return std::nullopt;
}

std::string error_name(int error)
{
    struct Name {
        int error;
        const char *name;
    };
    static constexpr std::array kNames = {
        Name{EPERM, "EPERM"},   Name{ENOENT, "ENOENT"}, Name{EIO, "EIO"},
        Name{ENXIO, "ENXIO"},   Name{EBADF, "EBADF"},   Name{EAGAIN, "EAGAIN"},
        Name{ENOMEM, "ENOMEM"}, Name{EACCES, "EACCES"}, Name{EFAULT, "EFAULT"},
        Name{EBUSY, "EBUSY"},   Name{ENODEV, "ENODEV"}, Name{EINVAL, "EINVAL"},
        Name{ENOTTY, "ENOTTY"}, Name{ENOSPC, "ENOSPC"}, Name{ETIMEDOUT, "ETIMEDOUT"},
    };
    const auto *known =
        std::find_if(kNames.begin(), kNames.end(), [&](const Name &n) { return n.error == error; });
    const std::string name = known != kNames.end() ? known->name : "errno " + std::to_string(error);
    return name + " (" + std::strerror(error) + ")";
}

} // namespace tvoxsp
