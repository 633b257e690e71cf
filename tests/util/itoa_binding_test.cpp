// A library loaded before libtvoxsp exports another itoa: the process sees that one, yet the
// library's own formatting still reaches the library's itoa.
#include "tvoxsp/util.h"

#include <gtest/gtest.h>

#include <array>
#include <dlfcn.h>
#include <memory>
#include <string>

namespace
{

TEST(ItoaBinding, InternalCallsIgnoreAnEarlierExport)
{
    std::array<char, 34> text{};
    ASSERT_STREQ(itoa(42, text.data(), 10), "rival");

    std::unique_ptr<void, int (*)(void *)> lib(dlopen("libtvoxsp.so", RTLD_NOW | RTLD_NOLOAD),
                                               dlclose);
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

} // namespace
