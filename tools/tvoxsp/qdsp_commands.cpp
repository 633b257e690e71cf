// tvoxsp slot, tuning and module: the driver side of the library. "tuning check" and "tuning
// seal" judge a file with the library's own block rules and CRC (src/qdsp/tuning_block.h), so
// what they accept is exactly what the loaders accept.
#include "arguments.h"
#include "command.h"
#include "qdsp/block_crc.h"
#include "qdsp/tuning_block.h"
#include "tvoxsp.h"
#include "util/file_handle.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp
{

namespace
{

namespace tuning = tvox::tuning;

// The whole file, as the loaders read it: a regular file, read to its end without an error.
std::optional<std::string> read_file(const char *path)
{
    const tvox::FileHandle file(std::fopen(path, "rb"));
    struct stat info = {};
    if (!file || fstat(fileno(file.get()), &info) != 0 || !S_ISREG(info.st_mode)) {
        std::fprintf(stderr, "tvoxsp: cannot open %s\n", path);
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> chunk;
    for (size_t got; (got = std::fread(chunk.data(), 1, chunk.size(), file.get())) > 0;)
        text.append(chunk.data(), got);
    if (std::ferror(file.get())) {
        std::fprintf(stderr, "tvoxsp: cannot read %s\n", path);
        return std::nullopt;
    }
    return text;
}

// A receive configuration starts with its left marker; anything else is read a block per line.
tuning::Layout layout_of(std::string_view text)
{
    const std::string_view first = text.substr(0, text.find('\n'));
    return first.find(tuning::kLeftMarker) != std::string_view::npos ? tuning::Layout::rx_config
                                                                     : tuning::Layout::block_lines;
}

const char *walk_failure(tuning::Walk walk)
{
    switch (walk) {
    case tuning::Walk::too_many_lines:
        return "more than 100 lines: the library would end the process";
    case tuning::Walk::line_after_rx:
        return "a line after the two receive blocks: the library would end the process";
    case tuning::Walk::no_memory:
        return "a line does not fit in memory: rejected";
    case tuning::Walk::read_error:
    case tuning::Walk::done:
        break;
    }
    return "the file cannot be read: rejected";
}

// Runs walk_blocks over text held in memory.
template <typename OnBlock>
std::optional<tuning::Walk> walk_text(std::string &text, tuning::Layout layout, OnBlock &&on_block)
{
    // fmemopen refuses a zero-sized buffer; an empty file simply has no lines.
    if (text.empty())
        return tuning::Walk::done;
    const tvox::FileHandle file(fmemopen(text.data(), text.size(), "r"));
    if (!file)
        return std::nullopt;
    return tuning::walk_blocks(file.get(), layout, on_block);
}

int check(const char *path)
{
    std::optional<std::string> text = read_file(path);
    if (!text)
        return kFailed;
    const tuning::Layout layout = layout_of(*text);
    std::printf("%s: %s\n", path,
                layout == tuning::Layout::rx_config ? "receive configuration (tuning load)"
                                                    : "one block per line (tuning delta, params)");
    bool accepted = true;
    size_t blocks = 0;
    const auto walk = walk_text(*text, layout, [&](const tuning::BlockText &b) {
        ++blocks;
        const tuning::Block block = tuning::parse_block(b.text);
        std::printf("line %zu: size %" PRId32, b.line, block.size);
        switch (block.state) {
        case tuning::BlockState::size_overflow:
            std::printf(": size word overflows, the library would end the process\n");
            accepted = false;
            return;
        case tuning::BlockState::bad_size:
            std::printf(": the line holds no block of that size: rejected\n");
            accepted = false;
            return;
        case tuning::BlockState::no_memory:
            std::printf(": out of memory: rejected\n");
            accepted = false;
            return;
        case tuning::BlockState::ok:
            break;
        }
        const tuning::Crc crc = *tuning::check_block(block);
        std::printf(", %" PRId32 " payload words, CRC stored 0x%08" PRIX32 " computed 0x%08" PRIX32
                    ": %s\n",
                    block.size - 2 < 0 ? 0 : block.size - 2, crc.stored, crc.computed,
                    crc.matches() ? "ok" : "CRC MISMATCH");
        accepted = accepted && crc.matches();
    });
    if (!walk)
        return kFailed;
    if (*walk != tuning::Walk::done) {
        std::printf("%s\n", walk_failure(*walk));
        accepted = false;
    }
    std::printf("%zu blocks: %s\n", blocks, accepted ? "accepted" : "rejected");
    return accepted ? 0 : kFailed;
}

// The block with its size word and CRC recomputed: the tokens between the first and the last
// are the payload.
std::string sealed_block(std::string_view text)
{
    std::vector<uint32_t> words;
    for (size_t start = 0; start <= text.size();) {
        size_t end = text.find(',', start);
        if (end == std::string_view::npos)
            end = text.size();
        words.push_back(tuning::token_value(text.substr(start, end - start)));
        start = end + 1;
    }
    std::vector<uint32_t> block{0};
    if (words.size() > 2)
        block.insert(block.end(), words.begin() + 1, words.end() - 1);
    block[0] = static_cast<uint32_t>(block.size() + 1);
    std::string out = std::to_string(block[0]);
    for (size_t i = 1; i < block.size(); ++i)
        out += "," + std::to_string(static_cast<int32_t>(block[i]));
    return out + "," + std::to_string(tuning::block_crc(block));
}

int seal(const char *path)
{
    std::optional<std::string> text = read_file(path);
    if (!text)
        return kFailed;
    std::string copy = *text;
    std::vector<std::string> sealed; // by line, empty for lines that are no block
    const auto walk = walk_text(copy, layout_of(*text), [&](const tuning::BlockText &b) {
        const std::string_view body = b.text.substr(0, b.text.find_last_not_of("\r\n") + 1);
        const size_t lead = body.find_first_not_of(" \t");
        sealed.resize(b.line);
        sealed[b.line - 1] =
            std::string(b.whole.substr(0, b.whole.size() - b.text.size())) +
            std::string(body.substr(0, lead == std::string_view::npos ? 0 : lead)) +
            sealed_block(body);
    });
    if (!walk)
        return kFailed;
    size_t line = 0;
    for (size_t start = 0; start < text->size(); ++line) {
        size_t end = text->find('\n', start);
        end = end == std::string::npos ? text->size() : end + 1;
        if (line < sealed.size() && !sealed[line].empty())
            std::printf("%s\n", sealed[line].c_str());
        else
            std::fwrite(text->data() + start, 1, end - start, stdout);
        start = end;
    }
    if (*walk != tuning::Walk::done) {
        std::fprintf(stderr, "tvoxsp: %s\n", walk_failure(*walk));
        return kFailed;
    }
    return 0;
}

int status(int32_t result)
{
    return result < 0 ? kFailed : 0;
}

} // namespace

int slot(Args args)
{
    const std::string_view action = args.empty() ? "" : args[0];
    if (action == "read" && args.size() == 1) {
        uint32_t values[2] = {};
        if (tervox_cal_slot_read(values, 2) != 0) {
            std::fprintf(stderr, "tvoxsp: the calibration slot cannot be read\n");
            return kFailed;
        }
        std::printf("CAL_R T: %" PRIu32 "\nCAL_R B: %" PRIu32 "\n", values[0], values[1]);
        return 0;
    }
    if (action != "write" || args.size() != 3)
        return kUsage;
    uint32_t values[2];
    for (size_t channel = 0; channel < 2; ++channel) {
        const std::optional<uint32_t> value = unsigned_number(args[channel + 1]);
        if (!value)
            return kUsage;
        // The slot's check word is CAL_R + 1: the largest word has none.
        if (*value == UINT32_MAX) {
            std::fprintf(stderr, "tvoxsp: %s has no check word: the largest CAL_R is 0xFFFFFFFE\n",
                         args[channel + 1]);
            return kUsage;
        }
        values[channel] = *value;
    }
    if (tervox_cal_slot_write(values, 2) < 0) {
        std::fprintf(stderr, "tvoxsp: the calibration slot cannot be written\n");
        return kFailed;
    }
    return 0;
}

int tuning(Args args)
{
    if (args.size() != 2)
        return kUsage;
    const std::string_view action = args[0];
    const char *path = args[1];
    if (action == "check")
        return check(path);
    if (action == "seal")
        return seal(path);
    if (action == "load")
        return status(tervox_qdsp_load_tuning(path));
    if (action == "delta")
        return status(tervox_qdsp_delta_tuning(path));
    if (action == "params")
        return status(tervox_qdsp_set_params(path));
    return kUsage;
}

int module(Args args)
{
    const std::string_view action = args.empty() ? "" : args[0];
    if (args.size() == 2 && action == "swap") {
        const std::optional<bool> on = on_off(args[1]);
        return on ? status(tervox_qdsp_channel_swap(*on ? 1 : 0)) : kUsage;
    }
    if (args.size() == 2 && action == "config") {
        const std::optional<int32_t> type = signed_number(args[1]);
        return type ? status(tervox_qdsp_config_select(nullptr, *type)) : kUsage;
    }
    if (args.size() != 1)
        return kUsage;
    const std::optional<bool> on = on_off(action);
    if (!on)
        return kUsage;
    tervox_qdsp_enable(*on ? 1 : 0);
    return 0;
}

} // namespace tvoxsp
