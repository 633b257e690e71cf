#include "phone_paths.h"

#include <unistd.h>

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

} // namespace

const char *map_phone_path(const char *path, char *out, std::size_t size)
{
    if (!path)
        return path;
    const char *dir = std::getenv("TVOXSIM_DIR");
    if (!dir || !*dir)
        return path;
    for (const char *root : kPhoneRoots) {
        if (!under_root(path, root))
            continue;
        const int written = std::snprintf(out, size, "%s/phone%s", dir, path);
        return written > 0 && static_cast<std::size_t>(written) < size ? out : nullptr;
    }
    return path;
}

bool persist_full(const char *path)
{
    const char *dir = std::getenv("TVOXSIM_DIR");
    if (!path || !dir || !*dir || !under_root(path, kPersistRoot))
        return false;
    char marker[PATH_MAX];
    const int written = std::snprintf(marker, sizeof marker, "%s/%s", dir, kPersistFullMarker);
    return written > 0 && static_cast<std::size_t>(written) < sizeof marker &&
           access(marker, F_OK) == 0;
}

} // namespace tvox::sim
