// Exported variables that the library writes (the context pointer `self`).
//
// The library is linked with -Bsymbolic, so its own references to its exported variables bind to
// its own definitions at link time: a library earlier in the lookup order that defines the same
// generic name (a `void *self` of its own) is never read or written by us, and outside readers
// still find the exported names. One case needs help: a program linked against the library that
// reads such a variable directly may get a copy relocation (GCC's position-independent
// executables do). The process then reads the program's copy, which the dynamic linker filled
// once at start-up, so every write of the library repeats itself in that copy.
//
// To add an exported variable that the library writes: define it in its subsystem, list it in
// that subsystem's exports.txt, and write it only through publish(variable, "name", value). A
// variable the library never writes needs nothing: a copy starts with the same value.
#pragma once

#include "util/atomic.h"

#include <type_traits>

namespace tvox
{

// The program's copy of the exported variable `name` whose own definition is at `own`, or null
// when the process reads the library's own definition, or another library's variable of that name.
void *program_copy_of(const void *own, const char *name);

template <typename T> void publish(T &own, const char *name, std::type_identity_t<T> value)
{
    atomic_store(own, value);
    if (void *copy = program_copy_of(&own, name))
        atomic_store(*static_cast<T *>(copy), value);
}

} // namespace tvox
