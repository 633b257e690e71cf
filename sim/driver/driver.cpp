#include "driver.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tvox::sim::driver
{

namespace
{

constexpr uint32_t kRecordSize = 24;
constexpr uint32_t kTargetModule = 1;
constexpr uint32_t kTargetSlot = 2;
constexpr uint32_t kValueBytes = 4;
constexpr uint32_t kChunkBytes = 384;
constexpr uint32_t kFullChunkData = 360;
constexpr uint32_t kHeaderConstant = 4;
constexpr uint32_t kSlotBytes = kSlotWords * 4;

struct Record {
    uint32_t size;
    uint32_t target;
    uint32_t param_id;
    uint32_t length;
    uint64_t payload;
};
static_assert(sizeof(Record) == kRecordSize);

std::string hex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

const char *errno_name(int err)
{
    switch (err) {
    case 0:
        return "ok";
    case EINVAL:
        return "EINVAL";
    case ENOTTY:
        return "ENOTTY";
    case ENOENT:
        return "ENOENT";
    case ENOSPC:
        return "ENOSPC";
    case EIO:
        return "EIO";
    default:
        return strerrorname_np(err) ? strerrorname_np(err) : "?";
    }
}

// Journals the request's line with its outcome; returns the result for the caller.
int outcome(Session &session, const std::string &what, int result, std::string_view why = {})
{
    std::string line = "driver " + what + " -> " + errno_name(-result);
    if (!why.empty())
        line += " (" + std::string(why) + ")";
    session.journal(line);
    return result;
}

DriverConfig *find(std::span<DriverConfig> table, uint32_t param_id, bool create)
{
    DriverConfig *free_entry = nullptr;
    for (DriverConfig &config : table) {
        if (config.used && config.param_id == param_id)
            return &config;
        if (!config.used && !free_entry)
            free_entry = &config;
    }
    if (!create || !free_entry)
        return nullptr;
    std::memset(static_cast<void *>(free_entry), 0, offsetof(DriverConfig, words));
    free_entry->used = 1;
    free_entry->param_id = param_id;
    return free_entry;
}

// The configuration becomes the last complete one under its id.
int complete(DriverState &driver, const DriverConfig &config)
{
    DriverConfig *done = find(driver.complete, config.param_id, true);
    if (!done)
        return -ENOSPC;
    if (done != &config)
        std::memcpy(static_cast<void *>(done), &config,
                    offsetof(DriverConfig, words) + config.received_bytes);
    done->used = 1;
    if (config.param_id == kParamEnable) {
        driver.enabled = config.words[0];
        ++driver.enable_writes;
    } else if (config.param_id == kParamDeltaDone) {
        driver.delta_done_value = config.words[0];
        ++driver.delta_done;
    }
    return 0;
}

bool fault_hits(const DriverFaults &faults, uint32_t number, uint32_t param_id)
{
    return faults.fail_request == number &&
           (faults.fail_param == 0 || faults.fail_param == param_id);
}

int fault_errno(const DriverFaults &faults)
{
    return -(faults.fail_errno > 0 ? faults.fail_errno : EIO);
}

int set_value(Session &session, const Record &record)
{
    DriverState &driver = session.layout().driver;
    uint32_t value = 0;
    std::memcpy(&value, reinterpret_cast<const void *>(record.payload), sizeof value);
    const std::string what = "set " + hex(record.param_id) + " value " + std::to_string(value);
    if (fault_hits(driver.faults, kSetParam, record.param_id))
        return outcome(session, what, fault_errno(driver.faults), "fault");
    DriverConfig *single = find(driver.complete, record.param_id, true);
    if (!single)
        return outcome(session, what, -ENOSPC, "too many parameter ids");
    single->header_words = 0;
    single->total_bytes = single->received_bytes = sizeof value;
    single->chunks = 1;
    single->words[0] = value;
    return outcome(session, what, complete(driver, *single));
}

int set_chunk(Session &session, const Record &record)
{
    DriverState &driver = session.layout().driver;
    const uint32_t header_words = record.param_id == kParamDelta ? 6 : 5;
    uint32_t chunk[kChunkBytes / 4];
    static_assert(sizeof chunk == sizeof DriverState::last_chunk);
    std::memcpy(chunk, reinterpret_cast<const void *>(record.payload), sizeof chunk);
    std::memcpy(driver.last_chunk, chunk, sizeof chunk);
    const uint32_t total = chunk[0], bytes = chunk[1], last = chunk[2];
    const std::string what = "set " + hex(record.param_id) + " chunk total " +
                             std::to_string(total) + " data " + std::to_string(bytes) + " last " +
                             std::to_string(last);
    bool reserved_clear = true;
    for (uint32_t i = 3; i + 1 < header_words; ++i)
        reserved_clear = reserved_clear && chunk[i] == 0;
    if (chunk[header_words - 1] != kHeaderConstant || !reserved_clear || last > 1)
        return outcome(session, what, -EINVAL, "chunk header");
    const bool size_ok = last ? bytes < kFullChunkData : bytes == kFullChunkData;
    if (!size_ok || bytes % 4 != 0 || total % 4 != 0)
        return outcome(session, what, -EINVAL, "chunk size");
    if (total / 4 > kDriverConfigWords)
        return outcome(session, what, -ENOSPC, "configuration too large");

    DriverConfig *pending = find(driver.pending, record.param_id, false);
    if (pending && pending->total_bytes != total) {
        pending->used = 0;
        return outcome(session, what, -EINVAL, "chunk of another transfer");
    }
    if (!pending) {
        pending = find(driver.pending, record.param_id, true);
        if (!pending)
            return outcome(session, what, -ENOSPC, "too many transfers");
        pending->header_words = header_words;
        pending->total_bytes = total;
    }
    ++pending->chunks;
    if (driver.faults.fail_chunk == pending->chunks)
        return outcome(session, what, fault_errno(driver.faults), "fault");
    if (fault_hits(driver.faults, kSetParam, record.param_id))
        return outcome(session, what, fault_errno(driver.faults), "fault");
    const bool fits =
        last ? pending->received_bytes + bytes == total : pending->received_bytes + bytes <= total;
    if (!fits) {
        pending->used = 0;
        return outcome(session, what, -EINVAL, "chunk order");
    }
    std::memcpy(reinterpret_cast<uint8_t *>(pending->words) + pending->received_bytes,
                chunk + header_words, bytes);
    pending->received_bytes += bytes;
    if (!last)
        return outcome(session, what, 0);
    const int result = complete(driver, *pending);
    pending->used = 0;
    return outcome(session, what, result);
}

int slot(Session &session, uint32_t number, const Record &record)
{
    DriverState &driver = session.layout().driver;
    void *payload = reinterpret_cast<void *>(record.payload);
    const bool store = number == kStoreSlot;
    std::string what = store ? "store slot" : "fetch slot";
    if (fault_hits(driver.faults, number, record.param_id))
        return outcome(session, what, fault_errno(driver.faults), "fault");
    if (store) {
        std::memcpy(driver.slot, payload, kSlotBytes);
        driver.slot_stored = 1;
    } else {
        std::memcpy(payload, driver.slot, kSlotBytes);
    }
    for (uint32_t word : driver.slot)
        what += " " + std::to_string(word);
    return outcome(session, what, 0);
}

} // namespace

int open_device(Session &session, int flags)
{
    if (session.layout().driver.faults.absent)
        return outcome(session, "open", -ENOENT, "device absent");
    return outcome(session, "open flags " + hex(static_cast<uint32_t>(flags)), 0);
}

void close_device(Session &session)
{
    session.journal("driver close");
}

int request(Session &session, unsigned long number, void *argument)
{
    DriverState &driver = session.layout().driver;
    ++driver.requests;
    const bool known = number == kSetParam || number == kStoreSlot || number == kFetchSlot;
    if (!known)
        return outcome(session, "ioctl " + hex(static_cast<uint32_t>(number)), -ENOTTY);
    const std::string name = request_name(static_cast<uint32_t>(number));
    if (!argument)
        return outcome(session, name, -EINVAL, "no record");
    Record record;
    std::memcpy(&record, argument, sizeof record);
    const bool set = number == kSetParam;
    if (record.size != kRecordSize)
        return outcome(session, name, -EINVAL, "record size");
    if (record.target != (set ? kTargetModule : kTargetSlot))
        return outcome(session, name, -EINVAL, "target");
    if (record.payload == 0)
        return outcome(session, name, -EINVAL, "no payload");
    if (!set)
        return record.length == kSlotBytes ? slot(session, static_cast<uint32_t>(number), record)
                                           : outcome(session, name, -EINVAL, "length");
    if (record.length == kValueBytes)
        return set_value(session, record);
    if (record.length == kChunkBytes)
        return set_chunk(session, record);
    return outcome(session, name, -EINVAL, "length");
}

const DriverConfig *complete_config(Session &session, uint32_t param_id)
{
    return find(session.layout().driver.complete, param_id, false);
}

namespace
{
constexpr std::pair<uint32_t, std::string_view> kRequestNames[] = {
    {kSetParam, "set"}, {kStoreSlot, "store"}, {kFetchSlot, "fetch"}};
}

std::string request_name(uint32_t number)
{
    for (const auto &[value, name] : kRequestNames)
        if (value == number)
            return std::string(name);
    return hex(number);
}

std::optional<uint32_t> request_from_name(std::string_view name)
{
    for (const auto &[value, text] : kRequestNames)
        if (text == name)
            return value;
    return std::nullopt;
}

} // namespace tvox::sim::driver
