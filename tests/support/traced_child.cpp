#include "support/traced_child.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace tvox::test
{

namespace
{
constexpr int kUntraceable = 127; // the child's status where tracing is not allowed
} // namespace

TracedRun run_traced(const std::function<int()> &body,
                     const std::function<bool(pid_t, size_t)> &at_call)
{
    std::fflush(nullptr); // nothing buffered is written twice
    const pid_t pid = fork();
    if (pid == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(kUntraceable);
        raise(SIGSTOP);
        _exit(body()); // no exit handlers: the sanitizers' leak check would trace the child
    }
    TracedRun run;
    if (pid < 0 || waitpid(pid, &run.status, 0) != pid || !WIFSTOPPED(run.status)) {
        run.untraceable = WIFEXITED(run.status) && WEXITSTATUS(run.status) == kUntraceable;
        return run;
    }
    if (ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &run.status, 0);
        return run;
    }
    bool entering = true;
    int pending = 0; // a signal the child received, handed on when it resumes
    for (;;) {
        ptrace(PTRACE_SYSCALL, pid, nullptr, pending);
        pending = 0;
        if (waitpid(pid, &run.status, 0) != pid || !WIFSTOPPED(run.status))
            return run;
        if (WSTOPSIG(run.status) != (SIGTRAP | 0x80)) {
            pending = WSTOPSIG(run.status);
            continue;
        }
        if (entering && !at_call(pid, ++run.calls)) {
            kill(pid, SIGKILL);
            waitpid(pid, &run.status, 0);
            run.killed = true;
            return run;
        }
        entering = !entering;
    }
}

int run_in_child(const std::function<int()> &body)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return status;
}

} // namespace tvox::test
