// A function run in a child process that stops at every system call it enters, so that a test
// can look at the child at each of them (its descriptors) or end it there (a crash at that point).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>

namespace tvox::test
{

struct TracedRun {
    size_t calls = 0;         // system calls the child entered
    bool killed = false;      // ended by `at_call` rather than by itself
    int status = 0;           // its wait status
    bool untraceable = false; // the system lets no process trace it (qemu user-mode emulation)
};

// Runs `body` in a forked child that exits with its result. `at_call(pid, n)` sees the child
// stopped on entering its nth system call (from 1); returning false kills it there, before the
// call is made.
TracedRun run_traced(const std::function<int()> &body,
                     const std::function<bool(pid_t, size_t)> &at_call);

// The wait status of `body` run in a forked child that exits with its result (not traced).
int run_in_child(const std::function<int()> &body);

} // namespace tvox::test
