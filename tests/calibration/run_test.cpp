#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::SimContextTest;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;

std::atomic<int> g_playbacks{0};

int32_t counting_playback(struct tervox *)
{
    ++g_playbacks;
    return 0;
}

// Lines the DSP reader logged (debug priority), in order.
std::vector<std::string> dsp_reads(const LogCapture &log)
{
    std::vector<std::string> reads;
    for (const auto &text : tervox_lines(log, ANDROID_LOG_DEBUG))
        if (text.starts_with("tervox_dsp_tmixer_get: "))
            reads.push_back(text.substr(23));
    return reads;
}

class RunTest : public SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        g_playbacks = 0;
        ctx_.playback = counting_playback;
        preset_calibration("T", 1, 9000, 0x1234);
        preset_calibration("B", 3, 7000, 0x5678);
    }

    // What the DSPs report after measuring a channel.
    void preset_calibration(const std::string &channel, uint32_t status, int32_t cal_r,
                            uint32_t checksum)
    {
        preset_word(channel + " DSP Get CAL_STATUS", status);
        preset_word(channel + " DSP Get CAL_R", static_cast<uint32_t>(cal_r));
        preset_word(channel + " DSP1 Protection 5f210 CAL_CHECKSUM", checksum);
    }

    long value(const std::string &name) { return int_values(0, name).at(0); }
};

TEST_F(RunTest, SynchronousCalibrationReadsChecksStoresAndApplies)
{
    preset_ints(0, "T AMP Enable Switch", {1});
    preset_word("B DSP1 Protection 5f210 CAL_AMBIENT", 30);
    LogCapture log;
    EXPECT_EQ(tervox_cal_calibration(), 0);
    EXPECT_EQ(g_playbacks, 1);

    EXPECT_EQ(ctx_.cal[0].status, 1u);
    EXPECT_EQ(ctx_.cal[0].cal_r, 9000);
    EXPECT_EQ(ctx_.cal[0].checksum, 0x1234u);
    EXPECT_EQ(ctx_.cal[1].status, 3u);
    EXPECT_EQ(ctx_.cal[1].cal_r, 7000);
    EXPECT_EQ(ctx_.cal[1].checksum, 0x5678u);
    // Status, CAL_R and checksum per channel, then the last channel's ambient for the log.
    const std::vector<std::string> reads = {"ctl(T DSP Get CAL_STATUS) =      1\n",
                                            "ctl(T DSP Get CAL_R) =   2328\n",
                                            "ctl(T DSP1 Protection 5f210 CAL_CHECKSUM) =   1234\n",
                                            "ctl(B DSP Get CAL_STATUS) =      3\n",
                                            "ctl(B DSP Get CAL_R) =   1b58\n",
                                            "ctl(B DSP1 Protection 5f210 CAL_CHECKSUM) =   5678\n",
                                            "ctl(B DSP1 Protection 5f210 CAL_AMBIENT) =     1e\n"};
    EXPECT_EQ(dsp_reads(log), reads);
    EXPECT_TRUE(log.contains(
        "tervox_cal_calibration: Channel[1] : status[3], chksum[22136], calr[7000]\n"));

    EXPECT_EQ(read_file(bin_), words_bytes({9000, 7000}));
    EXPECT_EQ(read_file(txt_), "CH[0] T : 9000 (6.43)\nCH[1] B : 7000 (5.00)\n");
    EXPECT_EQ(value("T DSP Set CAL_R"), 9000);
    EXPECT_EQ(value("B DSP Set CAL_R"), 7000);
    EXPECT_TRUE(log.contains("tervox_cal_apply: Channel[1] CAL_R = 7000\n"));
    // The amplifiers were switched off before the measurement.
    EXPECT_EQ(value("T AMP Enable Switch"), 0);
    EXPECT_EQ(enum_item(0, "B PCM Source"), "Zero");
}

TEST_F(RunTest, SynchronousCalibrationStoresNothingWhenItFails)
{
    preset_calibration("B", 2, 7000, 0);
    EXPECT_EQ(tervox_cal_calibration(), 4);
    preset_calibration("B", 1, 6499, 0);
    EXPECT_EQ(tervox_cal_calibration(), 16);
    EXPECT_FALSE(std::filesystem::exists(bin_));
    EXPECT_FALSE(std::filesystem::exists(txt_));
    EXPECT_EQ(value("T DSP Set CAL_R"), 8391);
    EXPECT_EQ(ctx_.cal_ok, 1);

    // Without a playback there is nothing to measure.
    LogCapture log;
    ctx_.playback = nullptr;
    ctx_.cal[0].cal_r = 1;
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("No dummy playbcak api, error!\n", "AHAL:TERVOX"));
    EXPECT_EQ(ctx_.cal[0].cal_r, 1);

    // An active amplifier stops it before anything is switched or played.
    ctx_.playback = counting_playback;
    preset_ints(0, "B AMP Active Status", {1});
    preset_ints(0, "T AMP Enable Switch", {1});
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("tervox_cal_calibration: AMP is active, abort calibration!\n"));
    EXPECT_EQ(ctx_.cal_ok, 0);
    EXPECT_EQ(value("T AMP Enable Switch"), 1);
    EXPECT_EQ(g_playbacks, 2);
}

TEST_F(RunTest, AMissingReadBackControlReadsAsTheReaderPreset)
{
    const char *names[TERVOX_NUM_CTLS] = {};
    names[CTL_CAL_STATUS] = "B No Such CAL_STATUS";
    names[CTL_CAL_R] = "B DSP Get CAL_R";
    names[CTL_CAL_CHECKSUM] = "B No Such CAL_CHECKSUM";
    names[CTL_CAL_AMBIENT] = "B No Such CAL_AMBIENT";
    ctx_.get_ctls[1] = names;
    EXPECT_EQ(tervox_cal_calibration(), 4);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[1].status), -5636096);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[1].checksum), -5636096);
    EXPECT_EQ(ctx_.cal[1].cal_r, 7000);
}

TEST_F(RunTest, ReadingWithoutChannelsWalksPastTheLastChannel)
{
    ctx_.num_channels = 0;
    EXPECT_DEATH(tervox_cal_calibration(), "");
}

TEST_F(RunTest, ApplyWritesEveryChannelAndReportsTheLast)
{
    LogCapture log;
    uint32_t values[2] = {9000, 7000};
    EXPECT_EQ(tervox_cal_apply(values, 2), 0);
    EXPECT_EQ(value("T DSP Set CAL_R"), 9000);
    EXPECT_EQ(value("B DSP Set CAL_R"), 7000);
    EXPECT_TRUE(log.contains("tervox_cal_apply: Channel[0] CAL_R = 9000\n"));

    // A refused channel is logged and skipped; only the last channel decides the result.
    values[0] = static_cast<uint32_t>(-5);
    values[1] = 7100;
    EXPECT_EQ(tervox_cal_apply(values, 2), 0);
    EXPECT_TRUE(log.contains("Channel[0] CAL_R = -5, Applying failed!\n"));
    EXPECT_EQ(value("T DSP Set CAL_R"), 9000);
    EXPECT_EQ(value("B DSP Set CAL_R"), 7100);
    values[0] = 8000;
    values[1] = 0x800000;
    EXPECT_EQ(tervox_cal_apply(values, 2), 22);
    EXPECT_EQ(value("T DSP Set CAL_R"), 8000);
    EXPECT_EQ(tervox_cal_apply(values, 0), 0);

    hide_mixer();
    EXPECT_EQ(tervox_cal_apply(values, 2), -22);
    EXPECT_TRUE(log.contains("tervox_cal_apply: Failed to open mixer\n"));
}

TEST_F(RunTest, AMixerThatDoesNotOpenCountsAsActiveAmplifiers)
{
    hide_mixer();
    LogCapture log;
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("tervox_amp_is_active: Failed to open mixer\n"));
    EXPECT_EQ(g_playbacks, 0);
}

TEST_F(RunTest, CalibExitSwitchesBothAmplifiersOff)
{
    preset_ints(0, "T AMP Enable Switch", {1});
    preset_ints(0, "B AMP Enable Switch", {1});
    preset_enum(0, "T PCM Source", "DSP");
    EXPECT_EQ(tervox_calib_exit(), 0);
    EXPECT_EQ(value("T AMP Enable Switch"), 0);
    EXPECT_EQ(value("B AMP Enable Switch"), 0);
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero");
}

// The diagnostic makes a quick run: the state machine around it is the same as for a calibration.
class RunStateTest : public RunTest
{
  protected:
    void SetUp() override
    {
        RunTest::SetUp();
        ctx_.diag_mode = 1;
        for (const std::string channel : {"T", "B"}) {
            preset_word(channel + " Protection 5f210 DIAG_F0_STATUS", 2);
            preset_word(channel + " Protection 5f210 CAL_STATUS", 1);
            preset_word(channel + " Protection 5f210 CAL_R", 8391);
        }
    }
};

TEST_F(RunStateTest, RunRecordsTheOutcomeAndReturnsToIdle)
{
    LogCapture log;
    EXPECT_EQ(ctx_.run_calibration(), 0);
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(ctx_.cal_ok, 1);
    EXPECT_EQ(read_file(bin_), words_bytes({8391, 8391}));
    const auto info = tervox_lines(log, ANDROID_LOG_INFO);
    ASSERT_GE(info.size(), 3u);
    EXPECT_EQ(info[0], "tervox_cal_run_calibration: running...\n");
    EXPECT_EQ(info[1], "tervox_cal_run_calibration: count = 0\n");
    EXPECT_EQ(info[2], "tervox_cal_diagnostic: running...\n");
    EXPECT_EQ(info.back(), "tervox_cal_run_calibration: Tried 0 times, ret = 0, state = 0\n");

    // A failed run is recorded, and the amplifiers end switched off either way.
    preset_word("B Protection 5f210 DIAG_F0_STATUS", 0);
    clear_journal();
    log.clear();
    EXPECT_EQ(tervox_cal_run_calibration_test(), 4);
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(ctx_.cal_ok, 0);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_INFO).back(),
              "tervox_cal_run_calibration: Tried -1 times, ret = 4, state = 0\n");
    const auto journal = journal_lines();
    ASSERT_GE(journal.size(), 4u);
    EXPECT_EQ(std::vector<std::string>(journal.end() - 4, journal.end()),
              (std::vector<std::string>{
                  "ctl 0 \"T PCM Source\" = Zero", "ctl 0 \"T AMP Enable Switch\" = 0",
                  "ctl 0 \"B PCM Source\" = Zero", "ctl 0 \"B AMP Enable Switch\" = 0"}));
}

// Holds the playback of the first run until the test lets it go.
struct Gate {
    std::mutex lock;
    std::condition_variable changed;
    bool entered = false;
    bool open = false;
};
Gate *g_gate = nullptr;

int32_t gated_playback(struct tervox *)
{
    std::unique_lock lock(g_gate->lock);
    g_gate->entered = true;
    g_gate->changed.notify_all();
    g_gate->changed.wait(lock, [] { return g_gate->open; });
    return 0;
}

TEST_F(RunStateTest, ASecondRunWhileOneIsRunningIsRefused)
{
    Gate gate;
    g_gate = &gate;
    ctx_.playback = gated_playback;
    ctx_.cal_ok = 7; // the refused run leaves it alone
    auto first = std::async(std::launch::async, [] { return tervox_cal_run_calibration(); });
    {
        std::unique_lock lock(gate.lock);
        gate.changed.wait(lock, [&] { return gate.entered; });
    }
    LogCapture log;
    EXPECT_EQ(std::atomic_ref(ctx_.cal_state).load(), 1u);
    EXPECT_EQ(tervox_cal_run_calibration(), -1);
    EXPECT_EQ(std::atomic_ref(ctx_.cal_state).load(), 0u);
    EXPECT_EQ(std::atomic_ref(ctx_.cal_ok).load(), 7);
    EXPECT_EQ(
        tervox_lines(log, ANDROID_LOG_ERROR),
        std::vector<std::string>{"tervox_cal_run_calibration: calibration is already running!\n"});
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_INFO),
              std::vector<std::string>{
                  "tervox_cal_run_calibration: Tried 1 times, ret = -1, state = 0\n"});
    {
        std::lock_guard lock(gate.lock);
        gate.open = true;
    }
    gate.changed.notify_all();
    EXPECT_EQ(first.get(), 0);
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(ctx_.cal_ok, 1);
}

} // namespace
