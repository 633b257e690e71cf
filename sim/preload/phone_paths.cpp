#include "phone_paths.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tvox::sim
{

namespace
{

// A prefix matches the folder itself or anything below it, never a sibling ("/odmx").
constexpr const char kPersistRoot[] = "/mnt/vendor/persist";
constexpr const char *kPhoneRoots[] = {"/odm", "/sdcard", kPersistRoot};

bool under_root(const char *path, const char *root)
{
    const std::size_t length = std::strlen(root);
    return std::strncmp(path, root, length) == 0 && (path[length] == '\0' || path[length] == '/');
}

bool is_phone_path(const char *path)
{
    for (const char *root : kPhoneRoots)
        if (under_root(path, root))
            return true;
    return false;
}

} // namespace

const char *simulator_folder()
{
    const char *dir = std::getenv("TVOXSIM_DIR");
    if (!dir || !*dir)
        return nullptr;
    char state[PATH_MAX];
    const int written = std::snprintf(state, sizeof state, "%s/state", dir);
    // Asked of the kernel: the preload's own access() would map the path in turn.
    if (written > 0 && static_cast<std::size_t>(written) < sizeof state &&
        syscall(SYS_faccessat, AT_FDCWD, state, F_OK) == 0)
        return dir;
    static std::atomic<bool> said{false};
    if (!said.exchange(true)) {
        char message[2 * PATH_MAX];
        const int length = std::snprintf(message, sizeof message,
                                         "tvoxsim: TVOXSIM_DIR=%s is not a simulator folder "
                                         "(tvoxsim init %s makes one): phone paths are not "
                                         "mapped\n",
                                         dir, dir);
        if (length > 0) {
            const ssize_t shown =
                write(STDERR_FILENO, message,
                      std::min(static_cast<std::size_t>(length), sizeof message - 1));
            (void)shown;
        }
    }
    return nullptr;
}

const char *map_phone_path(const char *path, char *out, std::size_t size)
{
    if (!path || !is_phone_path(path))
        return path;
    const char *dir = simulator_folder();
    if (!dir)
        return path;
    const int written = std::snprintf(out, size, "%s/phone%s", dir, path);
    return written > 0 && static_cast<std::size_t>(written) < size ? out : nullptr;
}

bool persist_full(const char *path)
{
    if (!path || !under_root(path, kPersistRoot))
        return false;
    const char *dir = simulator_folder();
    if (!dir)
        return false;
    char marker[PATH_MAX];
    const int written = std::snprintf(marker, sizeof marker, "%s/%s", dir, kPersistFullMarker);
    return written > 0 && static_cast<std::size_t>(written) < sizeof marker &&
           access(marker, F_OK) == 0;
}

} // namespace tvox::sim
