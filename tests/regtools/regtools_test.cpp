// Register tools, the live protection log, the register monitor and the DSP switches on the
// virtual amplifier pair.
#include "calibration/context_fixture.h"
#include "support/capture.h"
#include "tvoxsp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <functional>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using tvox::test::StreamCapture;

// Every sleep the library asks for, and what the test does in its place: the loops are observed
// and ended from here, never timed.
std::vector<timespec> g_sleeps;
std::function<void(size_t)> g_during_sleep;

} // namespace

// The sampling loops sleep in ppoll (a descriptor wakes them when SIGINT lands on another thread).
extern "C" int ppoll(pollfd *, nfds_t, const timespec *request, const sigset_t *)
{
    g_sleeps.push_back(*request);
    if (g_during_sleep)
        g_during_sleep(g_sleeps.size());
    return 0;
}

namespace
{

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    return lines;
}

class RegToolsTest : public tvox::test::SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        g_sleeps.clear();
        g_during_sleep = nullptr;
        clear_journal();
    }

    uint32_t reg(unsigned channel, uint32_t address)
    {
        tvox::sim::Session session = state().lock();
        return session.reg(channel, address);
    }
    void set_reg(unsigned channel, uint32_t address, uint32_t value)
    {
        tvox::sim::Session session = state().lock();
        session.set_reg(channel, address, value);
    }

    // The command blocks that reached channel `letter`'s mailbox, as the journal shows them.
    std::vector<std::string> mailbox(const std::string &letter)
    {
        const std::string prefix = "ctl 0 \"" + letter + " AMP WR Registers\" = ";
        std::vector<std::string> blocks;
        for (const std::string &line : journal_lines())
            if (line.starts_with(prefix))
                blocks.push_back(line.substr(prefix.size()));
        return blocks;
    }

    // A live log run with standard output, error and the log file captured.
    struct Run {
        int32_t result;
        std::string out, err;
        std::vector<std::string> file;
    };
    Run rtlog(int32_t interval_ms)
    {
        Run run{};
        {
            StreamCapture out(1), err(2);
            run.result = tervox_prot_rtlog(interval_ms);
            run.out = out.text();
            run.err = err.text();
        }
        run.file = lines_of(tvox::test::read_file(phone("/sdcard/Download/rtlog.txt")));
        return run;
    }

    // Ends the sampling after `samples` samples: SIGINT during that sleep.
    static void interrupt_after(size_t samples)
    {
        g_during_sleep = [samples](size_t n) {
            if (n == samples)
                std::raise(SIGINT);
        };
    }

    // Makes the "cd" log controls refuse writes: another firmware is selected on the top DSP.
    void select_other_firmware() { preset_enum(0, "T DSP1 Firmware", "Calibration"); }

    // The text of channel `label` in a sample line: its seven columns, the last one Y or N.
    static std::string channel_text(const std::string &line, const std::string &label)
    {
        const size_t at = line.find(" " + label + ": ");
        if (at == std::string::npos)
            return "";
        const size_t start = at + label.size() + 3;
        const size_t flag = std::min(line.find(", Y  ", start), line.find(", N  ", start));
        return flag == std::string::npos ? "" : line.substr(start, flag + 3 - start);
    }

    // The log block a channel delivers: big-endian words.
    void preset_log_block(const std::string &letter, const std::vector<uint32_t> &words)
    {
        std::vector<uint8_t> bytes;
        for (uint32_t word : words)
            for (int shift = 24; shift >= 0; shift -= 8)
                bytes.push_back(static_cast<uint8_t>(word >> shift));
        preset_bytes(0, letter + " DSP1 Protection 5f210 RTLOG_DATA", bytes);
    }
};

TEST_F(RegToolsTest, WriteAndReadGoThroughEveryMailboxAndPrintTheReadBack)
{
    StreamCapture err(2);
    EXPECT_EQ(tervox_log_reg_write(0x2020, 8), 0);
    for (const std::string letter : {"T", "B"})
        EXPECT_EQ(mailbox(letter),
                  (std::vector<std::string>{"00 00 01 80 00 00 20 20 00 00 00 08",
                                            "00 00 01 81 00 00 20 20 00 00 00 00"}))
            << letter;
    EXPECT_EQ(reg(0, 0x2020), 8u);
    EXPECT_EQ(reg(1, 0x2020), 8u);

    // A read prints each channel's value and writes nothing.
    set_reg(0, 0xFFFFFFFF, 0xDEADBEEF);
    set_reg(1, 0xFFFFFFFF, 1);
    clear_journal();
    EXPECT_EQ(tervox_log_reg_read(0xFFFFFFFF), 0);
    EXPECT_EQ(err.text(), "write : 0x2020 -- T: 0x00000008, B: 0x00000008,  \n"
                          "read : 0xffffffff -- T: 0xdeadbeef, B: 0x00000001,  \n");
    EXPECT_EQ(mailbox("T"), (std::vector<std::string>{"00 00 01 81 ff ff ff ff 00 00 00 00"}));
    EXPECT_EQ(mailbox("B").size(), 1u);
}

TEST_F(RegToolsTest, UpdateBitsWritesOnlyWhenTheRegisterChanges)
{
    struct Case {
        uint32_t old, mask, value, expected;
        bool writes;
    };
    for (const Case &c : {Case{0x0F, 0xF0, 0x3C, 0x3F, true}, Case{0x3F, 0x30, 0x30, 0x3F, false},
                          Case{0x12, 0, 0xFF, 0x12, false}, Case{0xFF, 0x0F, 0, 0xF0, true}}) {
        set_reg(0, 0x10, c.old);
        set_reg(1, 0x10, c.old);
        clear_journal();
        StreamCapture err(2);
        EXPECT_EQ(tervox_log_reg_update_bits(0x10, c.mask, c.value), 0);
        char line[80];
        std::snprintf(line, sizeof line, "update bits : 0x10 -- T: 0x%08x, B: 0x%08x,  \n",
                      c.expected, c.expected);
        EXPECT_EQ(err.text(), line);
        for (unsigned channel : {0u, 1u}) {
            EXPECT_EQ(reg(channel, 0x10), c.expected);
            const std::vector<std::string> blocks = mailbox(channel == 0 ? "T" : "B");
            EXPECT_EQ(blocks.size(), c.writes ? 3u : 2u) << "old " << c.old << " mask " << c.mask;
        }
    }
}

TEST_F(RegToolsTest, ResultLineFollowsTheChannelsAndCutsLongLabels)
{
    set_reg(0, 0x20, 0x12345678);
    set_reg(1, 0x20, 0xABCDEF01);
    struct Case {
        int32_t channels;
        const char *top_label;
        const char *line;
        size_t blocks_b;
    };
    for (const Case &c : {Case{2, "SPK", "read : 0x20 -- SPK: 0x12345678B: 0xabcdef01,  \n", 1},
                          Case{1, "T", "read : 0x20 -- T: 0x12345678,  \n", 0},
                          Case{0, "T", "read : 0x20 --  \n", 0}}) {
        ctx_.num_channels = c.channels;
        ctx_.channel_name[0] = c.top_label;
        clear_journal();
        StreamCapture err(2);
        EXPECT_EQ(tervox_log_reg_read(0x20), 0);
        EXPECT_EQ(err.text(), c.line);
        EXPECT_EQ(mailbox("B").size(), c.blocks_b);
    }
}

TEST_F(RegToolsTest, ToolsReportAMissingMixerAndSendNothing)
{
    hide_mixer();
    StreamCapture err(2);
    EXPECT_EQ(tervox_log_reg_write(0x2020, 8), 1);
    EXPECT_EQ(tervox_log_reg_read(0x2020), 1);
    EXPECT_EQ(tervox_log_reg_update_bits(0x2020, 8, 8), 1);
    EXPECT_EQ(err.text(), "tervox_log_reg_write: can't open mixer\n"
                          "tervox_log_reg_read: can't open mixer\n"
                          "tervox_log_reg_update_bits: can't open mixer\n");
    EXPECT_TRUE(journal_lines().empty());
}

TEST_F(RegToolsTest, AThirdChannelEndsTheProcess)
{
    ctx_.num_channels = 3;
    ctx_.set_ctls[2] = ctx_.set_ctls[0];
    ctx_.channel_name[2] = "X";
    install_phone();
    EXPECT_DEATH(tervox_log_reg_write(0x2020, 8), "");
    EXPECT_DEATH(tervox_log_reg_read(0x2020), "");
    EXPECT_DEATH(tervox_log_reg_update_bits(0x2020, 8, 8), "");
    EXPECT_DEATH(tervox_prot_rtlog(1), "");
}

TEST_F(RegToolsTest, LogSamplesUntilSigintDuringTheSleepThenStopsForGood)
{
    install_phone();
    interrupt_after(2);
    const Run run = rtlog(1500);
    EXPECT_EQ(run.result, 0);
    ASSERT_EQ(g_sleeps.size(), 2u);
    EXPECT_EQ(g_sleeps[0].tv_sec, 1);
    EXPECT_EQ(g_sleeps[0].tv_nsec, 500'000'000);

    EXPECT_EQ(run.err, "update bits : 0x2020 -- T: 0x00000008, B: 0x00000008,  \n"
                       "update bits : 0x2018 -- T: 0x00000400, B: 0x00000400,  \n");
    const std::vector<std::string> out = lines_of(run.out);
    ASSERT_EQ(out.size(), 5u) << run.out;
    EXPECT_EQ(out[0], "rtlog enter");
    EXPECT_EQ(out[3], "shutdown");
    EXPECT_EQ(out[4], "rtlog exit - OK");
    // Two samples, the same in the file; silence on a cold speaker.
    ASSERT_EQ(run.file.size(), 2u);
    for (const std::string &line : run.file) {
        EXPECT_EQ(line.substr(23), "   T: 25.00, 25.00, 0.0000, 0.0000, 100, 100, N   B: 25.00, "
                                   "25.00, 0.0000, 0.0000, 100, 100, N  ");
        EXPECT_NE(run.out.find(line + "\n"), std::string::npos);
    }
    EXPECT_EQ(bytes(0, "T DSP1 Protection cd RTLOG_ENABLE"), (std::vector<uint8_t>{0, 0, 0, 0}));

    // SIGINT has been handled: later runs switch the log on and straight off again.
    g_sleeps.clear();
    clear_journal();
    const Run again = rtlog(1);
    EXPECT_EQ(again.result, 0);
    EXPECT_TRUE(again.file.empty());
    EXPECT_TRUE(g_sleeps.empty());
    EXPECT_TRUE(again.out.ends_with("rtlog exit - OK\n"));
    EXPECT_EQ(card0_journal().front(), "ctl 0 \"T AMP WR Registers\" = 00 00 01 81 00 00 20 20 "
                                       "00 00 00 00")
        << "setup path first (journaled as tlv), then the register bits";
    StreamCapture monitor_out(1);
    EXPECT_EQ(tervox_regs_monitor(nullptr, 0, 1), 0);
    EXPECT_EQ(monitor_out.text(), "monitor registers exit - OK\n");
    EXPECT_TRUE(g_sleeps.empty());
}

TEST_F(RegToolsTest, LogDecodesSignedWordsAndKeepsMaximaFromZero)
{
    install_phone();
    // From the second sample on the top log is not fed: it delivers the blocks the test leaves.
    g_during_sleep = [this](size_t n) {
        set_reg(0, 0x2020, 0);
        if (n == 1)
            preset_log_block("T", {0, 0x00800000, 0, 0xFF7FFFFF, 0, 0x00080000, 0, 0x00400000});
        else if (n == 2)
            preset_log_block("T", {0, 0x00004000, 0, 0x00FFFFFF, 0, 0, 0, 0x00C00000});
        else
            std::raise(SIGINT);
    };
    const Run run = rtlog(0);
    ASSERT_EQ(run.file.size(), 3u);
    EXPECT_EQ(g_sleeps[0].tv_sec, 1);
    EXPECT_EQ(g_sleeps[0].tv_nsec, 0);
    EXPECT_EQ(channel_text(run.file[0], "T"), "25.00, 25.00, 0.0000, 0.0000, 100, 100, N");
    // Bit 23 is the sign, the top byte is ignored: -8388608 and 8388607.
    EXPECT_EQ(channel_text(run.file[1], "T"), "-512.00, 25.00, 16.5000, 16.5000, 100, 100, N");
    EXPECT_EQ(channel_text(run.file[2], "T"), "1.00, 25.00, -0.5000, 16.5000, 100, 100, N");
    EXPECT_EQ(channel_text(run.file[2], "B"), "25.00, 25.00, 0.0000, 0.0000, 100, 100, N");
}

TEST_F(RegToolsTest, NegativeReadingsLeaveTheMaximaAtZero)
{
    install_phone();
    // A full register file refuses every new register: the top log is never fed and keeps
    // delivering the block left in it, and the temperature register reads 0.
    for (uint32_t address = 0x100000; address < 0x100000 + tvox::sim::kMaxRegisters; ++address)
        set_reg(0, address, 0);
    preset_log_block("T", {0, 0x00FFFFFF, 0, 0x00080000, 0, 0x00F80000, 0, 0x00800000});
    interrupt_after(2);
    const Run run = rtlog(7);
    EXPECT_EQ(g_sleeps[0].tv_sec, 0);
    EXPECT_EQ(g_sleeps[0].tv_nsec, 7'000'000);
    ASSERT_EQ(run.file.size(), 2u);
    for (const std::string &line : run.file)
        EXPECT_EQ(channel_text(line, "T"), "-0.00, 0.00, -2.0000, 0.0000,   0,   0, N");
    EXPECT_EQ(run.err.find("T: 0x00000008"), std::string::npos);
}

TEST_F(RegToolsTest, AnActiveChangeSetsTheFeedBitsOfThatChannelOnly)
{
    install_phone();
    g_during_sleep = [this](size_t n) {
        if (n == 1) {
            for (unsigned channel : {0u, 1u}) {
                set_reg(channel, 0x2020, 0x1);
                set_reg(channel, 0x2018, 0);
            }
            preset_ints(0, "B AMP Active Status", {1});
            return;
        }
        std::raise(SIGINT);
    };
    const Run run = rtlog(1);
    ASSERT_EQ(run.file.size(), 2u);
    EXPECT_TRUE(channel_text(run.file[1], "B").ends_with(", Y"));
    EXPECT_TRUE(channel_text(run.file[1], "T").ends_with(", N"));
    EXPECT_EQ(reg(1, 0x2020), 0x9u);
    EXPECT_EQ(reg(1, 0x2018), 0x400u);
    EXPECT_EQ(reg(0, 0x2020), 0x1u);
    EXPECT_EQ(reg(0, 0x2018), 0u);
    // Nothing of the re-assertion is printed.
    EXPECT_EQ(lines_of(run.err).size(), 2u);
}

TEST_F(RegToolsTest, FailingPathsEndTheRunWithFailed)
{
    install_phone();
    // The setup path is refused: no sample.
    select_other_firmware();
    Run run = rtlog(1);
    EXPECT_TRUE(run.file.empty());

    // The state clear of the second sample is refused: logging stays on.
    preset_enum(0, "T DSP1 Firmware", "Protection");
    g_during_sleep = [this](size_t) { select_other_firmware(); };
    run = rtlog(1);
    EXPECT_EQ(run.file.size(), 1u);
    EXPECT_TRUE(run.out.ends_with("rtlog exit - Failed\n"));
    EXPECT_EQ(bytes(0, "B DSP1 Protection cd RTLOG_ENABLE"), (std::vector<uint8_t>{0, 0, 0, 1}));

    // The stop path is refused after SIGINT.
    preset_enum(0, "T DSP1 Firmware", "Protection");
    g_during_sleep = [this](size_t) {
        select_other_firmware();
        std::raise(SIGINT);
    };
    run = rtlog(1);
    EXPECT_EQ(run.file.size(), 1u);
    EXPECT_TRUE(run.out.ends_with("shutdown\nrtlog exit - Failed\n"));
    EXPECT_NE(ctx_.rtlog[0].data, nullptr) << "a failed stop keeps the buffers";

    // After that SIGINT the next run stops at once, and cleanly.
    g_during_sleep = nullptr;
    preset_enum(0, "T DSP1 Firmware", "Protection");
    run = rtlog(1);
    EXPECT_TRUE(run.file.empty());
    EXPECT_TRUE(run.out.ends_with("rtlog exit - OK\n"));
    EXPECT_EQ(ctx_.rtlog[0].data, nullptr);
}

TEST_F(RegToolsTest, LogWithoutItsFileNeverStarts)
{
    // No phone folder: the log file cannot be opened.
    const Run run = rtlog(1);
    EXPECT_EQ(run.result, -1);
    EXPECT_EQ(run.err, "can't open /sdcard/Download/rtlog.txt \n");
    EXPECT_EQ(run.out, "rtlog enter\n");
    EXPECT_TRUE(g_sleeps.empty());
}

TEST_F(RegToolsTest, MonitorReadsEveryRegisterEachPass)
{
    set_reg(0, 0x10, 5);
    const uint32_t regs[] = {0x10, 0x20};
    interrupt_after(2);
    StreamCapture out(1);
    StreamCapture err(2);
    EXPECT_EQ(tervox_regs_monitor(regs, 2, -3), 0);
    EXPECT_EQ(out.text(), "shutdown\nmonitor registers exit - OK\n");
    const std::string pass = "read : 0x10 -- T: 0x00000005, B: 0x00000000,  \n"
                             "read : 0x20 -- T: 0x00000000, B: 0x00000000,  \n";
    EXPECT_EQ(err.text(), pass + pass);
    ASSERT_EQ(g_sleeps.size(), 2u);
    EXPECT_EQ(g_sleeps[1].tv_sec, 1);
}

TEST_F(RegToolsTest, MonitorExitWordIsTheLastReadsResult)
{
    hide_mixer();
    const uint32_t regs[] = {0x10};
    interrupt_after(1);
    StreamCapture out(1);
    EXPECT_EQ(tervox_regs_monitor(regs, 1, 250), 0);
    EXPECT_EQ(out.text(), "shutdown\nmonitor registers exit - Failed\n");
    EXPECT_EQ(g_sleeps[0].tv_nsec, 250'000'000);
}

// Graph playback installs its handler while the monitor runs: the SIGINT it catches ends the
// monitor too, and keeps the playback handler's own effect (later SIGINTs are ignored).
TEST_F(RegToolsTest, PlaybacksHandlerEndsTheMonitorToo)
{
    g_during_sleep = [](size_t n) {
        if (n == 1) {
            std::signal(SIGINT, stream_close);
            std::raise(SIGINT);
        } else {
            ADD_FAILURE() << "the monitor slept on after the SIGINT";
            sig_handler(SIGINT);
        }
    };
    StreamCapture out(1);
    EXPECT_EQ(tervox_regs_monitor(nullptr, 0, 1), 0);
    EXPECT_EQ(out.text(), "shutdown\nmonitor registers exit - OK\n");
    struct sigaction action {
    };
    sigaction(SIGINT, nullptr, &action);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
}

// Both handlers leave errno as the interrupted code had it, also when their own calls fail
// (standard output closed; a signal that cannot be ignored).
TEST_F(RegToolsTest, HandlersKeepErrno)
{
    const int out = dup(1);
    close(1);
    errno = EDOM;
    sig_handler(SIGINT);
    const int after_sampling = errno;
    errno = ERANGE;
    stream_close(SIGKILL);
    const int after_playback = errno;
    dup2(out, 1);
    close(out);
    EXPECT_EQ(after_sampling, EDOM);
    EXPECT_EQ(after_playback, ERANGE);
}

TEST_F(RegToolsTest, InfoListsTheChannelLabels)
{
    StreamCapture out(1);
    EXPECT_EQ(tervox_show_info(), 0);
    EXPECT_EQ(out.text(), "Show Info:\n--------------------------\nAMPs Desc: \nT, B, \n\n");
    ctx_.num_channels = 9;
    EXPECT_DEATH(tervox_show_info(), "");
}

TEST_F(RegToolsTest, BypassSwitchesTheNamedAmplifiers)
{
    struct Case {
        const char *name;
        int32_t bypass;
        const char *top, *bottom;
        size_t printed;
    };
    for (const Case &c : {Case{"T", 1, "ASPRX1", "DSP", 1}, Case{"X", 0, "DSP", "DSP", 0},
                          Case{"", 1, "ASPRX1", "ASPRX1", 2}, Case{nullptr, 0, "DSP", "DSP", 0},
                          Case{"B", 1, "DSP", "ASPRX1", 1}}) {
        preset_enum(0, "T PCM Source", "DSP");
        preset_enum(0, "B PCM Source", "DSP");
        StreamCapture out(1);
        EXPECT_EQ(tervox_dsp_bypass(c.name, c.bypass), 0);
        EXPECT_EQ(enum_item(0, "T PCM Source"), c.top);
        EXPECT_EQ(enum_item(0, "B PCM Source"), c.bottom);
        const std::vector<std::string> printed = lines_of(out.text());
        EXPECT_EQ(printed.size(), c.printed);
        for (const std::string &line : printed)
            EXPECT_TRUE(line.ends_with(" PCM Source") && line.find(" =? ") != std::string::npos)
                << line;
    }
}

TEST_F(RegToolsTest, ReloadMutesAndBootStartsTheFirmware)
{
    EXPECT_EQ(tervox_reload_firmware(), 0);
    EXPECT_EQ(card0_journal(), journal_of({tvox::reload_off_path}));
    clear_journal();
    EXPECT_EQ(tervox_boot_loader(), 0);
    EXPECT_EQ(card0_journal(), journal_of({tvox::boot_firmware_path}));
}

TEST_F(RegToolsTest, SwapsExchangeTheDspBalanceOrGoThroughTheContextSlot)
{
    const std::vector<uint8_t> own{0, 0, 0, 0}, other{0, 40, 0, 0};
    LogCapture log;
    EXPECT_EQ(tervox_vesk_channel_swap(1), 0);
    EXPECT_EQ(bytes(0, "T DSP1 Protection 5f210 CH_BAL"), other);
    EXPECT_EQ(bytes(0, "B DSP1 Protection 5f210 CH_BAL"), own);
    EXPECT_EQ(tervox_vesk_channel_swap(0), 0);
    EXPECT_EQ(bytes(0, "T DSP1 Protection 5f210 CH_BAL"), own);
    EXPECT_EQ(bytes(0, "B DSP1 Protection 5f210 CH_BAL"), other);
    EXPECT_EQ(tvox::test::tervox_lines(log, ANDROID_LOG_DEBUG),
              (std::vector<std::string>{"tervox_vesk_channel_swap: swap = 1, val = 0",
                                        "tervox_vesk_channel_swap: swap = 0, val = 0"}));

    // The generic swap goes through the context's slot, with bit 0 of its argument.
    static int32_t argument = -1;
    ctx_.channel_swap = [](int32_t swap) {
        argument = swap;
        return 42;
    };
    EXPECT_EQ(tervox_channel_swap(3), 42);
    EXPECT_EQ(argument, 1);
    EXPECT_EQ(tervox_channel_swap(2), 42);
    EXPECT_EQ(argument, 0);
}

} // namespace
