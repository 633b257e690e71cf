#include "tvoxsp/util.h"

#include <array>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

using Builder = std::unique_ptr<str_builder, void (*)(str_builder *)>;
using Text = std::unique_ptr<char, void (*)(void *)>;

Builder make_builder(uint64_t capacity)
{
    return Builder(str_builder_create(capacity), str_builder_destroy);
}

std::string text_of(const Builder &sb)
{
    return str_builder_peek(sb.get());
}

TEST(StrBuilder, AppendsThroughTheRecordAndDoublesItsCapacity)
{
    auto sb = make_builder(4);
    ASSERT_NE(sb, nullptr);
    EXPECT_EQ(str_builder_peek(sb.get()), sb->buffer); // the buffer itself, not a copy
    sb->add_str(sb.get(), "abc", 0);
    EXPECT_EQ(sb->capacity, 4u);
    sb->add_char(sb.get(), 'd'); // 4 + NUL no longer fit
    EXPECT_EQ(sb->capacity, 8u);
    sb->add_str(sb.get(), "xyz", 2);
    sb->add_int(sb.get(), 7, 10);
    EXPECT_STREQ(sb->peek(sb.get()), "abcdxy7");
    // One append that needs several doublings; an explicit length copies past a NUL.
    str_builder_add_str(sb.get(), std::string(20, 'x').c_str(), 0);
    EXPECT_EQ(sb->capacity, 32u);
    str_builder_add_str(sb.get(), "p\0q", 3);
    EXPECT_EQ(std::string(sb->buffer, sb->length + 1),
              "abcdxy7" + std::string(20, 'x') + std::string("p\0q\0", 4));

    str_builder_clear(sb.get());
    str_builder_add_str(sb.get(), nullptr, 3);
    for (const auto &[value, base] : {std::pair{255, 16u}, {255, 8u}, {-1, 16u}, {-1, 2u}}) {
        str_builder_add_int(sb.get(), value, base);
        str_builder_add_char(sb.get(), ' ');
    }
    EXPECT_EQ(text_of(sb), "0xff 255 0xffffffff -1 ");
    EXPECT_EQ(str_builder_len(sb.get()), text_of(sb).size());
}

TEST(StrBuilder, TruncateDropDumpAndNullBuilders)
{
    auto sb = make_builder(16);
    str_builder_add_str(sb.get(), "abcde", 0);
    str_builder_truncate(sb.get(), 10); // never extends
    EXPECT_EQ(text_of(sb), "abcde");
    str_builder_truncate(sb.get(), 3);
    EXPECT_EQ(text_of(sb), "abc");
    str_builder_add_str(sb.get(), "de", 0);
    str_builder_drop(sb.get(), 2);
    EXPECT_EQ(text_of(sb), "cde");

    uint64_t len = 99;
    Text copy(str_builder_dump(sb.get(), &len), std::free);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy.get(), sb->buffer);
    EXPECT_STREQ(copy.get(), "cde");
    EXPECT_EQ(len, 3u);
    str_builder_drop(sb.get(), 9);
    EXPECT_EQ(text_of(sb), "");
    EXPECT_EQ(sb->capacity, 16u);
    EXPECT_STREQ(Text(str_builder_dump(sb.get(), nullptr), std::free).get(), "");

    str_builder_add_str(nullptr, "x", 0);
    str_builder_drop(nullptr, 1);
    str_builder_destroy(nullptr);
    EXPECT_EQ(str_builder_len(nullptr), 0u);
    EXPECT_EQ(str_builder_peek(nullptr), nullptr);
    EXPECT_EQ(str_builder_dump(nullptr, &len), nullptr);
    EXPECT_EQ(len, 3u);
}

// The builder's own text appended to itself: the growth moves the buffer the text lives in
// (AddressSanitizer reports the read of the freed buffer).
TEST(StrBuilder, AppendsItsOwnText)
{
    struct Case {
        uint64_t capacity;
        uint64_t offset; // where in the builder's text the appended text starts
        uint64_t length; // 0: up to the NUL
        const char *expected;
    };
    const Case cases[] = {
        {4, 0, 0, "abcabc"},  // grows
        {64, 0, 0, "abcabc"}, // fits
        {4, 1, 2, "abcbc"},   // part of it, grows
        {4, 2, 0, "abcc"},    // its tail, grows
        {8, 3, 0, "abc"},     // its empty end: nothing
    };
    for (const Case &c : cases) {
        auto sb = make_builder(c.capacity);
        str_builder_add_str(sb.get(), "abc", 0);
        str_builder_add_str(sb.get(), str_builder_peek(sb.get()) + c.offset, c.length);
        EXPECT_EQ(text_of(sb), c.expected) << c.capacity << " " << c.offset;
        EXPECT_EQ(str_builder_len(sb.get()), std::string(c.expected).size());
    }
    // Through the record as the register dumps do, doubling the text a few times.
    auto sb = make_builder(2);
    sb->add_str(sb.get(), "0123456789", 0);
    for (int i = 0; i < 3; ++i)
        sb->add_str(sb.get(), sb->peek(sb.get()), 0);
    std::string expected = "0123456789";
    for (int i = 0; i < 3; ++i)
        expected += expected;
    EXPECT_EQ(text_of(sb), expected);
}

TEST(StrBuilderDeathTest, ZeroCapacityAndOversizeAbort)
{
    // A builder of capacity 0 exists and reads as empty, but cannot grow.
    auto sb = make_builder(0);
    EXPECT_STREQ(str_builder_peek(sb.get()), "");
    EXPECT_DEATH(str_builder_add_char(sb.get(), 'a'), "");
    auto small = make_builder(4);
    str_builder_add_str(small.get(), "ab", 0);
    EXPECT_DEATH(str_builder_add_str(small.get(), "x", UINT64_MAX / 2 + 2), "");
}

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

} // namespace
