// The three tuning files: receive configuration, delta tuning and module parameters. Each is
// read whole and every block CRC-checked before a word goes to the driver.
#include "qdsp/transfer.h"
#include "qdsp/tuning_parser.h"
#include "tvoxsp/qdsp.h"
#include "util/fatal.h"
#include "util/file_handle.h"
#include "util/log.h"
#include "util/text.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>

namespace tvox
{

namespace
{

// What a file gave: the words to send (every block's N words one after another, in file order),
// or why nothing goes out.
struct Configuration {
    enum class Refusal {
        none,
        unreadable, // the file could not be read whole: as if it had not opened
        rejected,   // a block failed its check (logged)
    };
    Refusal refusal = Refusal::none;
    tuning::Words words;
    size_t count = 0;
    std::span<const uint32_t> span() const { return {words.get(), count}; }
};

Configuration refused(Configuration::Refusal why)
{
    Configuration config;
    config.refusal = why;
    return config;
}

void log_cannot_open(const char *path)
{
    log_qdsp(Priority::debug, "Cannot open file - '%s'\n", printable(path));
}

// Only a regular file is a tuning file: a directory opens, but reads nothing but an error.
FileHandle open_tuning(const char *path)
{
    FileHandle file(std::fopen(path, "rte"));
    struct stat info = {};
    if (file && (fstat(fileno(file.get()), &info) != 0 || !S_ISREG(info.st_mode)))
        file.reset();
    if (!file)
        log_cannot_open(path);
    return file;
}

// Reads, checks and joins the blocks of an open file; nothing after a failed block (logged).
Configuration read_configuration(std::FILE *file, const char *path, tuning::Layout layout)
{
    using Refusal = Configuration::Refusal;
    std::array<tuning::Block, tuning::kMaxBlockLines> blocks;
    size_t count = 0;
    const tuning::Walk walk = tuning::walk_blocks(file, layout, [&](const tuning::BlockText &b) {
        blocks[b.index] = tvox_tuning_raw_parser(b.text);
        count = b.index + 1;
    });
    if (walk == tuning::Walk::too_many_lines || walk == tuning::Walk::line_after_rx)
        fatal();
    // Part of a file is not a configuration: a read error is answered as a file that does not
    // open, before anything is checked or sent.
    if (walk == tuning::Walk::read_error) {
        log_cannot_open(path);
        return refused(Refusal::unreadable);
    }
    // A line that did not fit in memory is a block that did not parse: it fails its check.
    const size_t checked = walk == tuning::Walk::no_memory ? count + 1 : count;
    Configuration config;
    for (size_t i = 0; i < checked; ++i) {
        if (i == count || !tervox_delta_crc32(blocks[i])) {
            log_qdsp(Priority::debug, "CRC Failed on delta_buf[%d]!\n", static_cast<int>(i));
            return refused(Refusal::rejected);
        }
        config.count += blocks[i].words_in_block().size();
    }
    config.words = tuning::allocate_words(config.count);
    if (!config.words)
        return refused(Refusal::rejected);
    uint32_t *out = config.words.get();
    for (size_t i = 0; i < count; ++i)
        out = std::copy_n(blocks[i].words_in_block().begin(), blocks[i].size, out);
    return config;
}

// Loads a file whose blocks go out as one extended configuration under `param_id`.
int32_t load_extended(const char *path, tuning::Layout layout, uint32_t param_id)
{
    const FileHandle file = open_tuning(path);
    if (!file)
        return -1;
    const Configuration config = read_configuration(file.get(), path, layout);
    if (config.refusal != Configuration::Refusal::none)
        return -1;
    tervox_qdsp_transfer_ext_config(config.span(), param_id);
    return 0;
}

} // namespace

} // namespace tvox

extern "C" int32_t tervox_qdsp_load_tuning(const char *path)
{
    return tvox::load_extended(path, tvox::tuning::Layout::rx_config, tvox::kParamRxConfig);
}

extern "C" int32_t tervox_qdsp_set_params(const char *path)
{
    return tvox::load_extended(path, tvox::tuning::Layout::block_lines, tvox::kParamModuleParams);
}

extern "C" int32_t tervox_qdsp_delta_tuning(const char *path)
{
    using Refusal = tvox::Configuration::Refusal;
    const tvox::FileHandle file = tvox::open_tuning(path);
    if (!file)
        return -1;
    const tvox::Configuration config =
        tvox::read_configuration(file.get(), path, tvox::tuning::Layout::block_lines);
    if (config.refusal == Refusal::unreadable)
        return -1;
    if (config.refusal == Refusal::none)
        tvox::tervox_qdsp_transfer_delta_config(config.span());
    // The module closes every delta of a file it could read, whether one was sent or not.
    tvox::tervox_qdsp_single_transfer(tvox::kParamDeltaDone, 0);
    return config.refusal == Refusal::none ? 0 : -1;
}
