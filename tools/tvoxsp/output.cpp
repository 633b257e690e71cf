#include "output.h"

#include "command.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <optional>

namespace tvoxsp
{

namespace
{

struct Output {
    int json_fd = -1; // the real standard output in JSON mode
    Json::Value fields{Json::objectValue};
    std::string message;
    std::optional<Json::Value> live_end;
};

Output &output()
{
    static Output state;
    return state;
}

// "no-device" for 3, ...: the failure class of a non-zero exit status.
const char *failure_class(int status)
{
    switch (status) {
    case kUsage:
        return "usage";
    case kNoDevice:
        return "no-device";
    case kBusy:
        return "busy";
    case kMeasurement:
        return "measurement";
    case kStoring:
        return "storing";
    case kApplying:
        return "applying";
    case kMismatch:
        return "mismatch";
    case kInterrupted:
        return "interrupted";
    default:
        return "failed";
    }
}

// {"class": ..., "message": ...}, or null for status 0.
Json::Value error_of(int status)
{
    if (status == 0)
        return Json::nullValue;
    Json::Value error;
    error["class"] = failure_class(status);
    error["message"] = output().message.empty() ? failure_class(status) : output().message;
    return error;
}

} // namespace

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t put = write(fd, text.data(), text.size());
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(put));
    }
    return true;
}

std::string json_text(const Json::Value &line)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, line) + "\n";
}

void start_output(bool json)
{
    if (!json)
        return;
    std::fflush(stdout);
    output().json_fd = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
}

bool json_output()
{
    return output().json_fd >= 0;
}

Json::Value &result()
{
    return output().fields;
}

int noted(int status, const std::string &message)
{
    if (output().message.empty())
        output().message = message;
    return status;
}

void tell(const std::string &message)
{
    std::fprintf(stderr, "tvoxsp: %s\n", message.c_str());
    noted(0, message);
}

int fail(int status, const std::string &message)
{
    tell(message);
    return status;
}

bool json_line(const Json::Value &line)
{
    return write_all(output().json_fd, json_text(line));
}

void set_live_end(const Json::Value &end)
{
    output().live_end = end;
}

void finish_output(std::string_view command, int status)
{
    if (!json_output())
        return;
    if (output().live_end) {
        Json::Value end = *output().live_end;
        end["ok"] = status == 0;
        end["exit"] = status;
        end["error"] = error_of(status);
        json_line(end);
        return;
    }
    Json::Value document(Json::objectValue);
    document["command"] = std::string(command);
    document["ok"] = status == 0;
    document["exit"] = status;
    document["error"] = error_of(status);
    for (const std::string &name : output().fields.getMemberNames())
        document[name] = output().fields[name];
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    write_all(output().json_fd, Json::writeString(builder, document) + "\n");
}

std::string text_of(const char *format, ...)
{
    std::array<char, 512> text{};
    va_list values;
    va_start(values, format);
    std::vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    return text.data();
}

} // namespace tvoxsp
