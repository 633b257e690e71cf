// Libraries loaded before libtvoxsp export their own itoa, self and crc32 (zlib, as in most audio
// server processes): the process sees those, yet the library's own formatting reaches the
// library's itoa, its context the library's self and its tuning checks the library's crc32,
// leaving the rivals untouched. This executable never names `self` itself, so that the process's
// `self` stays the rival's (a direct read would give this program a copy of it).
#include "support/capture.h"
#include "tvoxsp.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <string>

// zlib.h cannot meet tvoxsp.h (both declare crc32); this reference keeps zlib a dependency.
extern "C" const char *zlibVersion(void);

namespace
{

using Handle = std::unique_ptr<void, int (*)(void *)>;

Handle loaded(const char *name)
{
    return Handle(dlopen(name, RTLD_NOW | RTLD_NOLOAD), dlclose);
}

TEST(RivalBinding, InternalCallsIgnoreAnEarlierItoa)
{
    std::array<char, 34> text{};
    ASSERT_STREQ(itoa(42, text.data(), 10), "rival");

    const Handle lib = loaded("libtvoxsp.so");
    ASSERT_NE(lib, nullptr);
    auto *own = reinterpret_cast<char *(*)(int32_t, char *, int32_t)>(dlsym(lib.get(), "itoa"));
    ASSERT_NE(own, nullptr);
    EXPECT_STREQ(own(-42, text.data(), 10), "-42");

    // The builder formats decimal numbers through the library's itoa, never the rival.
    std::unique_ptr<str_builder, void (*)(str_builder *)> sb(str_builder_create(8),
                                                             str_builder_destroy);
    str_builder_add_int(sb.get(), INT32_MIN, 8);
    EXPECT_EQ(std::string(str_builder_peek(sb.get())), "-2147483648");
}

TEST(RivalBinding, TheContextNeverReachesAnEarlierSelf)
{
    const Handle rival = loaded("librival_itoa.so");
    const Handle lib = loaded("libtvoxsp.so");
    ASSERT_NE(rival, nullptr);
    ASSERT_NE(lib, nullptr);
    auto *rival_self = static_cast<void **>(dlsym(rival.get(), "self"));
    auto *own_self = static_cast<struct tervox **>(dlsym(lib.get(), "self"));
    ASSERT_NE(rival_self, nullptr);
    ASSERT_NE(own_self, nullptr);
    // The process's self is the rival's, still at its own address.
    ASSERT_EQ(dlsym(RTLD_DEFAULT, "self"), rival_self);
    ASSERT_EQ(*rival_self, rival_self);

    struct tervox ctx = {};
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(*own_self, &ctx); // outside readers of the library's self see the context
    EXPECT_EQ(*rival_self, rival_self);

    // Operations reach the record through the library's self: a read through the rival's would
    // land in its 8 bytes.
    ctx.cal_ok = 0;
    std::array<char, 64> report{};
    EXPECT_EQ(tervox_cal_str_format_out(report.data(), report.size()), 0);
    EXPECT_STREQ(report.data(), "calibration failed\n");
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
    EXPECT_EQ(*own_self, &ctx);
    EXPECT_EQ(*rival_self, rival_self);
}

TEST(Crc32Binding, TuningChecksIgnoreZlibsEarlierExport)
{
    const Handle zlib = loaded("libz.so.1");
    const Handle own = loaded("libtvoxsp.so");
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
