// zlib, loaded before libtvoxsp as in most audio server processes, exports its own crc32: the
// process sees zlib's, yet the library's tuning checks still reach the library's crc32.
#include "support/capture.h"
#include "tvoxsp/qdsp.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

// zlib.h cannot meet tvoxsp.h (both declare crc32); this reference keeps zlib a dependency.
extern "C" const char *zlibVersion(void);

namespace
{

using Handle = std::unique_ptr<void, int (*)(void *)>;

TEST(Crc32Binding, TuningChecksIgnoreZlibsEarlierExport)
{
    const Handle zlib(dlopen("libz.so.1", RTLD_NOW | RTLD_NOLOAD), dlclose);
    const Handle own(dlopen("libtvoxsp.so", RTLD_NOW | RTLD_NOLOAD), dlclose);
    ASSERT_NE(zlibVersion(), nullptr);
    ASSERT_NE(zlib, nullptr) << "the test links zlib ahead of libtvoxsp";
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "crc32"), dlsym(zlib.get(), "crc32"));
    EXPECT_NE(dlsym(own.get(), "crc32"), dlsym(zlib.get(), "crc32"));

    char path[] = "/tmp/tvoxsp_crc32_bindingXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string block = "5,100,200,300,4292077319\n";
    ASSERT_EQ(write(fd, block.data(), block.size()), static_cast<ssize_t>(block.size()));
    close(fd);
    tvox::test::LogCapture log;
    // zlib's crc32 would read the block's address as a running CRC and fail the check.
    EXPECT_EQ(tervox_qdsp_delta_tuning(path), 0);
    EXPECT_TRUE(log.contains("CRC: calc = -2889977, match = -2889977\n"));
    unlink(path);
}

} // namespace
