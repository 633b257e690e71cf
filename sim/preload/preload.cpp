// LD_PRELOAD library of the simulator: the libc calls that name a file are redirected from the
// phone's fixed paths into the simulator folder (phone_paths.h); every other path passes through
// untouched, and so does every path when $TVOXSIM_DIR is not a simulator folder. A full persist
// partition (phone_paths.h) turns what is opened there for writing into "/dev/full". libtvoxsp.so
// knows nothing of it.
//
// Under AddressSanitizer the preload must come after the sanitizer runtime in LD_PRELOAD; the
// runtime's interceptors then reach these functions as their "real" ones.
//
// The driver device "/dev/msm_tervox_playback" of a simulator folder is served by the virtual
// driver (sim/driver): its open, ioctl and close are handed over, every other descriptor passes
// through.
#undef _FORTIFY_SOURCE
#include "device_node.h"
#include "phone_paths.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace
{

// The next definition of libc function `name` (normally libc's own), looked up on first use:
// other libraries' constructors may open files before ours have run.
template <typename Fn> Fn next(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

// Runs `call` with the simulator path of `path`, or fails with ENAMETOOLONG, as the kernel
// would, when that path does not fit.
template <typename R, typename Call> R with_path(const char *path, R failure, Call call)
{
    char buffer[PATH_MAX];
    const char *mapped = tvox::sim::map_phone_path(path, buffer, sizeof buffer);
    if (!mapped) {
        errno = ENAMETOOLONG;
        return failure;
    }
    return call(mapped);
}

using OpenAtFn = int (*)(int, const char *, int, ...);

OpenAtFn real_openat()
{
    static const auto real = next<OpenAtFn>("openat");
    return real;
}

OpenAtFn real_openat64()
{
    static const auto real = next<OpenAtFn>("openat64");
    return real;
}

constexpr const char kFullDevice[] = "/dev/full";

// A full persist partition: what is opened there for writing is the full device.
const char *persist_target(const char *path, bool writes)
{
    return writes && tvox::sim::persist_full(path) ? kFullDevice : path;
}

bool writes(const char *mode)
{
    return std::strpbrk(mode, "wa+") != nullptr;
}

int open_redirected(OpenAtFn real, int dirfd, const char *path, int flags, mode_t mode)
{
    if (tvox::sim::driver::is_device_path(path) && tvox::sim::simulator_folder())
        return tvox::sim::driver::node_open(flags);
    const char *target = persist_target(path, (flags & O_ACCMODE) != O_RDONLY);
    // A full partition still takes a new (empty) file: only its writes fail.
    if (target != path)
        flags &= ~(O_CREAT | O_EXCL);
    path = target;
    return with_path(path, -1, [&](const char *p) { return real(dirfd, p, flags, mode); });
}

// The mode argument exists only for flags that create a file.
mode_t mode_argument(int flags, va_list args)
{
    const bool creates = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return creates ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

} // namespace

extern "C" {

// open() and its relatives all become openat(); AT_FDCWD keeps relative paths relative.
int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_redirected(real_openat(), AT_FDCWD, path, flags, mode);
}

int open64(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_redirected(real_openat64(), AT_FDCWD, path, flags, mode);
}

int openat(int dirfd, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_redirected(real_openat(), dirfd, path, flags, mode);
}

int openat64(int dirfd, const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_argument(flags, args);
    va_end(args);
    return open_redirected(real_openat64(), dirfd, path, flags, mode);
}

// The checked variants that _FORTIFY_SOURCE builds call.
int __open_2(const char *path, int flags)
{
    return open_redirected(real_openat(), AT_FDCWD, path, flags, 0);
}

int __open64_2(const char *path, int flags)
{
    return open_redirected(real_openat64(), AT_FDCWD, path, flags, 0);
}

int __openat_2(int dirfd, const char *path, int flags)
{
    return open_redirected(real_openat(), dirfd, path, flags, 0);
}

int __openat64_2(int dirfd, const char *path, int flags)
{
    return open_redirected(real_openat64(), dirfd, path, flags, 0);
}

int creat(const char *path, mode_t mode)
{
    return open_redirected(real_openat(), AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

int creat64(const char *path, mode_t mode)
{
    return open_redirected(real_openat64(), AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

FILE *fopen(const char *path, const char *mode)
{
    static const auto real = next<FILE *(*)(const char *, const char *)>("fopen");
    path = persist_target(path, writes(mode));
    return with_path<FILE *>(path, nullptr, [&](const char *p) { return real(p, mode); });
}

FILE *fopen64(const char *path, const char *mode)
{
    static const auto real = next<FILE *(*)(const char *, const char *)>("fopen64");
    path = persist_target(path, writes(mode));
    return with_path<FILE *>(path, nullptr, [&](const char *p) { return real(p, mode); });
}

// A null path reopens the stream's own file with another mode.
FILE *freopen(const char *path, const char *mode, FILE *stream)
{
    static const auto real = next<FILE *(*)(const char *, const char *, FILE *)>("freopen");
    if (!path)
        return real(path, mode, stream);
    path = persist_target(path, writes(mode));
    return with_path<FILE *>(path, nullptr, [&](const char *p) { return real(p, mode, stream); });
}

FILE *freopen64(const char *path, const char *mode, FILE *stream)
{
    static const auto real = next<FILE *(*)(const char *, const char *, FILE *)>("freopen64");
    if (!path)
        return real(path, mode, stream);
    path = persist_target(path, writes(mode));
    return with_path<FILE *>(path, nullptr, [&](const char *p) { return real(p, mode, stream); });
}

int stat(const char *path, struct stat *buf)
{
    static const auto real = next<int (*)(const char *, struct stat *)>("stat");
    return with_path(path, -1, [&](const char *p) { return real(p, buf); });
}

int stat64(const char *path, struct stat64 *buf)
{
    static const auto real = next<int (*)(const char *, struct stat64 *)>("stat64");
    return with_path(path, -1, [&](const char *p) { return real(p, buf); });
}

int lstat(const char *path, struct stat *buf)
{
    static const auto real = next<int (*)(const char *, struct stat *)>("lstat");
    return with_path(path, -1, [&](const char *p) { return real(p, buf); });
}

int lstat64(const char *path, struct stat64 *buf)
{
    static const auto real = next<int (*)(const char *, struct stat64 *)>("lstat64");
    return with_path(path, -1, [&](const char *p) { return real(p, buf); });
}

int fstatat(int dirfd, const char *path, struct stat *buf, int flags)
{
    static const auto real = next<int (*)(int, const char *, struct stat *, int)>("fstatat");
    return with_path(path, -1, [&](const char *p) { return real(dirfd, p, buf, flags); });
}

int fstatat64(int dirfd, const char *path, struct stat64 *buf, int flags)
{
    static const auto real = next<int (*)(int, const char *, struct stat64 *, int)>("fstatat64");
    return with_path(path, -1, [&](const char *p) { return real(dirfd, p, buf, flags); });
}

int statx(int dirfd, const char *path, int flags, unsigned int mask, struct statx *buf)
{
    static const auto real =
        next<int (*)(int, const char *, int, unsigned int, struct statx *)>("statx");
    return with_path(path, -1, [&](const char *p) { return real(dirfd, p, flags, mask, buf); });
}

int access(const char *path, int mode)
{
    static const auto real = next<int (*)(const char *, int)>("access");
    return with_path(path, -1, [&](const char *p) { return real(p, mode); });
}

int faccessat(int dirfd, const char *path, int mode, int flags)
{
    static const auto real = next<int (*)(int, const char *, int, int)>("faccessat");
    return with_path(path, -1, [&](const char *p) { return real(dirfd, p, mode, flags); });
}

int unlink(const char *path)
{
    static const auto real = next<int (*)(const char *)>("unlink");
    return with_path(path, -1, [&](const char *p) { return real(p); });
}

int remove(const char *path)
{
    static const auto real = next<int (*)(const char *)>("remove");
    return with_path(path, -1, [&](const char *p) { return real(p); });
}

int mkdir(const char *path, mode_t mode)
{
    static const auto real = next<int (*)(const char *, mode_t)>("mkdir");
    return with_path(path, -1, [&](const char *p) { return real(p, mode); });
}

int rename(const char *from, const char *to)
{
    static const auto real = next<int (*)(const char *, const char *)>("rename");
    return with_path(from, -1, [&](const char *f) {
        return with_path(to, -1, [&](const char *t) { return real(f, t); });
    });
}

int ioctl(int fd, unsigned long request, ...)
{
    static const auto real = next<int (*)(int, unsigned long, ...)>("ioctl");
    va_list args;
    va_start(args, request);
    void *argument = va_arg(args, void *);
    va_end(args);
    if (tvox::sim::driver::node_owns(fd))
        return tvox::sim::driver::node_ioctl(fd, request, argument);
    return real(fd, request, argument);
}

int close(int fd)
{
    static const auto real = next<int (*)(int)>("close");
    tvox::sim::driver::node_release(fd);
    return real(fd);
}

DIR *opendir(const char *path)
{
    static const auto real = next<DIR *(*)(const char *)>("opendir");
    return with_path<DIR *>(path, nullptr, [&](const char *p) { return real(p); });
}

} // extern "C"
