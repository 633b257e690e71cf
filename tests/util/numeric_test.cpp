#include "tvoxsp/util.h"

#include <gtest/gtest.h>

#include <array>
#include <charconv>
#include <climits>
#include <string>

namespace
{

std::string itoa_text(int32_t value, int32_t base)
{
    std::array<char, 34> buffer{};
    buffer.fill('#');
    char *result = itoa(value, buffer.data(), base);
    EXPECT_EQ(result, buffer.data());
    return result;
}

TEST(Itoa, EveryBaseMatchesTheStandardConversion)
{
    const int32_t values[] = {0,   1,    -1,      7,          -7,        35,        36,
                              255, -255, 1000000, -123456789, INT32_MAX, INT32_MIN, INT32_MIN + 1};
    for (int32_t base = 2; base <= 36; ++base) {
        for (const int32_t value : values) {
            std::array<char, 40> expected{};
            const auto end =
                std::to_chars(expected.data(), expected.data() + expected.size(), value, base);
            EXPECT_EQ(itoa_text(value, base), std::string(expected.data(), end.ptr))
                << "value " << value << " base " << base;
        }
    }
}

TEST(Itoa, KnownTextsAndRejectedBases)
{
    EXPECT_EQ(itoa_text(255, 16), "ff");
    EXPECT_EQ(itoa_text(-255, 16), "-ff");
    EXPECT_EQ(itoa_text(INT32_MIN, 10), "-2147483648");
    EXPECT_EQ(itoa_text(INT32_MIN, 2), "-10000000000000000000000000000000");
    EXPECT_EQ(itoa_text(35, 36), "z");
    EXPECT_EQ(itoa_text(0, 2), "0");
    for (const int32_t base : {1, 37, 0, -10, INT32_MIN})
        EXPECT_EQ(itoa_text(12345, base), "") << "base " << base;
}

TEST(SignExtend32, SignBitSelectsTheField)
{
    EXPECT_EQ(sign_extend32(0x00800000, 23), -8388608);
    EXPECT_EQ(sign_extend32(0x00800000, 24), 8388608);
    EXPECT_EQ(sign_extend32(0x01FFFFFF, 24), -1);
    EXPECT_EQ(sign_extend32(0xFE000001, 24), 1); // bits above the sign are replaced
    EXPECT_EQ(sign_extend32(0x01000000, 24), -16777216);
    EXPECT_EQ(sign_extend32(0x80000000, 31), INT32_MIN);
    EXPECT_EQ(sign_extend32(0x7FFFFFFF, 31), INT32_MAX);
    EXPECT_EQ(sign_extend32(1, 0), -1);
    EXPECT_EQ(sign_extend32(2, 0), 0);
    // The shift is taken modulo 32: a bit index past 31 wraps instead of shifting out.
    EXPECT_EQ(sign_extend32(0x80, 39), sign_extend32(0x80, 7));
}

TEST(EndianFlip, ReversesTheFourBytes)
{
    EXPECT_EQ(endian_flip(0x14150000), 0x00001514u);
    EXPECT_EQ(endian_flip(0x11223344), 0x44332211u);
    EXPECT_EQ(endian_flip(0), 0u);
    EXPECT_EQ(endian_flip(endian_flip(0xDEADBEEF)), 0xDEADBEEFu);
}

} // namespace
