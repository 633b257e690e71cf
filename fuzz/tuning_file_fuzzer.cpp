// Arbitrary bytes as a tuning file, read both ways the loaders read one (receive configuration
// and one block per line), with the block rules and CRC beneath them: no input may reach outside
// a block, and an accepted block must hold exactly its size word's words with a checked CRC.
#include "qdsp/block_crc.h"
#include "qdsp/tuning_block.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{

void verify_block(const tvox::tuning::Block &block)
{
    const auto words = block.words_in_block();
    if (block.state != tvox::tuning::BlockState::ok) {
        if (!words.empty())
            std::abort();
        return;
    }
    if (block.size < 1 || words.size() != static_cast<size_t>(block.size) ||
        words[0] != static_cast<uint32_t>(block.size))
        std::abort();
    // Word N exists (the parser's spare word) and is read here so ASan sees it.
    volatile uint32_t spare = block.words[words.size()];
    (void)spare;
    const auto crc = tvox::tuning::check_block(block);
    if (!crc || crc->computed != tvox::tuning::block_crc(words.first(words.size() - 1)))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    for (auto layout : {tvox::tuning::Layout::rx_config, tvox::tuning::Layout::block_lines}) {
        std::FILE *file = fmemopen(const_cast<uint8_t *>(data), size, "r");
        if (!file)
            return 0;
        size_t expected = 0;
        tvox::tuning::walk_blocks(file, layout, [&](const tvox::tuning::BlockText &text) {
            if (text.index != expected++ || text.index >= tvox::tuning::kMaxBlockLines)
                std::abort();
            verify_block(tvox::tuning::parse_block(text.text));
        });
        std::fclose(file);
    }
    return 0;
}
