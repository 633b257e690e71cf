#include "live.h"

#include "arguments.h"
#include "output.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace tvoxsp
{

namespace
{

int64_t now_ns()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// SIGTERM and SIGHUP end a run as Ctrl-C does.
extern "C" void forward_to_sigint(int)
{
    const int saved = errno;
    kill(getpid(), SIGINT);
    errno = saved;
}

} // namespace

std::string clock_stamp()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text_of("%s.%03ld", text, now.tv_nsec / 1'000'000L);
}

std::optional<LiveOptions> live_options(Args args, bool csv_file, bool changes)
{
    LiveOptions options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view word = args[i];
        const bool valued = word == "--interval" || word == "--count" || word == "--duration" ||
                            (csv_file && word == "-o");
        if (valued && i + 1 == args.size()) {
            tell(text_of("%s needs a value", args[i]));
            return std::nullopt;
        }
        if (word == "--interval") {
            const std::optional<int32_t> ms = signed_number(args[++i]);
            if (!ms)
                return std::nullopt;
            if (*ms <= 0) {
                tell(text_of("the interval is a number of milliseconds above 0, not %s", args[i]));
                return std::nullopt;
            }
            options.interval_ms = *ms;
        } else if (word == "--count") {
            const std::optional<uint32_t> count = unsigned_number(args[++i]);
            if (!count || *count == 0) {
                tell("--count takes a number of samples above 0");
                return std::nullopt;
            }
            options.count = *count;
        } else if (word == "--duration") {
            char *end = nullptr;
            options.duration = std::strtod(args[++i], &end);
            if (*args[i] == '\0' || *end != '\0' || !(options.duration > 0) ||
                !std::isfinite(options.duration)) {
                tell(text_of("--duration takes seconds above 0, not '%s'", args[i]));
                return std::nullopt;
            }
        } else if (csv_file && word == "-o") {
            options.file = args[++i];
        } else if (csv_file && word == "--csv") {
            options.csv = true;
        } else if (changes && word == "--changes") {
            options.changes = true;
        } else if (word.starts_with("-") && word.size() > 1 &&
                   word.find_first_not_of("0123456789", 1) != std::string_view::npos) {
            tell(text_of("unknown option %s", args[i]));
            return std::nullopt;
        } else {
            options.positionals.push_back(args[i]);
        }
    }
    return options;
}

LiveRun::LiveRun(const LiveOptions &options) : options_(options), start_ns_(now_ns())
{
    if (options_.file != nullptr) {
        file_ = std::fopen(options_.file, "we");
        if (file_ == nullptr) {
            fail(kFailed, text_of("cannot open %s: %s", options_.file, std::strerror(errno)));
            ready_ = false;
            return;
        }
    }
    std::fflush(stdout);
    out_ = json_output() ? -1 : dup(STDOUT_FILENO);
    // A closed standard output shows as EPIPE on a write, which ends the run.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGTERM, forward_to_sigint);
    std::signal(SIGHUP, forward_to_sigint);
    if (options_.duration > 0)
        timer_ = std::thread([this] {
            std::unique_lock lock(mutex_);
            const auto limit = std::chrono::duration<double>(options_.duration);
            if (!wake_.wait_for(lock, limit, [this] { return ended_; }))
                stop();
        });
}

LiveRun::~LiveRun()
{
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }
    wake_.notify_all();
    if (timer_.joinable())
        timer_.join();
    if (file_ != nullptr)
        std::fclose(file_);
    if (out_ >= 0)
        close(out_);
}

void LiveRun::stop()
{
    kill(getpid(), SIGINT);
}

double LiveRun::elapsed_ms() const
{
    return static_cast<double>(now_ns() - start_ns_) / 1e6;
}

void LiveRun::emit(const std::string &line)
{
    if (file_ != nullptr) {
        std::fputs(line.c_str(), file_);
        std::fflush(file_);
    }
    if (out_ >= 0 && !write_all(out_, line))
        stop();
}

void LiveRun::pass(std::string_view line)
{
    if (out_ < 0 || options_.csv) // the output holds JSON or CSV alone
        std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
    else if (!write_all(out_, std::string(line) + "\n"))
        stop();
}

void LiveRun::sample(Json::Value json, const std::string &text, const std::string &csv_header,
                     const std::string &csv_row)
{
    // --count counts the samples taken, printed or not: a run ends when asked.
    if (options_.count != 0 && taken_ >= options_.count)
        return; // the stop is on its way
    if (++taken_ == options_.count)
        stop();
    const std::string key = json.toStyledString();
    if (options_.changes && key == previous_)
        return;
    previous_ = key;
    ++samples_;
    const double t_ms = elapsed_ms();
    if (json_output()) {
        Json::Value line(Json::objectValue);
        line["type"] = "sample";
        line["t_ms"] = std::round(t_ms * 1000) / 1000;
        for (const std::string &name : json.getMemberNames())
            line[name] = json[name];
        if (!json_line(line))
            stop();
        if (file_ != nullptr) {
            std::fputs(json_text(line).c_str(), file_);
            std::fflush(file_);
        }
    } else if (options_.csv) {
        if (!header_done_)
            emit("t_ms," + csv_header + "\n");
        header_done_ = true;
        emit(text_of("%.0f,", t_ms) + csv_row + "\n");
    } else {
        emit(text + "\n");
    }
}

} // namespace tvoxsp
