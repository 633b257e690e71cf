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
        set_speaker(0, 9000);
        set_speaker(1, 7000);
    }

    long value(const std::string &name) { return int_values(0, name).at(0); }
};

// The synchronous sequence relies on the firmware having calibrated already.
TEST_F(RunTest, SynchronousCalibrationReadsChecksStoresAndApplies)
{
    calibrate_amplifiers();
    preset_ints(0, "T AMP Enable Switch", {1});
    LogCapture log;
    EXPECT_EQ(tervox_cal_calibration(), 0);
    EXPECT_EQ(g_playbacks, 1);

    EXPECT_EQ(ctx_.cal[0].status, 1u);
    EXPECT_EQ(ctx_.cal[0].cal_r, 9000);
    EXPECT_EQ(ctx_.cal[0].checksum, 9001u);
    EXPECT_EQ(ctx_.cal[1].status, 1u);
    EXPECT_EQ(ctx_.cal[1].cal_r, 7000);
    EXPECT_EQ(ctx_.cal[1].checksum, 7001u);
    // Status, CAL_R and checksum per channel, then the last channel's ambient for the log.
    const std::vector<std::string> reads = {"ctl(T DSP Get CAL_STATUS) =      1\n",
                                            "ctl(T DSP Get CAL_R) =   2328\n",
                                            "ctl(T DSP1 Protection 5f210 CAL_CHECKSUM) =   2329\n",
                                            "ctl(B DSP Get CAL_STATUS) =      1\n",
                                            "ctl(B DSP Get CAL_R) =   1b58\n",
                                            "ctl(B DSP1 Protection 5f210 CAL_CHECKSUM) =   1b59\n",
                                            "ctl(B DSP1 Protection 5f210 CAL_AMBIENT) =     1e\n"};
    EXPECT_EQ(dsp_reads(log), reads);
    EXPECT_TRUE(
        log.contains("tervox_cal_calibration: Channel[1] : status[1], chksum[7001], calr[7000]\n"));

    EXPECT_EQ(read_file(bin_), words_bytes({9000, 7000}));
    EXPECT_EQ(read_file(txt_), "CH[0] T : 9000 (6.43)\nCH[1] B : 7000 (5.00)\n");
    EXPECT_EQ(value("T DSP Set CAL_R"), 9000);
    EXPECT_EQ(value("B DSP Set CAL_R"), 7000);
    EXPECT_TRUE(log.contains("tervox_cal_apply: Channel[1] CAL_R = 7000\n"));
    // The amplifiers were switched off before the measurement was read.
    EXPECT_EQ(value("T AMP Enable Switch"), 0);
    EXPECT_EQ(enum_item(0, "B PCM Source"), "Zero");
}

TEST_F(RunTest, SynchronousCalibrationStoresNothingWhenItFails)
{
    set_speaker(1, 7000, tvox::sim::SpeakerFault::calibration_failure);
    calibrate_amplifiers();
    EXPECT_EQ(tervox_cal_calibration(), 4);
    EXPECT_EQ(ctx_.cal[1].status, 4u);
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

    // An amplifier that is playing stops it before anything is switched or played.
    ctx_.playback = counting_playback;
    record_silence(std::chrono::seconds(0));
    tvox::apply_path(tvox::amp_on_dsp_path);
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("tervox_cal_calibration: AMP is active, abort calibration!\n"));
    EXPECT_EQ(ctx_.cal_ok, 0);
    EXPECT_EQ(value("T AMP Enable Switch"), 1);
    EXPECT_EQ(g_playbacks, 1);
}

TEST_F(RunTest, AMissingReadBackControlReadsAsTheReaderPreset)
{
    const char *names[TERVOX_NUM_CTLS] = {};
    names[CTL_CAL_STATUS] = "B No Such CAL_STATUS";
    names[CTL_CAL_R] = "B DSP Get CAL_R";
    names[CTL_CAL_CHECKSUM] = "B No Such CAL_CHECKSUM";
    names[CTL_CAL_AMBIENT] = "B No Such CAL_AMBIENT";
    ctx_.get_ctls[1] = names;
    // Nothing calibrated yet: channel 0 reports status 0 and the CAL_R in use.
    EXPECT_EQ(tervox_cal_calibration(), 8);
    EXPECT_EQ(ctx_.cal[0].status, 0u);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[1].status), -5636096);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[1].checksum), -5636096);
    EXPECT_EQ(ctx_.cal[1].cal_r, 8391);
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
        ctx_.playback = settled_silence;
    }
};

TEST_F(RunStateTest, RunRecordsTheOutcomeAndReturnsToIdle)
{
    calibrate_amplifiers();
    LogCapture log;
    EXPECT_EQ(ctx_.run_calibration(), 0);
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(ctx_.cal_ok, 1);
    EXPECT_EQ(read_file(bin_), words_bytes({9000, 7000}));
    const auto info = tervox_lines(log, ANDROID_LOG_INFO);
    ASSERT_GE(info.size(), 3u);
    EXPECT_EQ(info[0], "tervox_cal_run_calibration: running...\n");
    EXPECT_EQ(info[1], "tervox_cal_run_calibration: count = 0\n");
    EXPECT_EQ(info[2], "tervox_cal_diagnostic: running...\n");
    EXPECT_EQ(info.back(), "tervox_cal_run_calibration: Tried 0 times, ret = 0, state = 0\n");

    // A failed run is recorded, and the amplifiers end switched off either way.
    set_speaker(1, 7000, tvox::sim::SpeakerFault::f0_failure);
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
    // Nothing played for the firmware: the first run fails on its own.
    EXPECT_EQ(first.get(), 8);
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(ctx_.cal_ok, 0);
}

} // namespace
