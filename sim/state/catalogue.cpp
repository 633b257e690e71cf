#include "catalogue.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace tvox::sim
{

// The text of catalogue.txt, generated into the build.
extern const char kCatalogueText[];

namespace
{

constexpr size_t kAlsaNameMax = 44;      // SNDRV_CTL_ELEM_ID_NAME_MAXLEN, terminator included
constexpr uint32_t kPlainBytesMax = 512; // a plain element value carries at most this many bytes
constexpr int64_t kFillerMax = 255;

std::string key(int card, std::string_view name)
{
    std::string k = std::to_string(card);
    k += ':';
    k += name;
    return k;
}

std::string_view trim(std::string_view text)
{
    size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos)
        return {};
    size_t end = text.find_last_not_of(" \t\r");
    return text.substr(begin, end - begin + 1);
}

// Words separated by blanks; a double-quoted word may hold blanks. False on an open quote.
bool split_words(std::string_view line, std::vector<std::string> &words)
{
    words.clear();
    size_t i = 0;
    while (i < line.size()) {
        if (line[i] == ' ' || line[i] == '\t') {
            ++i;
            continue;
        }
        if (line[i] == '"') {
            size_t close = line.find('"', i + 1);
            if (close == std::string_view::npos)
                return false;
            words.emplace_back(line.substr(i + 1, close - i - 1));
            i = close + 1;
            continue;
        }
        size_t end = line.find_first_of(" \t", i);
        if (end == std::string_view::npos)
            end = line.size();
        words.emplace_back(line.substr(i, end - i));
        i = end;
    }
    return true;
}

std::vector<std::string> split_commas(std::string_view text)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t comma = text.find(',', start);
        parts.emplace_back(text.substr(start, comma - start));
        if (comma == std::string_view::npos)
            return parts;
        start = comma + 1;
    }
}

bool parse_number(const std::string &text, int64_t &value)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    long long parsed = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0')
        return false;
    value = parsed;
    return true;
}

std::string replace_all(std::string text, std::string_view from, std::string_view to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

class Parser
{
  public:
    explicit Parser(std::vector<Control> &out) : out_(out) {}

    bool run(std::string_view text, std::string &error)
    {
        size_t number = 0;
        while (!text.empty()) {
            size_t newline = text.find('\n');
            std::string_view line = text.substr(0, newline);
            text =
                newline == std::string_view::npos ? std::string_view{} : text.substr(newline + 1);
            ++number;
            if (!statement(line)) {
                error = "line " + std::to_string(number) + ": " + error_;
                return false;
            }
        }
        if (in_loop_) {
            error = "line " + std::to_string(number) + ": \"for\" without \"end\"";
            return false;
        }
        return true;
    }

  private:
    bool fail(std::string what)
    {
        error_ = std::move(what);
        return false;
    }

    bool statement(std::string_view raw)
    {
        std::string_view line = raw;
        // A '#' outside a quoted name starts a comment.
        bool quoted = false;
        for (size_t i = 0; i < line.size(); ++i) {
            if (line[i] == '"')
                quoted = !quoted;
            else if (line[i] == '#' && !quoted) {
                line = line.substr(0, i);
                break;
            }
        }
        line = trim(line);
        if (line.empty())
            return true;
        std::vector<std::string> words;
        if (!split_words(line, words))
            return fail("unterminated quote");
        if (in_loop_ && words[0] != "end") {
            loop_body_.emplace_back(line);
            return true;
        }
        if (words[0] == "card")
            return card(words);
        if (words[0] == "list")
            return list(words);
        if (words[0] == "for")
            return loop(words);
        if (words[0] == "end")
            return end_loop();
        return control(words, -1);
    }

    bool card(const std::vector<std::string> &words)
    {
        int64_t value = 0;
        if (words.size() != 2 || !parse_number(words[1], value) || value < 0 || value > 255)
            return fail("expected \"card N\" with N in 0..255");
        card_ = static_cast<int>(value);
        return true;
    }

    // Words with every $LIST replaced by the list's words.
    bool expand(const std::vector<std::string> &words, size_t first, std::vector<std::string> &out)
    {
        for (size_t i = first; i < words.size(); ++i) {
            if (!words[i].starts_with('$')) {
                out.push_back(words[i]);
                continue;
            }
            auto found = lists_.find(words[i].substr(1));
            if (found == lists_.end())
                return fail("unknown list " + words[i]);
            out.insert(out.end(), found->second.begin(), found->second.end());
        }
        return true;
    }

    bool list(const std::vector<std::string> &words)
    {
        if (words.size() < 3)
            return fail("expected \"list NAME WORD...\"");
        std::vector<std::string> items;
        if (!expand(words, 2, items))
            return false;
        lists_[words[1]] = std::move(items);
        return true;
    }

    bool loop(const std::vector<std::string> &words)
    {
        if (words.size() < 4 || words[2] != "in")
            return fail("expected \"for VAR in WORD...\"");
        loop_words_.clear();
        if (!expand(words, 3, loop_words_))
            return false;
        loop_var_ = "{" + words[1] + "}";
        loop_body_.clear();
        in_loop_ = true;
        return true;
    }

    bool end_loop()
    {
        if (!in_loop_)
            return fail("\"end\" without \"for\"");
        in_loop_ = false;
        for (size_t k = 0; k < loop_words_.size(); ++k) {
            for (const std::string &line : loop_body_) {
                std::vector<std::string> words;
                split_words(replace_all(line, loop_var_, loop_words_[k]), words);
                if (!control(words, static_cast<int>(k)))
                    return false;
            }
        }
        return true;
    }

    bool control(const std::vector<std::string> &words, int channel)
    {
        static const std::map<std::string, Type, std::less<>> types = {
            {"bool", Type::boolean},
            {"int", Type::integer},
            {"enum", Type::enumerated},
            {"bytes", Type::bytes},
        };
        auto type = types.find(words[0]);
        if (type == types.end())
            return fail("unknown statement or type \"" + words[0] + "\"");
        if (words.size() < 2 || words[1].empty())
            return fail("a control needs a quoted name");
        Control c;
        c.card = card_;
        c.name = words[1];
        c.type = type->second;
        c.channel = channel;
        if (c.name.size() >= kAlsaNameMax)
            return fail("name longer than 43 characters: " + c.name);
        if (c.type == Type::boolean)
            c.max = 1;
        bool read_only = false;
        bool tlv = false;
        bool has_max = c.type == Type::boolean;
        std::string defaults;
        for (size_t i = 2; i < words.size(); ++i) {
            const std::string &word = words[i];
            size_t eq = word.find('=');
            std::string name = word.substr(0, eq);
            std::string value = eq == std::string::npos ? std::string{} : word.substr(eq + 1);
            int64_t number = 0;
            if (word == "ro")
                read_only = true;
            else if (word == "tlv")
                tlv = true;
            else if (word == "volatile")
                c.access |= access_volatile;
            else if (name == "items") {
                std::vector<std::string> items = split_commas(value);
                if (!expand(items, 0, c.items))
                    return false;
            } else if (name == "default")
                defaults = value;
            else if (!parse_number(value, number))
                return fail("bad attribute \"" + word + "\"");
            else if (name == "count" && number > 0 && number <= 1024)
                c.count = static_cast<uint32_t>(number);
            else if (name == "min")
                c.min = number;
            else if (name == "max") {
                c.max = number;
                has_max = true;
            } else if (name == "step")
                c.step = number;
            else
                return fail("bad attribute \"" + word + "\"");
        }
        if (tlv && !c.is_bytes())
            return fail("only byte controls are tlv");
        if (c.is_bytes() && !tlv && c.count > kPlainBytesMax)
            return fail("a plain byte control holds at most 512 bytes");
        if (c.type == Type::integer && (!has_max || c.min > c.max))
            return fail("an integer control needs min <= max");
        if (c.type == Type::enumerated && c.items.empty())
            return fail("an enumerated control needs items");
        if (c.type == Type::enumerated)
            c.max = static_cast<int64_t>(c.items.size()) - 1;
        uint32_t rw = tlv ? (access_tlv_read | access_tlv_write) : (access_read | access_write);
        uint32_t ro = tlv ? access_tlv_read : access_read;
        c.access = (c.access & access_volatile) | (read_only ? ro : rw);
        if (!defaults.empty() && !parse_defaults(c, split_commas(defaults)))
            return false;
        if (!names_.insert(key(c.card, c.name)).second)
            return fail("duplicate control " + c.name);
        out_.push_back(std::move(c));
        return true;
    }

    bool parse_defaults(Control &c, const std::vector<std::string> &values)
    {
        for (const std::string &text : values) {
            int64_t number = 0;
            if (c.type == Type::enumerated) {
                number = c.item_index(text);
                if (number < 0)
                    return fail("default \"" + text + "\" is not an item");
            } else if (!parse_number(text, number))
                return fail("bad default \"" + text + "\"");
            if (c.is_bytes()) {
                if (number < 0 || number > 255 || c.default_bytes.size() >= c.count)
                    return fail("bad default bytes");
                c.default_bytes.push_back(static_cast<uint8_t>(number));
                continue;
            }
            if (number < c.min || number > c.max)
                return fail("default " + text + " out of range");
            c.default_numbers.push_back(number);
        }
        return true;
    }

    std::vector<Control> &out_;
    std::set<std::string> names_;
    std::string error_;
    int card_ = 0;
    std::map<std::string, std::vector<std::string>> lists_;
    bool in_loop_ = false;
    std::string loop_var_;
    std::vector<std::string> loop_words_;
    std::vector<std::string> loop_body_;
};

} // namespace

int Control::item_index(std::string_view item) const
{
    for (size_t i = 0; i < items.size(); ++i) {
        if (items[i] == item)
            return static_cast<int>(i);
    }
    return -1;
}

bool Catalogue::parse(std::string_view text, Catalogue &out, std::string &error)
{
    std::vector<Control> controls;
    Parser parser(controls);
    if (!parser.run(text, error))
        return false;
    std::stable_sort(controls.begin(), controls.end(),
                     [](const Control &a, const Control &b) { return a.card < b.card; });
    out.controls_ = std::move(controls);
    out.index_.clear();
    for (size_t i = 0; i < out.controls_.size(); ++i)
        out.index_[key(out.controls_[i].card, out.controls_[i].name)] = i;
    return true;
}

const Catalogue &Catalogue::get(unsigned filler)
{
    static std::mutex lock;
    static std::map<unsigned, std::unique_ptr<Catalogue>> built;
    std::lock_guard guard(lock);
    std::unique_ptr<Catalogue> &entry = built[filler];
    if (entry)
        return *entry;
    std::string text = kCatalogueText;
    // Filler controls go at the end of card 0, after the real ones.
    std::string fill = "card 0\n";
    for (unsigned i = 0; i < filler; ++i) {
        char line[96];
        std::snprintf(line, sizeof line, "int \"Filler Control %04u\" min=0 max=%lld\n", i,
                      static_cast<long long>(kFillerMax));
        fill += line;
    }
    text += fill;
    entry = std::make_unique<Catalogue>();
    std::string error;
    if (!parse(text, *entry, error)) {
        // The text is part of this build, so this is a build fault, not a user error.
        std::fprintf(stderr, "tvoxsim: bad built-in catalogue: %s\n", error.c_str());
        std::abort();
    }
    return *entry;
}

const Catalogue &Catalogue::from_env()
{
    const char *text = std::getenv("TVOXSIM_FILLER");
    unsigned long filler = text != nullptr ? std::strtoul(text, nullptr, 10) : 0;
    return get(static_cast<unsigned>(std::min<unsigned long>(filler, kMaxControls / 2)));
}

std::vector<int> Catalogue::cards() const
{
    std::vector<int> numbers;
    for (const Control &c : controls_) {
        if (numbers.empty() || numbers.back() != c.card)
            numbers.push_back(c.card);
    }
    return numbers;
}

std::span<const Control> Catalogue::card(int number) const
{
    auto first = std::partition_point(controls_.begin(), controls_.end(),
                                      [&](const Control &c) { return c.card < number; });
    auto last = std::partition_point(first, controls_.end(),
                                     [&](const Control &c) { return c.card == number; });
    return {first, last};
}

const Control *Catalogue::find(int card, std::string_view name) const
{
    auto found = index_.find(key(card, name));
    return found == index_.end() ? nullptr : &controls_[found->second];
}

} // namespace tvox::sim
