// Exported variables that the library or its host writes (the context pointer `self`, the driver
// path a HAL may change).
//
// The library is linked with -Bsymbolic, so its own references to its exported variables bind to
// its own definitions at link time: a library earlier in the lookup order that defines the same
// generic name (a `void *self` of its own) is never read or written by us, and outside readers
// still find the exported names. One case needs help: a program linked against the library that
// names such a variable directly may get a copy relocation (GCC's position-independent
// executables do). The process then uses the program's copy, which the dynamic linker filled once
// at start-up: the library repeats its writes there (publish), and reads a variable that the
// program may write from there (live). The copy is found by the program's own copy relocations,
// never by name alone: a program's unrelated global of the same name is not ours to touch.
//
// To add an exported variable: define it in its subsystem and list it in that subsystem's
// exports.txt; write it only through publish(variable, "name", value), and where outside code may
// change it, read it through live(variable, "name"). A variable that only the library writes is
// read directly; one that nobody writes needs nothing.
#pragma once

#include "util/atomic.h"

#include <type_traits>

namespace tvox
{

// The program's copy of the exported variable `name` (its copy relocation), or null when the
// program has none.
void *program_copy_of(const char *name);

template <typename T> void publish(T &own, const char *name, std::type_identity_t<T> value)
{
    atomic_store(own, value);
    if (void *copy = program_copy_of(name))
        atomic_store(*static_cast<T *>(copy), value);
}

// The definition the process uses: the program's copy, or else the library's own.
template <typename T> T &live(T &own, const char *name)
{
    void *copy = program_copy_of(name);
    return copy != nullptr ? *static_cast<T *>(copy) : own;
}

} // namespace tvox
