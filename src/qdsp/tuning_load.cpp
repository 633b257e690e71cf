// The three tuning files: receive configuration, delta tuning and module parameters. Each is
// read whole and every block CRC-checked before a word goes to the driver.
#include "qdsp/transfer.h"
#include "qdsp/tuning_parser.h"
#include "tvoxsp/qdsp.h"
#include "util/fatal.h"
#include "util/file_handle.h"
#include "util/log.h"
#include "util/text.h"

#include <algorithm>
#include <array>

namespace tvox
{

namespace
{

// The words to send: every block's N words one after another, in file order.
struct Configuration {
    tuning::Words words;
    size_t count = 0;
    std::span<const uint32_t> span() const { return {words.get(), count}; }
};

FileHandle open_tuning(const char *path)
{
    FileHandle file(std::fopen(path, "rte"));
    if (!file)
        log_qdsp(Priority::debug, "Cannot open file - '%s'\n", printable(path));
    return file;
}

// Reads, checks and joins the blocks of an open file; nothing after a failed block (logged).
std::optional<Configuration> read_configuration(std::FILE *file, tuning::Layout layout)
{
    std::array<tuning::Block, tuning::kMaxBlockLines> blocks;
    size_t count = 0;
    const tuning::Walk walk = tuning::walk_blocks(file, layout, [&](const tuning::BlockText &b) {
        blocks[b.index] = tvox_tuning_raw_parser(b.text);
        count = b.index + 1;
    });
    if (walk != tuning::Walk::done)
        fatal();
    Configuration config;
    for (size_t i = 0; i < count; ++i) {
        if (!tervox_delta_crc32(blocks[i])) {
            log_qdsp(Priority::debug, "CRC Failed on delta_buf[%d]!\n", static_cast<int>(i));
            return std::nullopt;
        }
        config.count += blocks[i].words_in_block().size();
    }
    config.words = tuning::allocate_words(config.count);
    if (!config.words)
        return std::nullopt;
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
    const std::optional<Configuration> config = read_configuration(file.get(), layout);
    if (!config)
        return -1;
    tervox_qdsp_transfer_ext_config(config->span(), param_id);
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
    const tvox::FileHandle file = tvox::open_tuning(path);
    if (!file)
        return -1;
    int32_t result = -1;
    if (const auto config =
            tvox::read_configuration(file.get(), tvox::tuning::Layout::block_lines)) {
        tvox::tervox_qdsp_transfer_delta_config(config->span());
        result = 0;
    }
    // The module closes every delta, whether one was sent or not.
    tvox::tervox_qdsp_single_transfer(tvox::kParamDeltaDone, 0);
    return result;
}
