#include "tvoxsp/util.h"

#include <gtest/gtest.h>

#include <array>
#include <charconv>
#include <climits>
#include <string>

namespace
{

TEST(Itoa, EveryBaseMatchesTheStandardConversion)
{
    const int32_t values[] = {0,   1,    -1,      7,          -7,        35,        36,
                              255, -255, 1000000, -123456789, INT32_MAX, INT32_MIN, INT32_MIN + 1};
    std::array<char, 34> buffer{};
    for (int32_t base = 2; base <= 36; ++base) {
        for (const int32_t value : values) {
            std::array<char, 40> expected{};
            const auto end =
                std::to_chars(expected.data(), expected.data() + expected.size(), value, base);
            buffer.fill('#');
            EXPECT_EQ(itoa(value, buffer.data(), base), buffer.data());
            EXPECT_EQ(std::string(buffer.data()), std::string(expected.data(), end.ptr))
                << "value " << value << " base " << base;
        }
    }
    EXPECT_STREQ(itoa(INT32_MIN, buffer.data(), 2), "-10000000000000000000000000000000");
    for (const int32_t base : {1, 37, 0, -10, INT32_MIN}) {
        buffer.fill('#');
        EXPECT_STREQ(itoa(12345, buffer.data(), base), "") << "base " << base;
    }
}

TEST(DspWords, SignExtensionAndByteOrder)
{
    EXPECT_EQ(sign_extend32(0x00800000, 23), -8388608);
    EXPECT_EQ(sign_extend32(0xFE000001, 24), 1); // bits above the sign are replaced
    EXPECT_EQ(sign_extend32(0x80000000, 31), INT32_MIN);
    EXPECT_EQ(sign_extend32(0x7FFFFFFF, 31), INT32_MAX);
    EXPECT_EQ(sign_extend32(1, 0), -1);
    EXPECT_EQ(sign_extend32(2, 0), 0);
    // The shift is taken modulo 32: a bit index past 31 wraps instead of shifting out.
    EXPECT_EQ(sign_extend32(0x80, 39), sign_extend32(0x80, 7));

    EXPECT_EQ(endian_flip(0x11223344), 0x44332211u);
}

} // namespace
