#include "tvoxsp/util.h"
#include "util/fatal.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>

namespace
{

// The largest buffer the process can address: sizes are 64-bit in the record, but size_t is 32-bit
// on 32-bit ABIs, where a larger size must end the process rather than wrap in the allocation.
constexpr uint64_t kMaxSize = std::numeric_limits<size_t>::max();

// Room for `extra` more characters and the NUL: the capacity doubles until it fits, then the
// buffer is reallocated once. Sizes that cannot be represented end the process, as does a
// builder created with capacity 0 (it can never double). False when memory runs out: the
// builder is then as it was.
bool ensure_room(str_builder *sb, uint64_t extra)
{
    if (extra > kMaxSize - 1 - sb->length)
        tvox::fatal();
    const uint64_t needed = sb->length + extra + 1;
    if (sb->capacity >= needed)
        return true;
    uint64_t capacity = sb->capacity;
    while (capacity < needed) {
        if (capacity == 0 || capacity > kMaxSize / 2)
            tvox::fatal();
        capacity *= 2;
    }
    auto *grown = static_cast<char *>(std::realloc(sb->buffer, static_cast<size_t>(capacity)));
    if (grown == nullptr)
        return false;
    sb->buffer = grown;
    sb->capacity = capacity;
    return true;
}

void append(str_builder *sb, const char *bytes, uint64_t count)
{
    // The text may be the builder's own (its peek, or part of it): growing moves the buffer, so
    // such a text is found again by its offset.
    const std::less_equal<const char *> at_or_before;
    const bool own =
        at_or_before(sb->buffer, bytes) && at_or_before(bytes, sb->buffer + sb->length);
    const uint64_t offset = own ? static_cast<uint64_t>(bytes - sb->buffer) : 0;
    // Out of memory the text is not appended: a void operation has no other answer.
    if (!ensure_room(sb, count))
        return;
    if (own)
        bytes = sb->buffer + offset;
    std::memmove(sb->buffer + sb->length, bytes, static_cast<size_t>(count));
    sb->length += count;
    sb->buffer[sb->length] = '\0';
}

} // namespace

extern "C" {

str_builder *str_builder_create(uint64_t capacity)
{
    if (capacity > kMaxSize)
        tvox::fatal();
    auto *sb = static_cast<str_builder *>(std::calloc(1, sizeof(str_builder)));
    // A capacity-0 builder still gets one byte for its NUL so that peek and dump stay valid; its
    // recorded capacity stays 0, so its first append ends the process.
    auto *buffer =
        static_cast<char *>(std::malloc(capacity == 0 ? 1 : static_cast<size_t>(capacity)));
    // Out of memory there is no builder; every operation takes the null builder and does nothing.
    if (sb == nullptr || buffer == nullptr) {
        std::free(sb);
        std::free(buffer);
        return nullptr;
    }
    buffer[0] = '\0';
    sb->buffer = buffer;
    sb->capacity = capacity;
    sb->add_str = str_builder_add_str;
    sb->add_char = str_builder_add_char;
    sb->add_int = str_builder_add_int;
    sb->peek = str_builder_peek;
    return sb;
}

void str_builder_destroy(str_builder *sb)
{
    if (sb == nullptr)
        return;
    std::free(sb->buffer);
    std::free(sb);
}

void str_builder_add_str(str_builder *sb, const char *str, uint64_t len)
{
    if (sb == nullptr || str == nullptr || str[0] == '\0')
        return;
    append(sb, str, len == 0 ? std::strlen(str) : len);
}

void str_builder_add_char(str_builder *sb, char c)
{
    if (sb == nullptr)
        return;
    append(sb, &c, 1);
}

void str_builder_add_int(str_builder *sb, int32_t value, uint32_t base)
{
    if (sb == nullptr)
        return;
    std::array<char, 16> text{};
    if (base == 16)
        std::snprintf(text.data(), text.size(), "0x%x", static_cast<unsigned>(value));
    else
        itoa(value, text.data(), 10);
    str_builder_add_str(sb, text.data(), 0);
}

void str_builder_clear(str_builder *sb)
{
    if (sb == nullptr || sb->length == 0)
        return;
    sb->length = 0;
    sb->buffer[0] = '\0';
}

void str_builder_truncate(str_builder *sb, uint64_t len)
{
    if (sb == nullptr || sb->length <= len)
        return;
    sb->length = len;
    sb->buffer[len] = '\0';
}

void str_builder_drop(str_builder *sb, uint64_t len)
{
    if (sb == nullptr || len == 0)
        return;
    if (len >= sb->length) {
        str_builder_clear(sb);
        return;
    }
    // The remaining text moves to the front together with its NUL.
    std::memmove(sb->buffer, sb->buffer + len, static_cast<size_t>(sb->length - len + 1));
    sb->length -= len;
}

uint64_t str_builder_len(const str_builder *sb)
{
    return sb == nullptr ? 0 : sb->length;
}

const char *str_builder_peek(const str_builder *sb)
{
    return sb == nullptr ? nullptr : sb->buffer;
}

char *str_builder_dump(const str_builder *sb, uint64_t *len)
{
    if (sb == nullptr)
        return nullptr;
    if (sb->length == kMaxSize)
        tvox::fatal();
    auto *copy = static_cast<char *>(std::malloc(static_cast<size_t>(sb->length) + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, sb->buffer, static_cast<size_t>(sb->length) + 1);
    if (len != nullptr)
        *len = sb->length;
    return copy;
}

} // extern "C"
