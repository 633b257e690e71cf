#include "phone_paths.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tvox::sim
{

namespace
{

// A prefix matches the folder itself or anything below it, never a sibling ("/odmx").
constexpr const char *kPhoneRoots[] = {"/odm", "/sdcard", "/mnt/vendor/persist"};

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

} // namespace tvox::sim
