// What this process holds, counted to show that a call leaves nothing behind.
#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

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

inline size_t running_threads()
{
    return folder_entries("/proc/self/task");
}

} // namespace tvox::test
