#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

extern char **environ;

namespace tvoxsp::serve
{

Child::Child(const std::vector<std::string> &argv)
{
    std::array<int, 2> out{-1, -1};
    std::array<int, 2> err{-1, -1};
    if (argv.empty() || pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) {
        error_ = argv.empty() ? "no command" : std::strerror(errno);
        for (int fd : {out[0], out[1], err[0], err[1]})
            if (fd >= 0)
                close(fd);
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<char *> args;
    for (const std::string &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    // The server blocks its stop signals and ignores SIGPIPE: the child gets them back.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int rc = posix_spawnp(&pid_, args[0], &actions, &attr, args.data(), environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
    fcntl(err_, F_SETFL, O_NONBLOCK);
    if (rc != 0) {
        pid_ = -1;
        error_ = "cannot start " + argv[0] + ": " + std::strerror(rc);
    }
}

Child::~Child()
{
    if (pid_ > 0) {
        interrupt();
        wait();
    }
    for (int fd : {out_, err_})
        if (fd >= 0)
            close(fd);
}

void Child::interrupt() const
{
    if (pid_ > 0)
        kill(pid_, SIGINT);
}

// Standard error is kept but never waited for: a child writing much of it must not block.
void Child::drain_err()
{
    std::array<char, 4096> buf{};
    ssize_t n = 0;
    while ((n = read(err_, buf.data(), buf.size())) > 0)
        err_text_.append(buf.data(), static_cast<size_t>(n));
    if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
        close(err_);
        err_ = -1;
    }
}

bool Child::read_out(std::string &into, int timeout_ms)
{
    std::array<pollfd, 2> fds = {pollfd{out_, POLLIN, 0}, pollfd{err_, POLLIN, 0}};
    if (poll(fds.data(), err_ >= 0 ? 2 : 1, timeout_ms) <= 0)
        return true;
    if (err_ >= 0 && fds[1].revents != 0)
        drain_err();
    if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR)))
        return true;
    std::array<char, 65536> buf{};
    const ssize_t n = read(out_, buf.data(), buf.size());
    if (n > 0)
        into.append(buf.data(), static_cast<size_t>(n));
    return n > 0 || (n < 0 && errno == EINTR);
}

int Child::wait()
{
    if (pid_ <= 0)
        return -1;
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Child::finish(std::string &out, std::string &err)
{
    while (read_out(out, -1)) {
    }
    while (err_ >= 0) {
        pollfd fd{err_, POLLIN, 0};
        poll(&fd, 1, -1);
        drain_err();
    }
    err = err_text_;
    return wait();
}

Finished run_to_end(const std::vector<std::string> &argv)
{
    Child child(argv);
    if (!child.running())
        return {-1, "", child.error()};
    Finished done{};
    done.status = child.finish(done.out, done.err);
    return done;
}

} // namespace tvoxsp::serve
