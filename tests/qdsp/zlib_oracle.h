// zlib's crc32, reached through dlsym: the oracle for the library's CRC, and a way to seal tuning
// blocks in tests without the library's own code. (zlib.h and tvoxsp.h both declare a crc32, so
// the two never meet in one translation unit.)
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <span>

namespace tvox::test
{

inline uint32_t zlib_crc(std::span<const uint32_t> words)
{
    using Crc32 = unsigned long (*)(unsigned long, const unsigned char *, unsigned int);
    static const auto crc32 = [] {
        void *zlib = dlopen("libz.so.1", RTLD_NOW);
        return zlib ? reinterpret_cast<Crc32>(dlsym(zlib, "crc32")) : nullptr;
    }();
    EXPECT_NE(crc32, nullptr) << "zlib is not loadable";
    if (!crc32)
        return 0;
    unsigned long crc = crc32(0, nullptr, 0);
    for (uint32_t word : words) {
        const unsigned char bytes[4] = {
            static_cast<unsigned char>(word), static_cast<unsigned char>(word >> 8),
            static_cast<unsigned char>(word >> 16), static_cast<unsigned char>(word >> 24)};
        crc = crc32(crc, bytes, 4);
    }
    return static_cast<uint32_t>(crc);
}

} // namespace tvox::test
