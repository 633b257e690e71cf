// Atomic access to plain fields of the context record (and to the exported `self`), which the HAL
// sees as ordinary C data. The compiler's __atomic builtins work on such fields with every Android
// toolchain, where std::atomic_ref is missing from libc++ before LLVM 19.
#pragma once

#include <type_traits>

namespace tvox
{

// Lock-free on every ABI the library is built for, so no field needs libatomic or a lock.
template <typename T> constexpr bool lock_free_field = __atomic_always_lock_free(sizeof(T), 0);

template <typename T> T atomic_load(const T &field)
{
    static_assert(lock_free_field<T>);
    return __atomic_load_n(&field, __ATOMIC_SEQ_CST);
}

template <typename T> void atomic_store(T &field, std::type_identity_t<T> value)
{
    static_assert(lock_free_field<T>);
    __atomic_store_n(&field, value, __ATOMIC_SEQ_CST);
}

template <typename T> T atomic_exchange(T &field, std::type_identity_t<T> value)
{
    static_assert(lock_free_field<T>);
    return __atomic_exchange_n(&field, value, __ATOMIC_SEQ_CST);
}

} // namespace tvox
