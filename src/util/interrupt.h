// SIGINT ends the library's blocking loops: the live log and the register monitor through
// sig_handler, graph playback through stream_close. Each loop installs its own handler for the
// whole process, so a SIGINT reaches only the handler installed last; every handler therefore
// also stops the running loops of the other kind, and one SIGINT ends every loop that runs.
#pragma once

#include <cerrno>

namespace tvox::interrupt
{

enum class Loop { sampling, playback };

// A loop of `kind` running, for the object's lifetime. `stop` ends the loops of that kind from a
// signal handler, so it may only make async-signal-safe calls.
class Running
{
  public:
    Running(Loop kind, void (*stop)());
    ~Running();
    Running(const Running &) = delete;
    Running &operator=(const Running &) = delete;

  private:
    Loop kind_;
};

// The common end of the handler of `caught_by`: stops the running loops of the other kinds.
void stop_others(Loop caught_by);

// A handler's own calls may fail: the interrupted code finds errno as it left it.
class SavedErrno
{
  public:
    SavedErrno() = default;
    ~SavedErrno() { errno = saved_; }
    SavedErrno(const SavedErrno &) = delete;
    SavedErrno &operator=(const SavedErrno &) = delete;

  private:
    int saved_ = errno;
};

} // namespace tvox::interrupt
