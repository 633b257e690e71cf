// The fixed phone paths the library opens ("/odm/...", "/sdcard/...", "/mnt/vendor/persist/...")
// and where they live in a simulator folder: "$TVOXSIM_DIR/phone/<path>".
#pragma once

#include <cstddef>

namespace tvox::sim
{

// $TVOXSIM_DIR when it is a simulator folder (it holds a state file), else null. The preload runs
// in every program started inside the simulator, so a folder that is not one does not stop them:
// the first phone path a process asks for prints on standard error, once, that the folder is
// not a simulator and its phone paths are not mapped, and they stay the host's paths.
const char *simulator_folder();

// Writes the simulator path of `path` into `out` (of `size` bytes) and returns it when `path`
// is a phone path and simulator_folder() is one, null when that path does not fit, and `path`
// itself for every other path.
const char *map_phone_path(const char *path, char *out, std::size_t size);

// A simulator folder holding this file has a full persist partition: every file opened for
// writing under "/mnt/vendor/persist" is then "/dev/full" (writes fail with ENOSPC).
inline constexpr const char kPersistFullMarker[] = "persist-full";

// True when `path` is under "/mnt/vendor/persist" and the simulator's persist partition is full.
bool persist_full(const char *path);

} // namespace tvox::sim
