#include "device_node.h"

#include "driver.h"
#include "state.h"

#include <fcntl.h>
#include <sys/eventfd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace tvox::sim::driver
{

namespace
{

constexpr size_t kMaxOpen = 64;

// Descriptors of the device open in this process, and the state they reach. A test process
// switches simulator folders between cases, so the state follows $TVOXSIM_DIR. The descriptor
// table is read without the mutex: every close() of the process asks it, including the ones
// made while the mutex is held (opening the state).
struct Node {
    std::mutex mutex;
    std::unique_ptr<State> state;
    std::array<std::atomic<int>, kMaxOpen> fds;
    Node()
    {
        for (std::atomic<int> &fd : fds)
            fd.store(-1);
    }
};

std::atomic<int> *find_fd(Node &n, int fd)
{
    for (std::atomic<int> &slot : n.fds)
        if (slot.load() == fd)
            return &slot;
    return nullptr;
}

Node &node()
{
    static Node *instance = new Node; // outlives every static destructor that may close files
    return *instance;
}

State *state_locked(Node &n, int &err)
{
    const std::string dir = State::dir_from_env();
    if (!n.state || n.state->dir() != dir)
        n.state = State::open(dir, err);
    return n.state.get();
}

int fail(int err)
{
    errno = err;
    return -1;
}

// Runs action(Session &) with the state locked; -1 and errno when the state does not open.
template <typename Action> int with_session(Node &n, Action &&action)
{
    const std::lock_guard guard(n.mutex);
    int err = 0;
    State *state = state_locked(n, err);
    if (!state)
        return fail(-err);
    Session session = state->lock();
    return action(session);
}

} // namespace

bool is_device_path(const char *path)
{
    const char *dir = std::getenv("TVOXSIM_DIR");
    return path && dir && *dir && std::strcmp(path, kDevicePath) == 0;
}

int node_open(int flags)
{
    Node &n = node();
    return with_session(n, [&](Session &session) {
        std::atomic<int> *slot = find_fd(n, -1);
        if (!slot)
            return fail(EMFILE);
        if (int result = open_device(session, flags); result < 0)
            return fail(-result);
        // Any descriptor will do: it only has to be a real one that close() can release, and
        // close-on-exec only when asked, as the kernel's.
        const int fd = eventfd(0, (flags & O_CLOEXEC) != 0 ? EFD_CLOEXEC : 0);
        if (fd >= 0)
            slot->store(fd);
        return fd;
    });
}

bool node_owns(int fd)
{
    return fd >= 0 && find_fd(node(), fd) != nullptr;
}

int node_ioctl(int, unsigned long number, void *argument)
{
    return with_session(node(), [&](Session &session) {
        const int result = request(session, number, argument);
        return result < 0 ? fail(-result) : result;
    });
}

void node_release(int fd)
{
    Node &n = node();
    std::atomic<int> *slot = fd >= 0 ? find_fd(n, fd) : nullptr;
    if (!slot)
        return;
    slot->store(-1);
    const int saved = errno; // close() itself decides errno
    with_session(n, [](Session &session) {
        close_device(session);
        return 0;
    });
    errno = saved;
}

} // namespace tvox::sim::driver
