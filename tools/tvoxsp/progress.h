// While a measurement runs, a line of elapsed time on standard error, redrawn a few times a
// second and erased at the end; only when standard output is a terminal, so that pipes and logs
// get the report alone.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace tvoxsp
{

class Progress
{
  public:
    explicit Progress(const char *what);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

  private:
    void show(const char *what);

    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopped_ = false;
    std::thread thread_;
};

} // namespace tvoxsp
