#include "qdsp/transfer.h"

#include "qdsp/driver.h"
#include "tvoxsp/qdsp.h"
#include "util/fatal.h"
#include "util/log.h"
#include "util/text.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace tvox
{

namespace
{

constexpr size_t kChunkWords = 90;
constexpr uint32_t kChunkBytes = 384; // every chunk declares this length, whatever it carries
constexpr uint32_t kHeaderConstant = 4;
constexpr size_t kBufferWords = 1024; // 4096 bytes, the room a final chunk may use

// The module expects the delta layout (one more reserved word) only under the delta id.
struct ChunkLayout {
    const char *log_name;
    size_t header_words;
};
constexpr ChunkLayout kExtended{"tervox_qdsp_transfer_ext_config", 5};
constexpr ChunkLayout kDelta{"tervox_qdsp_transfer_delta_config", 6};

void log_failed_set(int result)
{
    if (result < 0)
        log_qdsp(Priority::debug, "%s: IOCTL Set Failed! %d\n", "ioctl_set", result);
}

int transfer_chunks(std::span<const uint32_t> words, uint32_t param_id, const ChunkLayout &layout)
{
    const char *path = device_file_name();
    DriverDevice device(path, O_RDWR);
    if (!device.is_open()) {
        log_qdsp(Priority::debug, "%s: Can't open '%s' \n", layout.log_name, printable(path));
        return 0;
    }
    if (words.size() > UINT32_MAX / sizeof(uint32_t))
        fatal();
    const auto total = static_cast<uint32_t>(words.size() * sizeof(uint32_t));
    std::array<uint32_t, kBufferWords> buffer{};
    const auto send = [&](std::span<const uint32_t> data, bool last) {
        buffer[0] = total;
        buffer[1] = static_cast<uint32_t>(data.size() * sizeof(uint32_t));
        buffer[2] = last ? 1 : 0;
        buffer[layout.header_words - 1] = kHeaderConstant;
        // Behind a short final chunk the previous chunk's words stay: only the header's
        // byte count tells the module where the data ends.
        std::copy(data.begin(), data.end(), buffer.begin() + layout.header_words);
        DriverRequest record =
            DriverRequest::make(kTargetModule, param_id, buffer.data(), kChunkBytes);
        log_failed_set(device.request(kSetParamRequest, record));
    };
    const size_t full_chunks = words.size() / kChunkWords;
    for (size_t chunk = 0; chunk < full_chunks; ++chunk)
        send(words.subspan(chunk * kChunkWords, kChunkWords), false);
    // Always a final chunk, empty when the words end on a chunk boundary: it marks the end.
    send(words.subspan(full_chunks * kChunkWords), true);
    return device.close();
}

} // namespace

void tervox_qdsp_single_transfer(uint32_t param_id, uint32_t value)
{
    const char *path = device_file_name();
    DriverDevice device(path, O_RDWR);
    if (!device.is_open()) {
        log_qdsp(Priority::debug, "%s: Can't open '%s' \n", "tervox_qdsp_single_transfer",
                 printable(path));
        return;
    }
    DriverRequest record = DriverRequest::make(kTargetModule, param_id, &value, sizeof value);
    log_failed_set(device.request(kSetParamRequest, record));
}

int tervox_qdsp_transfer_ext_config(std::span<const uint32_t> words, uint32_t param_id)
{
    return transfer_chunks(words, param_id, kExtended);
}

int tervox_qdsp_transfer_delta_config(std::span<const uint32_t> words)
{
    return transfer_chunks(words, kParamDelta, kDelta);
}

} // namespace tvox
