// backend_conf.xml: the media configuration of each back-end interface.
//
//   <device name="TDM-LPAIF-RX-SECONDARY" rate="48000" ch="2" bits="32"
//   format="PCM_FORMAT_S32_LE"/> <group_device name="TDM-LPAIF-RX-TERTIARY" rate="96000" ch="3"
//   bits="16" slot_mask="7"/>
//
// As on a device, attributes are taken by position (name, rate, ch, bits[, slot_mask][, format]),
// whatever they are called, and the first entry of the wanted name wins.
#include <agmmixer.h>

#include <expat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace
{

struct FileCloser {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
struct ParserFree {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

constexpr std::array<std::string_view, PCM_FORMAT_MAX> format_names{
    "PCM_FORMAT_S16_LE", "PCM_FORMAT_S32_LE",  "PCM_FORMAT_S8",
    "PCM_FORMAT_S24_LE", "PCM_FORMAT_S24_3LE",
};

// The format an entry names, or the usual one for its bit width when it names none (or one this
// interface does not know).
pcm_format format_of(std::optional<std::string_view> text, unsigned int bits)
{
    if (text) {
        for (size_t i = 0; i < format_names.size(); ++i) {
            if (format_names[i] == *text)
                return static_cast<pcm_format>(i);
        }
    }
    switch (bits) {
    case 8:
        return PCM_FORMAT_S8;
    case 16:
        return PCM_FORMAT_S16_LE;
    case 24:
        return PCM_FORMAT_S24_LE;
    case 32:
        return PCM_FORMAT_S32_LE;
    default:
        return PCM_FORMAT_INVALID;
    }
}

std::optional<unsigned int> number(std::string_view text)
{
    unsigned int value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

// Finds the first `element` whose first attribute is `name`, and keeps its attribute values.
struct Search {
    XML_Parser parser = nullptr;
    std::string_view element;
    std::string_view name;
    bool found = false;
    std::vector<std::string> values;
};

void on_start(void *data, const XML_Char *element, const XML_Char **attributes)
{
    auto *search = static_cast<Search *>(data);
    if (search->element != element || attributes[0] == nullptr || search->name != attributes[1])
        return;
    for (size_t i = 0; attributes[i] != nullptr; i += 2)
        search->values.emplace_back(attributes[i + 1]);
    search->found = true;
    XML_StopParser(search->parser, XML_FALSE);
}

// The attribute values of the first matching entry; empty when the file cannot be read or
// parsed before the entry, or has no such entry.
std::vector<std::string> find_entry(const char *filename, std::string_view element,
                                    std::string_view name)
{
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(filename, "rb"));
    std::unique_ptr<XML_ParserStruct, ParserFree> parser(XML_ParserCreate(nullptr));
    if (!file || !parser)
        return {};
    Search search{parser.get(), element, name, false, {}};
    XML_SetUserData(parser.get(), &search);
    XML_SetStartElementHandler(parser.get(), on_start);
    std::array<char, 4096> chunk{};
    for (;;) {
        const size_t got = std::fread(chunk.data(), 1, chunk.size(), file.get());
        const bool last = got < chunk.size();
        if (XML_Parse(parser.get(), chunk.data(), static_cast<int>(got), last) ==
                XML_STATUS_ERROR ||
            search.found || last)
            break;
    }
    return search.found ? std::move(search.values) : std::vector<std::string>{};
}

void copy_name(char (&to)[80], std::string_view from)
{
    const size_t length = std::min(from.size(), sizeof(to) - 1);
    std::memcpy(to, from.data(), length);
    to[length] = '\0';
}

// Reads name, rate, ch, bits and then `extra` more numbers, with an optional format after them.
struct Entry {
    unsigned int rate = 0;
    unsigned int ch = 0;
    unsigned int bits = 0;
    unsigned int extra = 0;
    pcm_format format = PCM_FORMAT_INVALID;
};

std::optional<Entry> read_entry(const char *filename, std::string_view element, const char *name,
                                bool with_extra)
{
    if (filename == nullptr || name == nullptr)
        return std::nullopt;
    const std::vector<std::string> values = find_entry(filename, element, name);
    const size_t numbers = with_extra ? 4 : 3;
    if (values.size() < 1 + numbers)
        return std::nullopt;
    std::array<unsigned int, 4> parsed{};
    for (size_t i = 0; i < numbers; ++i) {
        const std::optional<unsigned int> value = number(values[1 + i]);
        if (!value)
            return std::nullopt;
        parsed[i] = *value;
    }
    std::optional<std::string_view> format;
    if (values.size() > 1 + numbers)
        format = values[1 + numbers];
    return Entry{parsed[0], parsed[1], parsed[2], parsed[3], format_of(format, parsed[2])};
}

// Fills the fields both records share.
template <typename Config> void fill(Config &config, const char *name, const Entry &entry)
{
    copy_name(config.name, name);
    config.rate = entry.rate;
    config.ch = entry.ch;
    config.bits = entry.bits;
    config.format = entry.format;
}

} // namespace

extern "C" {

int get_device_media_config(char *filename, char *intf_name, struct device_config *config)
{
    const std::optional<Entry> entry = read_entry(filename, "device", intf_name, false);
    if (!entry || config == nullptr)
        return -EINVAL;
    fill(*config, intf_name, *entry);
    return 0;
}

int get_group_device_info(char *filename, char *intf_name, struct group_config *config)
{
    const std::optional<Entry> entry = read_entry(filename, "group_device", intf_name, true);
    if (!entry || config == nullptr)
        return -EINVAL;
    fill(*config, intf_name, *entry);
    config->slot_mask = entry->extra;
    return 0;
}

} // extern "C"
