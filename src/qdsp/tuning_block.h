// Tuning files as the library reads them, free of logging and of the driver, so that the tuning
// tools judge a file with the very code that loads it.
//
// A block is one line of decimal words separated by commas: N (the word count, N and the CRC
// included), N-2 payload words, then the CRC of words 0 .. N-2. Files come from outside the
// library's control: a block never reaches past its own words, and a size word that its line
// cannot back with tokens is rejected instead of trusted.
#pragma once

#include "util/malloc_ptr.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

namespace tvox::tuning
{

inline constexpr size_t kMaxBlockLines = 100;
inline constexpr std::string_view kLeftMarker = "QORA_CONFIG_RX_LEFT";
inline constexpr std::string_view kRightMarker = "QORA_CONFIG_RX_RIGHT";

// Word buffers come from malloc, so running out of memory is an answer, not an abort.
using Words = MallocPtr<uint32_t[]>;
Words allocate_words(size_t count);

// A token's value as strtol reads it in base 10 (leading white space, optional sign, digits up
// to the first other character, 0 without digits), kept in 64 bits and truncated to 32, so
// "4292077319" and "-2889977" are the same word on every host.
uint32_t token_value(std::string_view token);

enum class BlockState {
    ok,            // words holds N+1 words: the line's first N+1 tokens, word N 0 unless given
    bad_size,      // N below 1 or above the number of tokens of the line
    size_overflow, // N+1 does not fit a signed 32-bit size: the loaders end the process
    no_memory,
};

struct Block {
    BlockState state = BlockState::bad_size;
    int32_t size = 0; // N, as read
    Words words;      // set only when state is ok

    // Words 0 .. N-1 (N, payload, CRC); empty unless the block parsed.
    std::span<const uint32_t> words_in_block() const;
};

Block parse_block(std::string_view text);

struct Crc {
    uint32_t computed;
    uint32_t stored;
    bool matches() const { return computed == stored; }
};

// The CRC of a parsed block against its stored word; nothing for a block that did not parse.
std::optional<Crc> check_block(const Block &block);

// Why a walk over a file's lines stopped.
enum class LineEnd { end_of_file, read_error, no_memory };

// Reads whole lines, however long, newline included.
class LineReader
{
  public:
    explicit LineReader(std::FILE *file) : file_(file) {}
    ~LineReader() { std::free(buffer_); }
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    // The next line, or nothing when the file ends, cannot be read, or the line does not fit in
    // memory: stopped() tells which.
    std::optional<std::string_view> next();
    LineEnd stopped() const { return stopped_; }

  private:
    std::FILE *file_;
    char *buffer_ = nullptr;
    size_t capacity_ = 0;
    LineEnd stopped_ = LineEnd::end_of_file;
};

enum class Layout {
    rx_config,   // "QORA_CONFIG_RX_LEFT <block>" then "QORA_CONFIG_RX_RIGHT <block>"
    block_lines, // one block per line, at most kMaxBlockLines
};

// How a file ended: fine; in a way the loaders treat as fatal; or before its end, because it
// could not be read (refused like a file that does not open) or a line did not fit in memory
// (the block on that line is missing, so the file is rejected).
enum class Walk { done, too_many_lines, line_after_rx, read_error, no_memory };

struct BlockText {
    size_t index;           // block number in the file, from 0
    size_t line;            // line number, from 1
    std::string_view whole; // the line
    std::string_view text;  // the block's text: the whole line, or what follows its marker
};

// Calls on_block(const BlockText &) for every block of the file in order.
// The walk's end once `reader` returned no line.
Walk walk_end(const LineReader &reader);

template <typename OnBlock> Walk walk_blocks(std::FILE *file, Layout layout, OnBlock &&on_block)
{
    LineReader reader(file);
    if (layout == Layout::block_lines) {
        size_t index = 0;
        for (auto line = reader.next(); line; line = reader.next(), ++index) {
            if (index == kMaxBlockLines)
                return Walk::too_many_lines;
            on_block(BlockText{index, index + 1, *line, *line});
        }
        return walk_end(reader);
    }
    constexpr std::string_view markers[] = {kLeftMarker, kRightMarker};
    for (size_t index = 0; index < std::size(markers); ++index) {
        const auto line = reader.next();
        if (!line)
            return walk_end(reader);
        const size_t at = line->find(markers[index]);
        if (at == std::string_view::npos)
            return Walk::done;
        on_block(BlockText{index, index + 1, *line, line->substr(at + markers[index].size())});
    }
    // Two blocks are the whole configuration: anything after them, even an empty line, is not.
    return reader.next() ? Walk::line_after_rx : walk_end(reader);
}

} // namespace tvox::tuning
