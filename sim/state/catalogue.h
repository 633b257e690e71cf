// The control catalogue of the virtual cards: names, types, counts, ranges, items, access and
// default values of every control, read from the text in catalogue.txt (built into the library).
//
// catalogue.txt, one statement per line, '#' starts a comment:
//   card N                       following controls belong to card N
//   list NAME A B C              a word list, used as $NAME in "for" and in items=
//   for X in A B C ... end       repeat the lines between for each word, replacing {X}; the
//                                word's position (0, 1, ...) is the controls' amplifier channel
//   TYPE "NAME" ATTR...          one control; TYPE is bool, int, enum or bytes
// Attributes: count=N (values, or bytes of a byte control; default 1), min=, max=, step=
// (integers), items=A,B,$LIST (enumerated), default=V,V,... (numbers or item texts, the last
// one repeating; or bytes, the rest 0), ro (read-only), tlv (byte control moved through TLV
// read/write only), volatile (the value may change without a write).
#pragma once

#include "layout.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tvox::sim
{

// Access bits, numbered as alsa-lib's SND_CTL_EXT_ACCESS_*.
enum Access : uint32_t {
    access_read = 1 << 0,
    access_write = 1 << 1,
    access_volatile = 1 << 2,
    access_tlv_read = 1 << 4,
    access_tlv_write = 1 << 5,
};

struct Control {
    int card = 0;
    std::string name;
    Type type = Type::integer;
    uint32_t count = 1;
    int64_t min = 0;
    int64_t max = 0;
    int64_t step = 0;
    std::vector<std::string> items;
    uint32_t access = access_read | access_write;
    int channel = -1; // amplifier channel, -1 for controls of no channel
    std::vector<int64_t> default_numbers;
    std::vector<uint8_t> default_bytes;

    bool is_bytes() const { return type == Type::bytes; }
    bool is_tlv() const { return (access & (access_tlv_read | access_tlv_write)) != 0; }
    // Bytes of value storage in the state file.
    uint32_t storage_size() const { return is_bytes() ? count : count * 8; }
    // Index of an enumerated item, -1 when the control has no such item.
    int item_index(std::string_view item) const;
};

class Catalogue
{
  public:
    // The catalogue with `filler` extra integer controls "Filler Control %04d" on card 0 (used
    // by benchmarks to stand for a real card's thousands of controls). Built once per process and
    // filler count.
    static const Catalogue &get(unsigned filler);
    // The catalogue with the filler count of $TVOXSIM_FILLER (0 when unset).
    static const Catalogue &from_env();
    // Parses catalogue text; on error returns false and sets `error` to "line N: what".
    static bool parse(std::string_view text, Catalogue &out, std::string &error);

    std::vector<int> cards() const;
    // The controls of one card, in element-number order (numid = index + 1).
    std::span<const Control> card(int card) const;
    const Control *find(int card, std::string_view name) const;

  private:
    std::vector<Control> controls_;                 // sorted by card, catalogue order within a card
    std::unordered_map<std::string, size_t> index_; // "card:name" -> position in controls_
};

} // namespace tvox::sim
