// The one way the library ends the process: conditions that must never be wrapped or ignored
// (an overflowing size or counter, an index past a fixed per-channel array).
#pragma once

#include <cstddef>
#include <cstdlib>
#include <span>

namespace tvox
{

[[noreturn]] inline void fatal()
{
    std::abort();
}

// Element `index` of a fixed array; an index past its end ends the process.
template <typename T, std::size_t N> constexpr T &checked_at(T (&array)[N], std::size_t index)
{
    if (index >= N)
        fatal();
    return array[index];
}

template <typename T> constexpr T &checked_at(std::span<T> array, std::size_t index)
{
    if (index >= array.size())
        fatal();
    return array[index];
}

} // namespace tvox
