// Transfers, tuning loads, switches and calibration slots through the exported interface, as the
// virtual driver receives them (its shared state and journal), and the tools beside them.
#include "driver.h"
#include "state.h"
#include "support/capture.h"
#include "support/sim_fixture.h"
#include "tvoxsp.h"
#include "zlib_oracle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace
{

using tvox::test::LogCapture;

constexpr uint32_t kRxConfig = 0xA1AF05;
constexpr uint32_t kDelta = 0xA1AF0D;
constexpr uint32_t kDeltaDone = 0xA1AF0E;
constexpr uint32_t kParams = 0xA1AF0F;
constexpr uint32_t kEnable = 0x10002001;
constexpr const char *kSwap = "Tervox SP Channel Swap";
const std::string kGoodBlock = "5,100,200,300,4292077319\n";
const std::vector<uint32_t> kGoodWords = {5, 100, 200, 300, 0xFFD3E707};

std::string hex(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%X", value);
    return text;
}

std::string chunk_line(uint32_t param, size_t total_words, size_t data_words, bool last,
                       std::string_view outcome = "ok")
{
    return "driver set " + hex(param) + " chunk total " + std::to_string(total_words * 4) +
           " data " + std::to_string(data_words * 4) + " last " + (last ? "1" : "0") + " -> " +
           std::string(outcome);
}

std::string value_line(uint32_t param, uint32_t value)
{
    return "driver set " + hex(param) + " value " + std::to_string(value) + " -> ok";
}

// What the driver journals for a transfer of `words`: full chunks of 90 words, the final chunk
// (empty when the words fill the full ones), and for a delta its closing value.
std::vector<std::string> transfer_lines(uint32_t param, size_t words)
{
    std::vector<std::string> lines(words / 90, chunk_line(param, words, 90, false));
    lines.push_back(chunk_line(param, words, words % 90, true));
    if (param == kDelta)
        lines.push_back(value_line(kDeltaDone, 0));
    return lines;
}

// A tuning file of sealed blocks of these sizes (at least 2 words each): its text and its words.
std::pair<std::string, std::vector<uint32_t>> file_of(const std::vector<size_t> &sizes)
{
    std::pair<std::string, std::vector<uint32_t>> file;
    uint32_t next = 1000;
    for (size_t size : sizes) {
        std::vector<uint32_t> block{static_cast<uint32_t>(size)};
        while (block.size() < size - 1)
            block.push_back(next++);
        block.push_back(tvox::test::zlib_crc(block));
        for (uint32_t word : block)
            file.first += std::to_string(word) + ",";
        file.first.back() = '\n';
        file.second.insert(file.second.end(), block.begin(), block.end());
    }
    return file;
}

// The final chunk of a transfer of `words` as sent: its header (five words, six for a delta),
// then its own words and behind them what the previous chunk of the transfer left.
std::vector<uint32_t> final_chunk(const std::vector<uint32_t> &words, bool delta)
{
    std::vector<uint32_t> chunk = {static_cast<uint32_t>(words.size() * 4),
                                   static_cast<uint32_t>(words.size() % 90 * 4), 1, 0};
    if (delta)
        chunk.push_back(0);
    chunk.push_back(4);
    const size_t full_chunks = words.size() / 90;
    for (size_t i = 0; i < 90; ++i) {
        const size_t own = full_chunks * 90 + i;
        const size_t stale = full_chunks > 0 ? (full_chunks - 1) * 90 + i : words.size();
        chunk.push_back(own < words.size() ? words[own] : stale < words.size() ? words[stale] : 0);
    }
    return chunk;
}

class DriverTest : public tvox::test::SimTest
{
  protected:
    void TearDown() override
    {
        DEVICE_FILE_NAME = "/dev/msm_tervox_playback";
        SimTest::TearDown();
    }

    // The requests that reached the driver (set, store, fetch), in order.
    std::vector<std::string> requests()
    {
        std::vector<std::string> lines;
        for (const std::string &line : journal_lines())
            if (line.rfind("driver ", 0) == 0 && line.rfind("driver open", 0) != 0 &&
                line != "driver close")
                lines.push_back(line);
        return lines;
    }

    std::optional<std::vector<uint32_t>> config(uint32_t param)
    {
        tvox::sim::Session session = state().lock();
        const tvox::sim::DriverConfig *config = tvox::sim::driver::complete_config(session, param);
        if (!config)
            return std::nullopt;
        return std::vector<uint32_t>(config->words, config->words + config->received_bytes / 4);
    }

    std::vector<uint32_t> last_chunk(size_t words)
    {
        tvox::sim::Session session = state().lock();
        const uint32_t *chunk = session.layout().driver.last_chunk;
        return std::vector<uint32_t>(chunk, chunk + words);
    }

    uint32_t module_enabled() { return state().lock().layout().driver.enabled; }
    std::vector<uint32_t> slot()
    {
        tvox::sim::Session session = state().lock();
        const auto &slot = session.layout().driver.slot;
        return {std::begin(slot), std::end(slot)};
    }

    std::string tuning_file(const std::string &text) { return folder_file("tuning.txt", text); }

    void fault(const std::string &arguments)
    {
        ASSERT_EQ(tool("driver fault " + arguments).status, 0) << arguments;
    }

    static tvox::test::CommandResult tvoxsp(const std::string &arguments)
    {
        return run_command(std::string(TVOXSP_TOOL_PATH) + " " + arguments);
    }
};

// Every loader checks each block's size and CRC before anything goes out; the delta loader closes
// the transfer whatever it found.
TEST_F(DriverTest, LoadersSendOnlyFilesWhoseBlocksAllCheck)
{
    const std::string left = "QORA_CONFIG_RX_LEFT " + kGoodBlock;
    const std::string right = "QORA_CONFIG_RX_RIGHT 3,7,1987764275\n";
    const std::vector<uint32_t> small = {3, 7, 0x767AE033};
    std::vector<uint32_t> both = kGoodWords;
    both.insert(both.end(), small.begin(), small.end());
    const auto [one_chunk, one_chunk_words] = file_of({90});
    const auto [two_chunks, two_chunks_words] = file_of({90, 91});
    const auto [long_line, long_block] = file_of({20000});
    enum Loader { rx, delta, params };
    struct Case {
        Loader loader;
        std::string text;
        std::optional<std::vector<uint32_t>> sent; // nothing: rejected with -1, no block sent
        std::string log;
    };
    const Case cases[] = {
        {rx, left, kGoodWords, "CRC: calc = -2889977, match = -2889977\n"},
        {rx, left + right, both, "tvox_tuning_raw_parser: delta size: 3\n"},
        {rx, "\tQORA_CONFIG_RX_LEFT\t5,100,200,300,-2889977\n", kGoodWords, ""},
        {rx, left + "QORA_CONFIG_RX_RIGHT 3,7,1\n", std::nullopt, "CRC Failed on delta_buf[1]!\n"},
        {rx, left + "no marker here\n", kGoodWords, ""},
        {rx, "", std::vector<uint32_t>{}, ""},
        {rx, right + left, std::vector<uint32_t>{}, ""},
        {rx, "QORA_CONFIG_RX_LEFT=5,100,200,300,4292077319\n", std::nullopt,
         "CRC Failed on delta_buf[0]!\n"},
        {delta, kGoodBlock, kGoodWords, "CRC: calc = -2889977, match = -2889977\n"},
        {delta, "5,100,200,300,1\n", std::nullopt, "CRC Failed on delta_buf[0]!\n"},
        {delta, kGoodBlock + "5,100,200,300,1\n", std::nullopt, "CRC Failed on delta_buf[1]!\n"},
        {delta, "", std::vector<uint32_t>{}, ""},
        // Full chunks of 90 words, the final one empty when the words fill them.
        {delta, one_chunk, one_chunk_words, ""},
        {delta, two_chunks, two_chunks_words, ""},
        {params, "", std::vector<uint32_t>{}, ""},
        {params, one_chunk, one_chunk_words, ""},
        {params, two_chunks, two_chunks_words, ""},
        // Untrusted sizes and tokens stay inside their line.
        {params, "1000000,1,2\n", std::nullopt, "CRC Failed on delta_buf[0]!\n"},
        {params, "6,100,200,300,4292077319\n", std::nullopt, "CRC Failed on delta_buf[0]!\n"},
        {params, "0\n", std::nullopt, "CRC Failed on delta_buf[0]!\n"},
        {params, "-5,1,2\n", std::nullopt, "CRC Failed on delta_buf[0]!\n"},
        {params, "\n", std::nullopt, "CRC Failed on delta_buf[0]!\n"},
        {params, "3,7,1987764275,99,98\n", small, ""}, // tokens past the block are ignored
        {params, "3,7,1987764275,\n", small, ""},      // a trailing comma fills the spare word
        {params, "  +3, 7x,1987764275\n", small, ""},  // strtol's reading of each token
        {params, long_line, long_block, ""},           // read whole
    };
    constexpr uint32_t kParam[] = {kRxConfig, kDelta, kParams};
    constexpr int32_t (*kLoad[])(const char *) = {tervox_qdsp_load_tuning, tervox_qdsp_delta_tuning,
                                                  tervox_qdsp_set_params};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        clear_journal();
        LogCapture log;
        EXPECT_EQ(kLoad[c.loader](tuning_file(c.text).c_str()), c.sent ? 0 : -1);
        const uint32_t param = kParam[c.loader];
        if (c.sent) {
            EXPECT_EQ(requests(), transfer_lines(param, c.sent->size()));
            EXPECT_EQ(config(param), c.sent);
            EXPECT_EQ(last_chunk(c.loader == delta ? 96 : 95),
                      final_chunk(*c.sent, c.loader == delta));
        } else {
            EXPECT_EQ(requests(), c.loader == delta ? std::vector{value_line(kDeltaDone, 0)}
                                                    : std::vector<std::string>{});
        }
        if (!c.log.empty()) {
            EXPECT_TRUE(log.contains(c.log, "AHAL: tervox_qdsp"));
        }
    }
    // The good delta as the module got it: the six-word header, then the block.
    ASSERT_EQ(tervox_qdsp_delta_tuning(tuning_file(kGoodBlock).c_str()), 0);
    EXPECT_EQ(last_chunk(11),
              (std::vector<uint32_t>{20, 20, 1, 0, 0, 4, 5, 100, 200, 300, 0xFFD3E707}));

    // Files that do not open, and what opens but is no regular file, send nothing.
    clear_journal();
    for (auto load : kLoad) {
        for (const std::string &path : {std::string("/no/such/tuning.txt"), sim_dir()}) {
            LogCapture log;
            EXPECT_EQ(load(path.c_str()), -1) << path;
            EXPECT_TRUE(log.contains("Cannot open file - '" + path + "'\n", "AHAL: tervox_qdsp"));
        }
    }
    EXPECT_TRUE(requests().empty());
}

// A file that cannot be read to its end is refused like one that does not open: part of it
// would leave the module half tuned. strace fails the second read of the file in the tool's
// process, after its first lines were read (LeakSanitizer cannot run under ptrace).
TEST_F(DriverTest, FileThatCannotBeReadWholeSendsNothing)
{
    const std::string strace = "ASAN_OPTIONS=detect_leaks=0 strace -qq -o /dev/null ";
    if (run_command(strace + "true").status != 0)
        GTEST_SKIP() << "strace cannot trace processes here";
    const auto [blocks, blocks_words] = file_of(std::vector<size_t>(60, 90));
    const auto [left, left_words] = file_of({3000});
    // Both receive blocks: the tool refuses a left block alone before reading further.
    const std::string rx = folder_file("rx.txt", "QORA_CONFIG_RX_LEFT " + left +
                                                     "QORA_CONFIG_RX_RIGHT 3,7,1987764275\n");
    std::vector<uint32_t> rx_words = left_words;
    rx_words.insert(rx_words.end(), {3, 7, 0x767AE033});
    const std::string lines = folder_file("lines.txt", blocks);
    const std::pair<std::string, std::string> loads[] = {
        {"load", rx}, {"delta", lines}, {"params", lines}, {"check", lines}};
    for (const auto &[action, path] : loads) {
        clear_journal();
        const auto failed =
            run_command(strace + "-P " + path + " -e trace=read -e inject=read:error=EIO:when=2 " +
                        TVOXSP_TOOL_PATH + " tuning " + action + " " + path);
        EXPECT_EQ(failed.status, 1) << action << ": " << failed.output;
        EXPECT_TRUE(requests().empty()) << action;
    }
    // Read whole, the same files load.
    EXPECT_EQ(tvoxsp("tuning load " + rx).status, 0);
    EXPECT_EQ(config(kRxConfig), rx_words);
    EXPECT_EQ(tvoxsp("tuning delta " + lines).status, 0);
    EXPECT_EQ(config(kDelta), blocks_words);
}

TEST_F(DriverTest, ModuleSwitchAndChannelSwap)
{
    EXPECT_EQ(tervox_qdsp_enable(1), 0);
    EXPECT_EQ(module_enabled(), 1u);
    EXPECT_EQ(tervox_qdsp_enable(2), 0); // only bit 0 counts
    EXPECT_EQ(module_enabled(), 0u);
    EXPECT_EQ(requests(),
              (std::vector<std::string>{value_line(kEnable, 1), value_line(kEnable, 0)}));

    struct tervox ctx = {};
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(ctx.channel_swap, &tervox_qdsp_channel_swap);
    EXPECT_EQ(ctx.channel_swap(3), 0);
    EXPECT_EQ(enum_item(0, kSwap), "RL");
    EXPECT_EQ(tervox_qdsp_channel_swap(2), 0);
    EXPECT_EQ(enum_item(0, kSwap), "LR");
    for (int type : {0, 1}) {
        preset_enum(0, kSwap, "LR");
        EXPECT_EQ(tervox_qdsp_config_select(nullptr, type), 0);
        EXPECT_EQ(enum_item(0, kSwap), "RL") << type;
    }
    preset_enum(0, kSwap, "LR");
    LogCapture log;
    EXPECT_EQ(tervox_qdsp_config_select(nullptr, 2), 0);
    EXPECT_TRUE(log.contains("Invalid type = 2\n", "AHAL: tervox_qdsp"));
    EXPECT_EQ(enum_item(0, kSwap), "LR");

    setenv("TINYALSA_CARD_0", "tvoxsp_test_no_such_card", 1);
    EXPECT_EQ(tervox_qdsp_config_select(nullptr, 0), -22);
    EXPECT_TRUE(log.contains("tervox_qdsp_config_select: Failed to open mixer\n"));
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

TEST_F(DriverTest, SlotPayloadAndRoundTripAcrossProcesses)
{
    LogCapture log;
    uint32_t values[2] = {8391, 8392};
    EXPECT_EQ(tervox_cal_slot_write(values, 2), 0);
    EXPECT_EQ(slot(), (std::vector<uint32_t>{1, 8392, 8391, 1, 8393, 8392}));
    EXPECT_TRUE(log.contains("tervox_cal_slot_write:Channel[1] Store: CAL_R = 8392\n"));

    const auto read_back = tvoxsp("slot read");
    EXPECT_EQ(read_back.status, 0);
    EXPECT_EQ(read_back.output, "CAL_R T: 8391\nCAL_R B: 8392\n");

    ASSERT_EQ(tvoxsp("slot write 7000 0x2000").status, 0);
    log.clear();
    uint32_t read[2] = {};
    EXPECT_EQ(tervox_cal_slot_read(read, 1), 0); // count only bounds the log lines
    EXPECT_EQ(read[0], 7000u);
    EXPECT_EQ(read[1], 0x2000u);
    EXPECT_TRUE(log.contains("tervox_cal_slot_read:Channel[0] Read: CAL_R = 7000\n"));
    EXPECT_FALSE(log.contains("tervox_cal_slot_read:Channel[1] Read: CAL_R = 8192\n"));
}

TEST_F(DriverTest, TransfersFollowTheDeviceNameAndSurviveFailingRequests)
{
    fault("absent");
    EXPECT_EQ(tervox_qdsp_set_params(tuning_file(kGoodBlock).c_str()), 0);
    EXPECT_TRUE(requests().empty());

    // Transfers follow DEVICE_FILE_NAME at each call; the slots keep the fixed path.
    fault("none");
    LogCapture log;
    DEVICE_FILE_NAME = "/dev/tvox_elsewhere";
    EXPECT_EQ(tervox_qdsp_enable(1), 0);
    EXPECT_TRUE(log.contains("tervox_qdsp_single_transfer: Can't open '/dev/tvox_elsewhere' \n"));
    uint32_t values[2] = {5, 6};
    EXPECT_EQ(tervox_cal_slot_write(values, 2), 0);
    DEVICE_FILE_NAME = "/dev/msm_tervox_playback";
    EXPECT_EQ(tervox_qdsp_enable(1), 0);
    EXPECT_EQ(requests().size(), 2u);
    EXPECT_EQ(requests().back(), value_line(kEnable, 1));

    // A failing set is logged, and the delta is closed all the same.
    fault("ioctl set --param 0xA1AF0D --errno 5");
    clear_journal();
    EXPECT_EQ(tervox_qdsp_delta_tuning(tuning_file(kGoodBlock).c_str()), 0);
    EXPECT_EQ(requests(), (std::vector<std::string>{chunk_line(kDelta, 5, 5, true, "EIO (fault)"),
                                                    value_line(kDeltaDone, 0)}));

    // A failing chunk leaves a hole: the next chunks still go out, the module refuses the end.
    fault("none");
    fault("chunk 1 --errno 16");
    clear_journal();
    EXPECT_EQ(tervox_qdsp_set_params(tuning_file(file_of({90, 91}).first).c_str()), 0);
    EXPECT_EQ(requests(), (std::vector<std::string>{
                              chunk_line(kParams, 181, 90, false, "EBUSY (fault)"),
                              chunk_line(kParams, 181, 90, false),
                              chunk_line(kParams, 181, 1, true, "EINVAL (chunk order)")}));
    EXPECT_FALSE(config(kParams));
}

// Records and chunks as the driver decodes them, straight through its request entry.
TEST_F(DriverTest, MalformedRequestsAreRefused)
{
    constexpr unsigned long kSet = 0xC00861DC, kStore = 0xC00861DE, kFetch = 0xC00861DF;
    struct Record {
        uint32_t size, target, param, length;
        uint64_t payload;
    };
    struct Case {
        const char *what;
        unsigned long number;
        Record record;               // payload 1: the chunk below
        std::vector<uint32_t> chunk; // its first words, the rest zero
        int result;
    };
    const Case cases[] = {
        {"unknown request", 0xC00861DD, {24, 1, kEnable, 4, 1}, {}, -ENOTTY},
        {"record size", kSet, {20, 1, kEnable, 4, 1}, {}, -EINVAL},
        {"slot target on set", kSet, {24, 2, kEnable, 4, 1}, {}, -EINVAL},
        {"module target on store", kStore, {24, 1, 0, 24, 1}, {}, -EINVAL},
        {"set length", kSet, {24, 1, kEnable, 8, 1}, {}, -EINVAL},
        {"fetch length", kFetch, {24, 2, 0, 20, 1}, {}, -EINVAL},
        {"null payload", kSet, {24, 1, kEnable, 4, 0}, {}, -EINVAL},
        // Chunk headers: {total, data, last, 0, [0,] 4}, extended (5 words) or delta (6).
        {"constant", kSet, {24, 1, kParams, 384, 1}, {20, 20, 1, 0, 3}, -EINVAL},
        {"reserved word", kSet, {24, 1, kParams, 384, 1}, {20, 20, 1, 1, 4}, -EINVAL},
        {"last flag", kSet, {24, 1, kParams, 384, 1}, {20, 20, 2, 0, 4}, -EINVAL},
        {"short full chunk", kSet, {24, 1, kParams, 384, 1}, {720, 100, 0, 0, 4}, -EINVAL},
        {"full final chunk", kSet, {24, 1, kParams, 384, 1}, {360, 360, 1, 0, 4}, -EINVAL},
        {"final short of total", kSet, {24, 1, kParams, 384, 1}, {724, 4, 1, 0, 4}, -EINVAL},
        {"extended under delta", kSet, {24, 1, kDelta, 384, 1}, {20, 20, 1, 0, 4}, -EINVAL},
        {"delta header", kSet, {24, 1, kDelta, 384, 1}, {20, 20, 1, 0, 0, 4}, 0},
        {"single value", kSet, {24, 1, kEnable, 4, 1}, {1}, 0},
    };
    for (const Case &c : cases) {
        std::array<uint32_t, 96> chunk{};
        std::copy(c.chunk.begin(), c.chunk.end(), chunk.begin());
        Record record = c.record;
        if (record.payload)
            record.payload = reinterpret_cast<uintptr_t>(chunk.data());
        tvox::sim::Session session = state().lock();
        EXPECT_EQ(tvox::sim::driver::request(session, c.number, &record), c.result) << c.what;
    }
    tvox::sim::Session session = state().lock();
    EXPECT_EQ(tvox::sim::driver::request(session, kSet, nullptr), -EINVAL);
}

using DriverDeathTest = DriverTest;

TEST_F(DriverDeathTest, ConditionsThatEndTheProcess)
{
    std::string lines;
    for (int i = 0; i < 101; ++i)
        lines += kGoodBlock;
    const std::string too_many = tuning_file(lines);
    EXPECT_DEATH(tervox_qdsp_delta_tuning(too_many.c_str()), "");
    EXPECT_DEATH(tervox_qdsp_set_params(too_many.c_str()), "");
    const std::string third_line = folder_file(
        "rx.txt", "QORA_CONFIG_RX_LEFT " + kGoodBlock + "QORA_CONFIG_RX_RIGHT 3,7,1987764275\n\n");
    EXPECT_DEATH(tervox_qdsp_load_tuning(third_line.c_str()), "");
    const std::string overflow = folder_file("overflow.txt", "2147483647,1,2\n");
    EXPECT_DEATH(tervox_qdsp_delta_tuning(overflow.c_str()), "");
    uint32_t values[2] = {8391, 0xFFFFFFFF};
    EXPECT_DEATH(tervox_cal_slot_write(values, 2), "");

    // One line fewer is fine, and so are two receive lines without a third.
    lines.resize(lines.size() - kGoodBlock.size());
    EXPECT_EQ(tervox_qdsp_set_params(tuning_file(lines).c_str()), 0);
    EXPECT_EQ(config(kParams)->size(), 500u);
}

TEST_F(DriverTest, ToolsCheckSealLoadAndShowTheModule)
{
    const std::string bad = folder_file("bad.txt", "5,100,200,300,1\n1000,1,2\n 3, 7 ,99\n");
    auto checked = tvoxsp("tuning check " + bad);
    EXPECT_EQ(checked.status, 1);
    EXPECT_NE(checked.output.find("line 1: size 5, 3 payload words, CRC stored 0x00000001 "
                                  "computed 0xFFD3E707: CRC MISMATCH"),
              std::string::npos)
        << checked.output;
    EXPECT_NE(checked.output.find("line 2: size 1000: the line holds no block"), std::string::npos);

    const auto sealed = tvoxsp("tuning seal " + bad);
    ASSERT_EQ(sealed.status, 0);
    EXPECT_EQ(sealed.output, "5,100,200,300,4292077319\n3,1,1393672175\n 3,7,1987764275\n");
    const std::string good = folder_file("good.txt", sealed.output);
    EXPECT_EQ(tvoxsp("tuning check " + good).status, 0);
    EXPECT_EQ(tvoxsp("tuning delta " + good).status, 0);
    EXPECT_EQ(tvoxsp("tuning params " + bad).status, 1);
    EXPECT_EQ(tvoxsp("module on").status, 0);

    const auto shown = tool("driver config 0xA1AF0D");
    EXPECT_NE(shown.output.find("block 2 at word 8: size 3, 1 payload words, CRC 0x767AE033, "
                                "computed 0x767AE033: ok"),
              std::string::npos)
        << shown.output;
    const auto module = tool("driver");
    EXPECT_NE(module.output.find("module: on (1 switch writes)"), std::string::npos);
    EXPECT_NE(module.output.find("delta closings: 1, last value 0"), std::string::npos);
    EXPECT_EQ(tvoxsp("tuning frobnicate " + good).status, 2);
}

} // namespace
