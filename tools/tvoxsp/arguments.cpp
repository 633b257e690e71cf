#include "arguments.h"

#include "output.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace tvoxsp
{

std::optional<long long> whole_number(const char *text)
{
    const char *digits = text + (*text == '-' || *text == '+' ? 1 : 0);
    const bool hex = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
    errno = 0;
    char *end = nullptr;
    const long long value = std::strtoll(text, &end, hex ? 16 : 10);
    if (*text == '\0' || *end != '\0' || errno != 0 || end == digits + (hex ? 2 : 0))
        return std::nullopt;
    return value;
}

std::optional<uint32_t> control_id(const char *identifier)
{
    const std::optional<long long> id = whole_number(identifier);
    if (!id || *id < 0 || *id > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(*id);
}

namespace
{

template <typename Int> std::optional<Int> number_in_range(const char *text, const char *what)
{
    const std::optional<long long> value = whole_number(text);
    if (!value || *value < INT64_C(0) + std::numeric_limits<Int>::min() ||
        *value > INT64_C(0) + std::numeric_limits<Int>::max()) {
        tell(text_of("not %s number: '%s'", what, text));
        return std::nullopt;
    }
    return static_cast<Int>(*value);
}

} // namespace

std::optional<uint32_t> unsigned_number(const char *text)
{
    return number_in_range<uint32_t>(text, "an unsigned 32-bit");
}

std::optional<int32_t> signed_number(const char *text)
{
    return number_in_range<int32_t>(text, "a 32-bit");
}

std::optional<std::vector<uint32_t>> unsigned_numbers(Args args)
{
    std::vector<uint32_t> values;
    for (const char *arg : args) {
        const std::optional<uint32_t> value = unsigned_number(arg);
        if (!value)
            return std::nullopt;
        values.push_back(*value);
    }
    return values;
}

bool take_flag(std::vector<char *> &args, std::string_view flag)
{
    return std::erase_if(args, [&](const char *word) { return flag == word; }) != 0;
}

std::optional<bool> on_off(std::string_view word)
{
    if (word == "on")
        return true;
    if (word == "off")
        return false;
    tell(text_of("expected on or off, not '%.*s'", static_cast<int>(word.size()), word.data()));
    return std::nullopt;
}

} // namespace tvoxsp
