// The fixed phone paths the library opens ("/odm/...", "/sdcard/...", "/mnt/vendor/persist/...")
// and where they live in a simulator folder: "$TVOXSIM_DIR/phone/<path>".
#pragma once

#include <cstddef>

namespace tvox::sim
{

// Writes the simulator path of `path` into `out` (of `size` bytes) and returns it when `path`
// is a phone path and $TVOXSIM_DIR is set, null when that path does not fit, and `path` itself
// for every other path.
const char *map_phone_path(const char *path, char *out, std::size_t size);

// A simulator folder holding this file has a full persist partition: every file opened for
// writing under "/mnt/vendor/persist" is then "/dev/full" (writes fail with ENOSPC).
inline constexpr const char kPersistFullMarker[] = "persist-full";

// True when `path` is under "/mnt/vendor/persist" and the simulator's persist partition is full.
bool persist_full(const char *path);

} // namespace tvox::sim
