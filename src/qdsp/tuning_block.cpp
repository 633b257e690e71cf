#include "qdsp/tuning_block.h"

#include "qdsp/block_crc.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace tvox::tuning
{

namespace
{

bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

size_t token_count(std::string_view text)
{
    size_t commas = 0;
    for (char c : text)
        commas += c == ',' ? 1 : 0;
    return commas + 1;
}

} // namespace

Words allocate_words(size_t count)
{
    // malloc(0) may answer null; one spare word keeps "empty" apart from "out of memory".
    if (count > SIZE_MAX / sizeof(uint32_t) - 1)
        return nullptr;
    return Words(static_cast<uint32_t *>(std::malloc((count + 1) * sizeof(uint32_t))));
}

uint32_t token_value(std::string_view token)
{
    size_t i = 0;
    while (i < token.size() && is_space(token[i]))
        ++i;
    bool negative = false;
    if (i < token.size() && (token[i] == '+' || token[i] == '-'))
        negative = token[i++] == '-';
    // strtol clamps what does not fit; with a 64-bit long that is the 64-bit range.
    const uint64_t limit = negative ? uint64_t{1} << 63 : INT64_MAX;
    uint64_t magnitude = 0;
    for (; i < token.size() && token[i] >= '0' && token[i] <= '9'; ++i) {
        const auto digit = static_cast<uint64_t>(token[i] - '0');
        magnitude = magnitude > (limit - digit) / 10 ? limit : magnitude * 10 + digit;
    }
    return static_cast<uint32_t>(negative ? 0 - magnitude : magnitude);
}

std::span<const uint32_t> Block::words_in_block() const
{
    if (state != BlockState::ok)
        return {};
    return {words.get(), static_cast<size_t>(size)};
}

Block parse_block(std::string_view text)
{
    Block block;
    const size_t first_end = text.find(',');
    block.size = static_cast<int32_t>(token_value(text.substr(0, first_end)));
    if (block.size == INT32_MAX) {
        block.state = BlockState::size_overflow;
        return block;
    }
    const size_t tokens = token_count(text);
    if (block.size < 1 || static_cast<size_t>(block.size) > tokens) {
        block.state = BlockState::bad_size;
        return block;
    }
    const size_t room = static_cast<size_t>(block.size) + 1;
    block.words = allocate_words(room);
    if (!block.words) {
        block.state = BlockState::no_memory;
        return block;
    }
    block.words[room - 1] = 0;
    // Tokens past word N have no room and are ignored; a trailing comma still fills word N.
    size_t start = 0;
    for (size_t i = 0; i < room && start <= text.size(); ++i) {
        size_t end = text.find(',', start);
        if (end == std::string_view::npos)
            end = text.size();
        block.words[i] = token_value(text.substr(start, end - start));
        start = end + 1;
    }
    block.state = BlockState::ok;
    return block;
}

std::optional<Crc> check_block(const Block &block)
{
    const std::span<const uint32_t> words = block.words_in_block();
    if (words.empty())
        return std::nullopt;
    return Crc{block_crc(words.first(words.size() - 1)), words.back()};
}

std::optional<std::string_view> LineReader::next()
{
    errno = 0;
    const ssize_t length = getline(&buffer_, &capacity_, file_);
    if (length >= 0)
        return std::string_view(buffer_, static_cast<size_t>(length));
    // getline answers -1 at the end of the file, on a read error, and when its buffer cannot
    // grow (ENOMEM; some C libraries set the stream's error flag for that too).
    if (std::feof(file_) && !std::ferror(file_))
        stopped_ = LineEnd::end_of_file;
    else
        stopped_ = errno == ENOMEM ? LineEnd::no_memory : LineEnd::read_error;
    return std::nullopt;
}

Walk walk_end(const LineReader &reader)
{
    switch (reader.stopped()) {
    case LineEnd::read_error:
        return Walk::read_error;
    case LineEnd::no_memory:
        return Walk::no_memory;
    case LineEnd::end_of_file:
        break;
    }
    return Walk::done;
}

} // namespace tvox::tuning
