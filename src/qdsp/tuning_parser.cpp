#include "qdsp/tuning_parser.h"

#include "qdsp/block_crc.h"
#include "tvoxsp/qdsp.h"
#include "util/fatal.h"
#include "util/log.h"

namespace tvox
{

tuning::Block tvox_tuning_raw_parser(std::string_view text)
{
    log_qdsp(Priority::debug, "%s: Enter\n", "tvox_tuning_raw_parser");
    tuning::Block block = tuning::parse_block(text);
    log_qdsp(Priority::debug, "%s: delta size: %d\n", "tvox_tuning_raw_parser", block.size);
    switch (block.state) {
    case tuning::BlockState::size_overflow:
        fatal();
    case tuning::BlockState::no_memory:
        log_qdsp(Priority::debug, "%s: Failed to alloc memory!\n", "tvox_tuning_raw_parser");
        return block;
    case tuning::BlockState::ok:
    case tuning::BlockState::bad_size:
        break;
    }
    log_qdsp(Priority::debug, "%s: Exit\n", "tvox_tuning_raw_parser");
    return block;
}

int tervox_delta_crc32(const tuning::Block &block)
{
    // A size word the line cannot back has no CRC word to compare with.
    const std::optional<tuning::Crc> crc = tuning::check_block(block);
    if (!crc)
        return 0;
    log_qdsp(Priority::debug, "CRC: calc = %d, match = %d\n", static_cast<int32_t>(crc->computed),
             static_cast<int32_t>(crc->stored));
    return crc->matches() ? 1 : 0;
}

} // namespace tvox

extern "C" uint32_t crc32(uint32_t *block)
{
    const auto size = static_cast<int32_t>(block[0]);
    if (size <= 1)
        return 0;
    return tvox::tuning::block_crc({block, static_cast<size_t>(size) - 1});
}
