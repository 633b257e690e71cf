// A command the dashboard started: its argument vector exec'd without a shell, standard input
// from /dev/null, standard output and error read through pipes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tvoxsp::serve
{

class Child
{
  public:
    // Starts argv[0] (searched on PATH when it holds no '/'). running() tells whether it did;
    // error() says why not.
    explicit Child(const std::vector<std::string> &argv);
    ~Child(); // a child still running gets the stop sequence's SIGINT, then is waited for
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    const std::string &error() const { return error_; }
    int out() const { return out_; }

    // Reads what standard output holds within `timeout_ms`: false at its end.
    bool read_out(std::string &into, int timeout_ms);
    // Everything the child writes until it ends, then its exit status.
    int finish(std::string &out, std::string &err);
    // The clean stop sequence of tvoxsp's live commands.
    void interrupt() const;
    // Waits for the end: the exit status, 128 + signal when a signal ended it.
    int wait();

  private:
    void drain_err();

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string err_text_;
    std::string error_;
};

// Runs a command to its end: exit status (-1 when it did not start) and both outputs.
struct Finished {
    int status;
    std::string out, err;
};
Finished run_to_end(const std::vector<std::string> &argv);

} // namespace tvoxsp::serve
