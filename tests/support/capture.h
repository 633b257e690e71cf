// Test helpers that observe what the library says: Android log lines and standard streams.
#pragma once

#include <string>
#include <vector>

namespace tvox::test
{

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

// Installs a liblog logger for its lifetime and records every line (all priorities).
class LogCapture
{
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines() const;
    // True when a line with this exact text (and tag, when given) was logged.
    bool contains(const std::string &text, const std::string &tag = {}) const;
    void clear();
};

// Redirects a standard stream's descriptor (1 or 2) into a file for its lifetime.
class StreamCapture
{
  public:
    explicit StreamCapture(int fd);
    ~StreamCapture();
    StreamCapture(const StreamCapture &) = delete;
    StreamCapture &operator=(const StreamCapture &) = delete;

    // Everything written so far (flushes stdio first).
    std::string text() const;

  private:
    int fd_;
    int saved_;
    std::string path_;
};

} // namespace tvox::test
