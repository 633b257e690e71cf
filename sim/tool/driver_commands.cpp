// The virtual speaker-protection driver: what the module holds (switch, configurations decoded
// into their tuning blocks), the calibration slot, faults and the driver's journal lines.
#include "command.h"
#include "driver.h"
#include "state.h"

#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace tvox::sim::tool
{

namespace
{

constexpr std::string_view kUsage =
    "[module | config [PARAM] | slot [CAL_R_T CAL_R_B] | journal | "
    "fault none|absent|ioctl set|store|fetch [--param ID]|chunk N [--errno E]]";
constexpr size_t kWordsPerLine = 10;

int usage(std::string_view message)
{
    return usage_error("driver", message);
}

// The CRC the module checks, computed by zlib: independent of the library's own.
uint32_t zlib_crc(std::span<const uint32_t> words)
{
    uLong crc = ::crc32(0, nullptr, 0);
    for (uint32_t word : words) {
        const unsigned char bytes[4] = {
            static_cast<unsigned char>(word), static_cast<unsigned char>(word >> 8),
            static_cast<unsigned char>(word >> 16), static_cast<unsigned char>(word >> 24)};
        crc = ::crc32(crc, bytes, sizeof bytes);
    }
    return static_cast<uint32_t>(crc);
}

void print_words(std::span<const uint32_t> words)
{
    for (size_t i = 0; i < words.size(); ++i)
        std::printf("%s%u%s", i % kWordsPerLine == 0 ? "      " : " ", words[i],
                    i % kWordsPerLine == kWordsPerLine - 1 || i + 1 == words.size() ? "\n" : "");
}

const char *form(const DriverConfig &config)
{
    switch (config.header_words) {
    case 0:
        return "value";
    case 6:
        return "delta";
    default:
        return "extended";
    }
}

// A configuration is a run of tuning blocks {N, payload..., CRC}; each is judged as the module
// judges it.
void print_config(const DriverConfig &config)
{
    const std::span<const uint32_t> words(config.words, config.received_bytes / 4);
    if (config.header_words == 0) {
        std::printf("param 0x%X: value %u\n", config.param_id, words[0]);
        return;
    }
    std::printf("param 0x%X: %s configuration, %zu words in %u chunks\n", config.param_id,
                form(config), words.size(), config.chunks);
    for (size_t at = 0, index = 0; at < words.size(); ++index) {
        const uint32_t size = words[at];
        if (size < 2 || size > words.size() - at) {
            std::printf("  words %zu-%zu: no block (size word %u)\n", at, words.size() - 1, size);
            print_words(words.subspan(at));
            return;
        }
        const std::span<const uint32_t> block = words.subspan(at, size);
        const uint32_t computed = zlib_crc(block.first(size - 1));
        std::printf("  block %zu at word %zu: size %u, %u payload words, CRC 0x%08X, computed "
                    "0x%08X: %s\n",
                    index, at, size, size - 2, block.back(), computed,
                    computed == block.back() ? "ok" : "CRC MISMATCH");
        print_words(block.subspan(1, size - 2));
        at += size;
    }
}

void print_module(const DriverState &driver)
{
    if (driver.enable_writes == 0)
        std::printf("module: never switched\n");
    else
        std::printf("module: %s (%u switch writes)\n", driver.enabled ? "on" : "off",
                    driver.enable_writes);
    std::printf("delta closings: %u, last value %u\n", driver.delta_done, driver.delta_done_value);
    std::printf("requests: %llu\n", static_cast<unsigned long long>(driver.requests));
    for (const DriverConfig &config : driver.complete)
        if (config.used)
            std::printf("param 0x%X: %s, %u words\n", config.param_id, form(config),
                        config.received_bytes / 4);
}

void print_slot(const DriverState &driver)
{
    if (!driver.slot_stored) {
        std::printf("slot: empty\n");
        return;
    }
    const char *names[] = {"T", "B"};
    for (size_t channel = 0; channel < 2; ++channel) {
        const uint32_t *entry = driver.slot + channel * 3;
        std::printf("slot %s: CAL_R %u (valid %u, check %u)\n", names[channel], entry[2], entry[0],
                    entry[1]);
    }
}

void print_faults(const DriverFaults &faults)
{
    const int err = faults.fail_errno > 0 ? faults.fail_errno : EIO;
    bool any = false;
    if (faults.absent) {
        std::printf("fault: device absent\n");
        any = true;
    }
    if (faults.fail_request) {
        std::printf("fault: %s requests", driver::request_name(faults.fail_request).c_str());
        if (faults.fail_param)
            std::printf(" for param 0x%X", faults.fail_param);
        std::printf(" fail with errno %d\n", err);
        any = true;
    }
    if (faults.fail_chunk) {
        std::printf("fault: chunk %u of every transfer fails with errno %d\n", faults.fail_chunk,
                    err);
        any = true;
    }
    if (!any)
        std::printf("faults: none\n");
}

int config_command(DriverState &driver, std::span<char *const> args)
{
    if (args.size() > 1)
        return usage("config takes at most one parameter id");
    const std::optional<uint32_t> param = args.empty() ? std::nullopt : number(args[0]);
    if (!args.empty() && !param)
        return usage(std::string("not a parameter id: ") + args[0]);
    bool shown = false;
    for (const DriverConfig &config : driver.complete) {
        if (!config.used || (param && config.param_id != *param))
            continue;
        print_config(config);
        shown = true;
    }
    if (!shown)
        std::printf("no configuration received\n");
    return 0;
}

int slot_command(DriverState &driver, std::span<char *const> args)
{
    if (args.empty()) {
        print_slot(driver);
        return 0;
    }
    if (args.size() != 2)
        return usage("slot takes CAL_R_T and CAL_R_B");
    for (size_t channel = 0; channel < 2; ++channel) {
        const std::optional<uint32_t> cal_r = number(args[channel]);
        if (!cal_r || *cal_r == UINT32_MAX)
            return usage(std::string("not a CAL_R value: ") + args[channel]);
        driver.slot[channel * 3] = 1;
        driver.slot[channel * 3 + 1] = *cal_r + 1;
        driver.slot[channel * 3 + 2] = *cal_r;
    }
    driver.slot_stored = 1;
    print_slot(driver);
    return 0;
}

int fault_command(DriverFaults &faults, std::span<char *const> args)
{
    if (args.empty()) {
        print_faults(faults);
        return 0;
    }
    const std::string_view kind = args[0];
    DriverFaults changed = faults;
    size_t next = 1;
    if (kind == "none") {
        changed = DriverFaults{};
    } else if (kind == "absent") {
        changed.absent = 1;
    } else if (kind == "ioctl") {
        const std::optional<uint32_t> request =
            args.size() > 1 ? driver::request_from_name(args[1]) : std::nullopt;
        if (!request)
            return usage("ioctl takes set, store or fetch");
        changed.fail_request = *request;
        changed.fail_param = 0;
        next = 2;
    } else if (kind == "chunk") {
        if (args.size() < 2 || number(args[1]).value_or(0) == 0)
            return usage("chunk takes a chunk number above 0");
        changed.fail_chunk = *number(args[1]);
        next = 2;
    } else {
        return usage("unknown fault: " + std::string(kind));
    }
    for (; next < args.size(); next += 2) {
        const std::string_view option = args[next];
        if (option != "--param" && option != "--errno")
            return usage("unexpected argument: " + std::string(option));
        const uint32_t value = next + 1 < args.size() ? number(args[next + 1]).value_or(0) : 0;
        if (option == "--param" && value > 0)
            changed.fail_param = value;
        else if (option == "--errno" && value > 0 && value < 4096)
            changed.fail_errno = static_cast<int32_t>(value);
        else
            return usage("bad value of " + std::string(option));
    }
    faults = changed;
    print_faults(faults);
    return 0;
}

int driver_command(std::span<char *const> args)
{
    const std::string_view sub = args.empty() ? "module" : args[0];
    const std::span<char *const> rest = args.empty() ? args : args.subspan(1);
    if (sub != "module" && sub != "journal" && sub != "config" && sub != "slot" && sub != "fault")
        return usage("unknown subcommand: " + std::string(sub));
    if ((sub == "module" || sub == "journal") && !rest.empty())
        return usage(std::string(sub) + " takes no arguments");
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    if (sub == "journal") {
        for (const std::string &line : state->journal_lines())
            if (line.rfind("driver ", 0) == 0)
                std::printf("%s\n", line.c_str());
        return 0;
    }
    Session session = state->lock();
    DriverState &driver = session.layout().driver;
    if (sub == "config")
        return config_command(driver, rest);
    if (sub == "slot")
        return slot_command(driver, rest);
    if (sub == "fault")
        return fault_command(driver.faults, rest);
    print_module(driver);
    print_slot(driver);
    print_faults(driver.faults);
    return 0;
}

const Registration registration{{"driver", kUsage,
                                 "the virtual speaker-protection driver: module state, received "
                                 "configurations, calibration slot, journal, faults",
                                 driver_command, "--param= --errno="}};

} // namespace

} // namespace tvox::sim::tool
