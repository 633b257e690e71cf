// The synchronous sequence, the run state machine around a quick diagnostic, apply, and the tool.
#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

namespace
{

using tvox::sim::SpeakerFault;
using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::words_bytes;

std::atomic<int> g_playbacks{0};

int32_t counting_playback(struct tervox *)
{
    ++g_playbacks;
    return 0;
}

class RunTest : public tvox::test::SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        g_playbacks = 0;
        ctx_.playback = counting_playback;
        set_speaker_raw(0, 9000);
        set_speaker_raw(1, 7000);
    }
    static tvox::test::CommandResult run_tool(const std::string &arguments)
    {
        return run_command(std::string(TVOXSP_TOOL_PATH) + " " + arguments);
    }
};

// The synchronous sequence relies on the firmware having calibrated already.
TEST_F(RunTest, SynchronousCalibrationReadsChecksStoresAndApplies)
{
    calibrate_amplifiers();
    preset_ints(0, "T AMP Enable Switch", {1});
    EXPECT_EQ(tervox_cal_calibration(), 0);
    EXPECT_EQ(g_playbacks, 1);
    EXPECT_EQ(ctx_.cal[0].status, 1u);
    EXPECT_EQ(ctx_.cal[0].checksum, 9001u);
    EXPECT_EQ(ctx_.cal[1].cal_r, 7000);
    EXPECT_EQ(read_file(bin_), words_bytes({9000, 7000}));
    EXPECT_TRUE(std::filesystem::exists(txt_));
    EXPECT_EQ(value("T DSP Set CAL_R"), 9000);
    EXPECT_EQ(value("B DSP Set CAL_R"), 7000);
    EXPECT_EQ(value("T AMP Enable Switch"), 0); // switched off before the measurement was read
    EXPECT_EQ(enum_item(0, "B PCM Source"), "Zero");
}

TEST_F(RunTest, SynchronousCalibrationNeedsAPlaybackAndIdleAmplifiers)
{
    LogCapture log;
    ctx_.playback = nullptr; // nothing to measure with
    ctx_.cal[0].cal_r = 1;
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("No dummy playbcak api, error!\n", "AHAL:TERVOX"));
    EXPECT_EQ(ctx_.cal[0].cal_r, 1);

    // A playing amplifier stops it before anything is switched or played.
    ctx_.playback = counting_playback;
    record_silence(std::chrono::seconds(0));
    tvox::apply_path(tvox::amp_on_dsp_path);
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("tervox_cal_calibration: AMP is active, abort calibration!\n"));
    EXPECT_EQ(ctx_.cal_ok, 0);
    EXPECT_EQ(value("T AMP Enable Switch"), 1);
    EXPECT_EQ(g_playbacks, 0);
    // So does a mixer that does not open.
    hide_mixer();
    ctx_.cal_ok = 1;
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("tervox_amp_is_active: Failed to open mixer\n"));
    EXPECT_EQ(ctx_.cal_ok, 0);
    EXPECT_EQ(g_playbacks, 0);
}

TEST_F(RunTest, MissingReadBackControlsReadAsTheReaderPreset)
{
    const char *names[TERVOX_NUM_CTLS] = {};
    names[CTL_CAL_STATUS] = "B No Such CAL_STATUS";
    names[CTL_CAL_R] = "B DSP Get CAL_R";
    names[CTL_CAL_CHECKSUM] = "B No Such CAL_CHECKSUM";
    names[CTL_CAL_AMBIENT] = "B No Such CAL_AMBIENT";
    ctx_.get_ctls[1] = names;
    // Nothing calibrated yet: channel 0 reports status 0 and the CAL_R in use.
    EXPECT_EQ(tervox_cal_calibration(), 8);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[1].status), -5636096);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[1].checksum), -5636096);
    EXPECT_EQ(ctx_.cal[1].cal_r, 8391);
    ctx_.num_channels = 0; // the reader walks on past the eighth channel
    EXPECT_DEATH(tervox_cal_calibration(), "");
}

TEST_F(RunTest, ApplyWritesEveryChannelAndReportsTheLast)
{
    LogCapture log;
    uint32_t values[2] = {static_cast<uint32_t>(-5), 7100};
    // A refused channel is logged and skipped; only the last channel decides the result.
    EXPECT_EQ(tervox_cal_apply(values, 2), 0);
    EXPECT_TRUE(log.contains("tervox_cal_apply: Channel[0] CAL_R = -5\n"));
    EXPECT_TRUE(log.contains("Channel[0] CAL_R = -5, Applying failed!\n"));
    EXPECT_EQ(value("T DSP Set CAL_R"), 8391);
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

TEST_F(RunTest, ExitHookSwitchesTheAmplifiersOff)
{
    preset_ints(0, "B AMP Enable Switch", {1});
    preset_enum(0, "T PCM Source", "DSP");
    EXPECT_EQ(tervox_calib_exit(), 0);
    EXPECT_EQ(value("B AMP Enable Switch"), 0);
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero");
}

// The tvoxsp tool, run as a user runs it (its environment reaches the virtual card).
TEST_F(RunTest, ToolReportsAndRefusesBadCommandLines)
{
    const auto help = run_tool("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("report [--f0]"), std::string::npos);
    const std::pair<const char *, const char *> usage_errors[] = {
        {"", "usage: tvoxsp <command>"},
        {"calibrat", "unknown command 'calibrat'"},
        {"report --f1", "usage: tvoxsp report [--f0]"}};
    for (const auto &[arguments, message] : usage_errors) {
        const auto result = run_tool(arguments);
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_NE(result.output.find(message), std::string::npos) << result.output;
    }
    preset_ints(0, "T DSP Set CAL_R", {8500});
    const auto report = run_tool("report --f0");
    EXPECT_EQ(report.status, 0);
    EXPECT_NE(report.output.find("-     8500\n"), std::string::npos);
    EXPECT_NE(report.output.find("F0 CH[1]:"), std::string::npos);
}

} // namespace
