// tvoxsp slot, tuning and module: the driver side of the library. "tuning check" and "tuning
// seal" judge a file with the library's own block rules and CRC (src/qdsp/tuning_block.h), so
// what they accept is exactly what the loaders accept.
#include "arguments.h"
#include "command.h"
#include "library_log.h"
#include "output.h"
#include "qdsp/block_crc.h"
#include "qdsp/tuning_block.h"
#include "stream_tap.h"
#include "tvoxsp.h"
#include "util/file_handle.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp
{

namespace
{

namespace tuning = tvox::tuning;

// The file whole; says why not when it cannot be read or is no regular file.
std::optional<std::string> read_file(const char *path)
{
    const tvox::FileHandle file(std::fopen(path, "rb"));
    struct stat info {
    };
    if (!file || fstat(fileno(file.get()), &info) != 0) {
        tell(text_of("cannot open %s: %s", path, std::strerror(errno)));
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        tell(text_of("%s is %s, not a tuning file", path,
                     S_ISDIR(info.st_mode) ? "a directory" : "no regular file"));
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> buffer{};
    for (size_t got; (got = std::fread(buffer.data(), 1, buffer.size(), file.get())) > 0;)
        text.append(buffer.data(), got);
    if (std::ferror(file.get())) {
        tell(text_of("cannot read %s: %s", path, std::strerror(errno)));
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

// Why a walk stopped before the file's end.
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

// The line a walk's failure is reported on (0: the file as a whole).
size_t walk_failure_line(tuning::Walk walk)
{
    switch (walk) {
    case tuning::Walk::too_many_lines:
        return tuning::kMaxBlockLines + 1;
    case tuning::Walk::line_after_rx:
        return 3;
    default:
        return 0;
    }
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

// Why a file is refused. A cosmetic fault leaves what the module gets as the file means it:
// --force sends such a file.
struct Finding {
    size_t line; // 0: the file as a whole
    bool cosmetic;
    std::string text;
};

// A tuning file as the loaders would take it: a report line per block (what `check` lists),
// what is wrong with it, and how much would be sent.
struct Judgement {
    tuning::Layout layout;
    std::vector<std::string> report;
    std::vector<Finding> findings;
    Json::Value block_list{Json::arrayValue}; // {"line", "ok", "size", "crc", "message"}
    size_t blocks = 0;
    size_t words = 0;

    bool accepted() const { return findings.empty(); }
    bool forcible() const
    {
        return std::all_of(findings.begin(), findings.end(),
                           [](const Finding &f) { return f.cosmetic; });
    }
};

std::string printed(const char *format, auto... values)
{
    std::array<char, 256> text{};
    std::snprintf(text.data(), text.size(), format, values...);
    return text.data();
}

// Judges one block: its report line, and a finding for whatever the loaders would not send as
// the line means it.
void judge_block(Judgement &judgement, const tuning::BlockText &b)
{
    ++judgement.blocks;
    const tuning::Block block = tuning::parse_block(b.text);
    std::string line = printed("line %zu: size %" PRId32, b.line, block.size);
    Json::Value &entry = judgement.block_list.append(Json::Value(Json::objectValue));
    entry["line"] = static_cast<Json::UInt64>(b.line);
    entry["size"] = block.size;
    entry["ok"] = true;
    entry["message"] = Json::nullValue;
    const auto refuse = [&](const std::string &why, bool cosmetic = false) {
        judgement.findings.push_back({b.line, cosmetic, why});
        entry["ok"] = false;
        if (entry["message"].isNull())
            entry["message"] = why;
    };
    switch (block.state) {
    case tuning::BlockState::size_overflow:
        judgement.report.push_back(line + ": size word overflows, the library would end the "
                                          "process");
        refuse("the size word overflows: the library would end the process");
        return;
    case tuning::BlockState::bad_size:
        judgement.report.push_back(line + ": the line holds no block of that size: rejected");
        refuse(printed("size %" PRId32 ": the line holds no block of that size", block.size));
        return;
    case tuning::BlockState::no_memory:
        judgement.report.push_back(line + ": out of memory: rejected");
        refuse("out of memory");
        return;
    case tuning::BlockState::ok:
        break;
    }
    judgement.words += static_cast<size_t>(block.size);
    const tuning::Crc crc = *tuning::check_block(block);
    entry["crc"] = crc.stored;
    entry["computed_crc"] = crc.computed;
    line += printed(", %" PRId32 " payload words, CRC stored 0x%08" PRIX32 " computed 0x%08" PRIX32
                    ": %s",
                    block.size - 2 < 0 ? 0 : block.size - 2, crc.stored, crc.computed,
                    crc.matches() ? "ok" : "CRC MISMATCH");
    if (!crc.matches())
        refuse(
            printed("CRC stored 0x%08" PRIX32 ", computed 0x%08" PRIX32, crc.stored, crc.computed));
    // Tokens past the CRC word never reach the module.
    const size_t body = b.text.find_last_not_of(" \t\r\n") + 1;
    const auto tokens =
        static_cast<size_t>(std::count(b.text.begin(), b.text.begin() + body, ',')) + 1;
    if (tokens > static_cast<size_t>(block.size)) {
        const std::string extra =
            printed("%zu tokens after the CRC word are ignored", tokens - block.size);
        line += ", " + extra + " (cosmetic)";
        refuse(extra, true);
    }
    judgement.report.push_back(line);
}

std::optional<Judgement> judge(std::string text, tuning::Layout layout)
{
    Judgement judgement{layout, {}, {}};
    const auto walk =
        walk_text(text, layout, [&](const tuning::BlockText &b) { judge_block(judgement, b); });
    if (!walk)
        return std::nullopt;
    const auto whole = [&](size_t line, const std::string &why) {
        judgement.report.push_back(line == 0 ? why : printed("line %zu: ", line) + why);
        judgement.findings.push_back({line, false, why});
    };
    if (*walk != tuning::Walk::done)
        whole(walk_failure_line(*walk), walk_failure(*walk));
    const bool rx = layout == tuning::Layout::rx_config;
    if (judgement.blocks == 0)
        whole(rx ? 1 : 0, rx ? "no QORA_CONFIG_RX_LEFT line: the module would get an empty "
                               "receive configuration"
                             : "no block: the module would get an empty configuration");
    else if (rx && judgement.blocks == 1 && *walk == tuning::Walk::done)
        whole(2, "no QORA_CONFIG_RX_RIGHT line: the module would get the left block alone");
    return judgement;
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
    const std::optional<Judgement> judgement = judge(std::move(*text), layout);
    if (!judgement)
        return kFailed;
    for (const std::string &line : judgement->report)
        std::printf("%s\n", line.c_str());
    std::printf("%zu blocks: %s\n", judgement->blocks,
                judgement->accepted() ? "accepted" : "rejected");
    result()["file"] = path;
    result()["kind"] = layout == tuning::Layout::rx_config ? "receive" : "delta";
    result()["blocks"] = judgement->block_list;
    result()["loads"] = judgement->accepted();
    if (judgement->accepted())
        return 0;
    const Finding &first = judgement->findings.front();
    return noted(kFailed,
                 first.line == 0 ? first.text : printed("line %zu: ", first.line) + first.text);
}

// A token of a block as written by hand: a decimal integer of 32 bits, blanks around it.
std::optional<uint32_t> decimal_word(std::string_view token)
{
    const size_t first = token.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return std::nullopt;
    token = token.substr(first, token.find_last_not_of(" \t") + 1 - first);
    const size_t digits = token[0] == '-' || token[0] == '+' ? 1 : 0;
    if (token.size() == digits || token.size() > digits + 10 ||
        token.find_first_not_of("0123456789", digits) != std::string_view::npos)
        return std::nullopt;
    const long long value = std::strtoll(std::string(token).c_str(), nullptr, 10);
    if (value < INT32_MIN || value > UINT32_MAX)
        return std::nullopt;
    return static_cast<uint32_t>(value);
}

// The block with its size word and CRC recomputed: the tokens between the first and the last
// are the payload. Nothing, with the reason, for a line that is no block.
std::optional<std::string> sealed_block(std::string_view text, std::string &why)
{
    std::vector<uint32_t> words;
    for (size_t start = 0; start <= text.size();) {
        size_t end = text.find(',', start);
        if (end == std::string_view::npos)
            end = text.size();
        const std::string_view token = text.substr(start, end - start);
        const std::optional<uint32_t> word = decimal_word(token);
        if (!word) {
            why = "'" + std::string(token) + "' is not a decimal integer of 32 bits";
            return std::nullopt;
        }
        words.push_back(*word);
        start = end + 1;
    }
    if (words.size() < 2) {
        why = "a block needs its size word and its CRC";
        return std::nullopt;
    }
    std::vector<uint32_t> block{0};
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
    std::string refused;             // the first line that is no block, and why
    const auto walk = walk_text(copy, layout_of(*text), [&](const tuning::BlockText &b) {
        const std::string_view body = b.text.substr(0, b.text.find_last_not_of("\r\n") + 1);
        const size_t lead = body.find_first_not_of(" \t");
        std::string why;
        const std::optional<std::string> block =
            sealed_block(body.substr(lead == std::string_view::npos ? body.size() : lead), why);
        if (!block) {
            if (refused.empty())
                refused = printed("line %zu: ", b.line) + why;
            return;
        }
        sealed.resize(b.line);
        sealed[b.line - 1] = std::string(b.whole.substr(0, b.whole.size() - b.text.size())) +
                             std::string(body.substr(0, lead)) + *block;
    });
    if (!walk)
        return kFailed;
    if (!refused.empty()) {
        tell(text_of("%s: %s: nothing sealed", path, refused.c_str()));
        return kFailed;
    }
    if (*walk != tuning::Walk::done) {
        tell(text_of("%s: %s", path, walk_failure(*walk)));
        return kFailed;
    }
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
    return 0;
}

// What the library logged about the driver device since `mark`: the first device that did not
// open, or how many of the `requests` the driver refused. Nothing when all went through.
std::optional<std::string> driver_failure(size_t mark, size_t requests)
{
    size_t refused = 0;
    int error = 0;
    for (const LibraryLogLine &line : library_log_since(mark)) {
        if (line.text.find("Can't open") != std::string::npos)
            return printed("cannot open %s: %s", DEVICE_FILE_NAME, std::strerror(line.error));
        if (line.text.find("IOCTL Set Failed") != std::string::npos) {
            error = refused++ == 0 ? line.error : error;
        }
    }
    if (refused == 0)
        return std::nullopt;
    return printed("%zu of %zu requests to %s failed: ", refused, requests, DEVICE_FILE_NAME) +
           error_name(error);
}

// Says why the driver did not take everything: a device that does not open is no device, a
// refused request a failure to apply.
int driver_status(size_t mark, size_t requests)
{
    const std::optional<std::string> failure = driver_failure(mark, requests);
    if (!failure)
        return 0;
    return fail(failure->starts_with("cannot open") ? kNoDevice : kApplying, *failure);
}

struct Loader {
    std::string_view action;
    tuning::Layout layout;
    int32_t (*load)(const char *path);
    const char *what;
    size_t closing_requests; // sent after the chunks
};

constexpr std::array kLoaders = {
    Loader{"load", tuning::Layout::rx_config, tervox_qdsp_load_tuning, "receive configuration", 0},
    Loader{"delta", tuning::Layout::block_lines, tervox_qdsp_delta_tuning, "delta tuning", 1},
    Loader{"params", tuning::Layout::block_lines, tervox_qdsp_set_params, "module parameters", 0},
};

constexpr size_t kChunkWords = 90;

// Judges the file as `check` does and sends it only when the module gets what it means.
int load(const Loader &loader, const char *path, bool force)
{
    std::optional<std::string> text = read_file(path);
    if (!text)
        return kFailed;
    const std::optional<Judgement> judgement = judge(std::move(*text), loader.layout);
    if (!judgement)
        return kFailed;
    for (const Finding &finding : judgement->findings) {
        const std::string where = finding.line == 0 ? "" : printed("line %zu: ", finding.line);
        tell(text_of("%s: %s%s", path, where.c_str(), finding.text.c_str()));
    }
    if (!judgement->accepted() && !(force && judgement->forcible())) {
        std::fprintf(
            stderr, "tvoxsp: %s: not sent (tuning check %s lists every block)%s\n", path, path,
            judgement->forcible() ? "; --force sends a file whose faults are cosmetic" : "");
        return kFailed;
    }
    const size_t mark = library_log_mark();
    if (loader.load(path) != 0) {
        // The file changed since it was judged, or went away.
        tell(text_of("%s: the library refused it", path));
        return kFailed;
    }
    const size_t requests = judgement->words / kChunkWords + 1 + loader.closing_requests;
    if (const int status = driver_status(mark, requests); status != 0)
        return status;
    std::printf("%s: %s of %zu blocks, %zu words sent\n", path, loader.what, judgement->blocks,
                judgement->words);
    result()["file"] = path;
    result()["sent_blocks"] = static_cast<Json::UInt64>(judgement->blocks);
    result()["sent_words"] = static_cast<Json::UInt64>(judgement->words);
    return 0;
}

// "cal_r": [T, B].
void slot_json(const uint32_t (&values)[2])
{
    Json::Value cal_r(Json::arrayValue);
    for (const uint32_t value : values)
        cal_r.append(value);
    result()["cal_r"] = cal_r;
}

int slot(Args args)
{
    const std::string_view action = args.empty() ? "" : args[0];
    if (action == "read" && args.size() == 1) {
        uint32_t values[2] = {};
        if (tervox_cal_slot_read(values, 2) != 0)
            return fail(kFailed, "the calibration slot cannot be read");
        std::printf("CAL_R T: %" PRIu32 "\nCAL_R B: %" PRIu32 "\n", values[0], values[1]);
        slot_json(values);
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
            tell(text_of("%s has no check word: the largest CAL_R is 0xFFFFFFFE",
                         args[channel + 1]));
            return kUsage;
        }
        values[channel] = *value;
    }
    if (tervox_cal_slot_write(values, 2) < 0)
        return fail(kFailed, "the calibration slot cannot be written");
    slot_json(values);
    return 0;
}

int tuning_command(Args args)
{
    std::vector<char *> words(args.begin(), args.end());
    const bool force = take_flag(words, "--force");
    if (words.size() != 2)
        return kUsage;
    const std::string_view action = words[0];
    const char *path = words[1];
    if (action == "check" && !force)
        return check(path);
    if (action == "seal" && !force)
        return seal(path);
    for (const Loader &loader : kLoaders) {
        if (loader.action == action)
            return load(loader, path, force);
    }
    return kUsage;
}

int module(Args args)
{
    const std::string_view action = args.empty() ? "" : args[0];
    if (args.size() == 2 && action == "swap") {
        const std::optional<bool> on = on_off(args[1]);
        if (!on)
            return kUsage;
        result()["swap"] = *on ? "on" : "off";
        return controls_written([on] { return tervox_qdsp_channel_swap(*on ? 1 : 0); },
                                "the module's channel swap was not set");
    }
    if (args.size() == 1 && action == "config") {
        // Both types select the swapped order; the library ignores any other.
        std::printf("configuration types: 0, 1 (both select the swapped channel order)\n");
        Json::Value types(Json::arrayValue);
        types.append(0);
        types.append(1);
        result()["types"] = types;
        return 0;
    }
    if (args.size() == 2 && action == "config") {
        const std::optional<int32_t> type = signed_number(args[1]);
        if (!type)
            return kUsage;
        // Both types select the swapped order; the library ignores any other.
        if (*type != 0 && *type != 1) {
            tell(text_of("configuration type %s: the types are 0 and 1", args[1]));
            return kUsage;
        }
        result()["type"] = *type;
        return controls_written([type] { return tervox_qdsp_config_select(nullptr, *type); },
                                "the configuration type was not selected");
    }
    if (args.size() != 1)
        return kUsage;
    const std::optional<bool> on = on_off(action);
    if (!on)
        return kUsage;
    result()["state"] = *on ? "on" : "off";
    const size_t mark = library_log_mark();
    tervox_qdsp_enable(*on ? 1 : 0);
    return driver_status(mark, 1);
}

constexpr std::array kQdspCommands = {
    Command{"slot", "read | write CAL_R_T CAL_R_B",
            "fetch or store both CAL_R values in the driver's calibration slot", slot, "",
            "tvoxsp slot write 8391 8391"},
    Command{"tuning", "load|delta|params [--force] FILE | check|seal FILE",
            "send a receive configuration, delta or module parameter file to the protection "
            "module; check: list its blocks as the library judges them; seal: print it with "
            "sizes and CRCs recomputed; --force sends a file whose only faults are cosmetic",
            tuning_command,
            "--force  send a file whose only faults are cosmetic (tokens after the CRC)",
            "tvoxsp tuning check delta.txt && tvoxsp tuning delta delta.txt"},
    Command{"module", "on|off | swap on|off | config [TYPE]",
            "switch the protection module, swap its channels, select a configuration type "
            "(config alone lists the types: 0 and 1)",
            module, "", "tvoxsp module config 1"},
};

} // namespace

std::span<const Command> qdsp_commands()
{
    return kQdspCommands;
}

} // namespace tvoxsp
