#include "tvoxsp/util.h"

#include <algorithm>
#include <string_view>

namespace
{

// Indexed by 35 + remainder: a negative value's negative remainders pick the same digits as a
// positive value's, so INT32_MIN needs no negation.
constexpr std::string_view kDigits =
    "zyxwvutsrqponmlkjihgfedcba9876543210123456789abcdefghijklmnopqrstuvwxyz";

} // namespace

extern "C" {

char *itoa(int32_t value, char *buffer, int32_t base)
{
    if (base < 2 || base > 36) {
        buffer[0] = '\0';
        return buffer;
    }
    char *end = buffer;
    int32_t rest = value;
    do {
        const int32_t quotient = rest / base;
        *end++ = kDigits[35 + (rest - quotient * base)];
        rest = quotient;
    } while (rest != 0);
    if (value < 0)
        *end++ = '-';
    *end = '\0';
    std::reverse(buffer, end);
    return buffer;
}

int32_t sign_extend32(uint32_t value, uint32_t sign_bit)
{
    const uint32_t shift = (31 - sign_bit) & 31;
    return static_cast<int32_t>(value << shift) >> shift;
}

uint32_t endian_flip(uint32_t value)
{
    return __builtin_bswap32(value);
}

} // extern "C"
