#include "mixer/control.h"
#include "tvoxsp/mixer.h"
#include "util/fatal.h"
#include "util/malloc_ptr.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <tinyalsa/asoundlib.h>

namespace
{

constexpr std::size_t kMaxTokens = 1024;
constexpr std::size_t kTlvHeader = 8;
constexpr int32_t kNoControl = 2;
constexpr int32_t kRefused = 22;

// The tokens of a value text, cut at spaces and commas with no empty tokens. Each token is a
// NUL-terminated view into the object's own copy of the text, so nothing is shared between
// threads (unlike strtok). More than kMaxTokens tokens is a caller fault that ends the process.
// The copy comes from malloc and the token table is fixed: running out of memory is an answer.
class ValueTokens
{
  public:
    explicit ValueTokens(const char *text)
    {
        const std::size_t size = std::strlen(text) + 1;
        text_.reset(static_cast<char *>(std::malloc(size)));
        if (!text_)
            return;
        std::memcpy(text_.get(), text, size);
        for (char *cursor = text_.get();;) {
            cursor += std::strspn(cursor, kDelimiters);
            if (*cursor == '\0')
                break;
            if (count_ == kMaxTokens)
                tvox::fatal();
            tokens_[count_++] = cursor;
            cursor += std::strcspn(cursor, kDelimiters);
            if (*cursor == '\0')
                break;
            *cursor++ = '\0';
        }
    }

    // False when the text could not be copied.
    bool copied() const { return text_ != nullptr; }
    std::size_t size() const { return count_; }
    const char *operator[](std::size_t i) const { return tokens_[i]; }

  private:
    static constexpr const char *kDelimiters = " ,";
    tvox::MallocPtr<char> text_;
    std::array<const char *, kMaxTokens> tokens_;
    std::size_t count_ = 0;
};

struct Number {
    long value;
    bool whole; // non-empty and every character consumed
    int error;  // errno set by strtol (out of range)
};

Number parse_number(const char *text)
{
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 0);
    return {value, text[0] != '\0' && *end == '\0', errno};
}

int32_t set_values(struct mixer_ctl *ctl, const ValueTokens &tokens)
{
    const unsigned int count = mixer_ctl_get_num_values(ctl);
    const std::size_t n = tokens.size();
    if (n == 1) {
        const int value = std::atoi(tokens[0]);
        for (unsigned int i = 0; i < count; ++i) {
            if (mixer_ctl_set_value(ctl, i, value) != 0) {
                std::fprintf(stderr, "Error: invalid value\n");
                return kRefused;
            }
        }
        return 0;
    }
    if (n > count) {
        std::fprintf(stderr, "Error: %u values given, but control only takes %u\n",
                     static_cast<unsigned int>(n), count);
        return kRefused;
    }
    // Only the first token decides that this is a list of numbers; the others are written as
    // atoi reads them, so a stray word becomes 0.
    for (std::size_t i = 0; i < n; ++i) {
        const int value = std::atoi(tokens[i]);
        if (mixer_ctl_set_value(ctl, static_cast<unsigned int>(i), value) != 0) {
            std::fprintf(stderr, "Error: invalid value for index %d\n", static_cast<int>(i));
            return kRefused;
        }
    }
    return 0;
}

int32_t set_enum(struct mixer_ctl *ctl, const ValueTokens &tokens)
{
    if (mixer_ctl_get_type(ctl) != MIXER_CTL_TYPE_ENUM) {
        std::fprintf(stderr, "Error: only enum types can be set with strings\n");
        return kRefused;
    }
    // The tokenizer has already split an item name with a space or comma in it.
    if (tokens.size() > 1) {
        std::fprintf(stderr, "Enclose strings in quotes and try again\n");
        return kRefused;
    }
    if (mixer_ctl_set_enum_by_string(ctl, tokens[0]) != 0) {
        std::fprintf(stderr, "Error: invalid enum value\n");
        return kRefused;
    }
    return 0;
}

// Byte controls carry DSP parameters: one token per byte, behind an 8-byte {tag 0, length n}
// header when the control is reached through TLV access.
int32_t set_bytes(struct mixer_ctl *ctl, const ValueTokens &tokens)
{
    const std::size_t n = tokens.size();
    const std::size_t header = mixer_ctl_is_access_tlv_rw(ctl) ? kTlvHeader : 0;
    const std::size_t size = header + n;
    // At least 8 bytes: the length word below always lands inside the buffer, and without a
    // header the data bytes overwrite it, so the bytes sent are the same.
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[std::max(size, kTlvHeader)]());
    if (!buffer) {
        std::fprintf(stderr, "set_byte_ctl: Failed to alloc mem for bytes %d\n",
                     static_cast<int>(n));
        return -1;
    }
    const auto length = static_cast<uint32_t>(n);
    std::memcpy(buffer.get() + sizeof(uint32_t), &length, sizeof length);

    for (std::size_t i = 0; i < n; ++i) {
        const Number number = parse_number(tokens[i]);
        if (!number.whole) {
            std::fprintf(stderr, "%s not an integer\n", tokens[i]);
            return -1;
        }
        if (number.error != 0) {
            std::fprintf(stderr, "strtol: %s: %s\n", tokens[i], std::strerror(number.error));
            return -1;
        }
        if (static_cast<unsigned long>(number.value) >= 256) {
            std::fprintf(stderr, "%s should be between [0, 0xff]\n", tokens[i]);
            return -1;
        }
        buffer[header + i] = static_cast<uint8_t>(number.value);
    }
    // The count against the control's size is tinyalsa's to check.
    if (mixer_ctl_set_array(ctl, buffer.get(), size) < 0) {
        std::fprintf(stderr, "Failed to set binary control\n");
        return -1;
    }
    return 0;
}

} // namespace

namespace tvox
{

struct mixer_ctl *find_control(struct mixer *mixer, const char *control)
{
    if (control == nullptr)
        return nullptr;
    // Any base-0 number names a control by its index, which is read the plain decimal way.
    if (parse_number(control).whole)
        return mixer_get_ctl(mixer, static_cast<unsigned int>(std::atoi(control)));
    return mixer_get_ctl_by_name(mixer, control);
}

} // namespace tvox

extern "C" int32_t tervox_tmixer_set(struct mixer *mixer, const char *control,
                                     const char *value_text)
{
    if (value_text == nullptr)
        return -1;
    const ValueTokens tokens(value_text);
    if (!tokens.copied() || tokens.size() == 0)
        return -1;

    struct mixer_ctl *ctl = tvox::find_control(mixer, control);
    if (ctl == nullptr) {
        std::fprintf(stderr, "Invalid mixer control: %s\n", tvox::printable(control));
        return kNoControl;
    }
    if (mixer_ctl_get_type(ctl) == MIXER_CTL_TYPE_BYTE)
        return set_bytes(ctl, tokens);
    if (parse_number(tokens[0]).whole)
        return set_values(ctl, tokens);
    return set_enum(ctl, tokens);
}
