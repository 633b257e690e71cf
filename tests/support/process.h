// What this process holds, counted to show that a call leaves nothing behind.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <thread>

namespace tvox::test
{

inline size_t folder_entries(const char *folder)
{
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

inline size_t open_descriptors()
{
    return folder_entries("/proc/self/fd");
}

// The threads of this process, counted once the count has held for three reads 10 ms apart: a
// thread whose join has returned can stay listed a moment longer (milliseconds under qemu
// user-mode emulation, which wakes the joining thread before the host thread ends).
inline size_t running_threads()
{
    size_t count = folder_entries("/proc/self/task");
    for (int same = 0, reads = 0; same < 3 && reads < 200; ++reads) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const size_t now = folder_entries("/proc/self/task");
        same = now == count ? same + 1 : 0;
        count = now;
    }
    return count;
}

} // namespace tvox::test
