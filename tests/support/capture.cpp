#include "support/capture.h"

#include <android/log.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>

namespace tvox::test
{

namespace
{

std::mutex g_log_mutex;
std::vector<LogLine> g_log_lines;

void record_line(const struct __android_logger_data *data, const char *message)
{
    std::lock_guard lock(g_log_mutex);
    g_log_lines.push_back({data->priority, data->tag ? data->tag : "", message ? message : ""});
}

} // namespace

LogCapture::LogCapture()
{
    clear();
    __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger(record_line);
}

LogCapture::~LogCapture()
{
    __android_log_set_logger(__android_log_stderr_logger);
}

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard lock(g_log_mutex);
    return g_log_lines;
}

bool LogCapture::contains(const std::string &text, const std::string &tag) const
{
    return std::ranges::any_of(lines(), [&](const LogLine &line) {
        return line.text == text && (tag.empty() || line.tag == tag);
    });
}

void LogCapture::clear()
{
    std::lock_guard lock(g_log_mutex);
    g_log_lines.clear();
}

StreamCapture::StreamCapture(int fd) : fd_(fd)
{
    char path[] = "/tmp/tvoxsp-stream-XXXXXX";
    const int file = mkstemp(path);
    path_ = path;
    fflush(fd_ == 1 ? stdout : stderr);
    saved_ = dup(fd_);
    dup2(file, fd_);
    close(file);
}

StreamCapture::~StreamCapture()
{
    fflush(fd_ == 1 ? stdout : stderr);
    dup2(saved_, fd_);
    close(saved_);
    unlink(path_.c_str());
}

std::string StreamCapture::text() const
{
    fflush(fd_ == 1 ? stdout : stderr);
    std::ifstream in(path_);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

} // namespace tvox::test
