// Owning pointer for malloc'd storage: code that must answer an allocation failure instead of
// ending the process (no exception may leave the library) allocates with malloc and checks.
#pragma once

#include <cstdlib>
#include <memory>

namespace tvox
{

struct FreeDeleter {
    void operator()(void *block) const { std::free(block); }
};
template <typename T> using MallocPtr = std::unique_ptr<T, FreeDeleter>;

} // namespace tvox
