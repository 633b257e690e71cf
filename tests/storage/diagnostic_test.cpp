#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::SimContextTest;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;

class CalDiagnosticTest : public SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        ctx_.playback = settled_silence;
        set_speaker(0, 8391, tvox::sim::SpeakerFault::none, 800);
        set_speaker(1, 7000, tvox::sim::SpeakerFault::none, 790);
    }
};

// A diagnostic after the firmware calibrated: results read, judged, stored and applied.
TEST_F(CalDiagnosticTest, PassingChannelsAreStoredAndApplied)
{
    calibrate_amplifiers();
    // The impedance difference is the measurement less the CAL_R in use: one code below it here.
    preset_ints(0, "T DSP Set CAL_R", {8392});
    preset_enum(0, "T PCM Source", "DSP");
    LogCapture log;
    EXPECT_EQ(tervox_cal_diagnostic(), 0);

    const tervox_cal_record top = ctx_.cal[0];
    const tervox_cal_record bottom = ctx_.cal[1];
    EXPECT_EQ(top.f0_status, 2u);
    EXPECT_EQ(top.f0, 800u);
    EXPECT_EQ(static_cast<int32_t>(top.z_low_diff), -1);
    EXPECT_EQ(top.status, 1u);
    EXPECT_EQ(top.cal_r, 8391);
    EXPECT_EQ(top.checksum, 8392u);
    EXPECT_EQ(bottom.f0, 790u);
    EXPECT_EQ(static_cast<int32_t>(bottom.z_low_diff), 7000 - 8391);
    EXPECT_EQ(bottom.checksum, 7001u);
    EXPECT_EQ(bottom.cal_r, 7000);

    // The F0 file receives the CAL_R words, as the calibration files do.
    EXPECT_EQ(read_file(f0_), words_bytes({8391, 7000}));
    EXPECT_EQ(read_file(bin_), words_bytes({8391, 7000}));
    EXPECT_EQ(read_file(txt_), "CH[0] T : 8391 (6.00)\nCH[1] B : 7000 (5.00)\n");
    EXPECT_EQ(int_values(0, "T DSP Set CAL_R").at(0), 8391);
    EXPECT_EQ(int_values(0, "B DSP Set CAL_R").at(0), 7000);
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero");

    const auto info = tervox_lines(log, ANDROID_LOG_INFO);
    ASSERT_GE(info.size(), 3u);
    EXPECT_EQ(info[0], "tervox_cal_diagnostic: running...\n");
    EXPECT_EQ(info[1], "tervox_cal_diagnostic: Channel[0] CAL_R = 8391, F0 = 800\n");
    EXPECT_EQ(info[2], "tervox_cal_diagnostic: Channel[1] CAL_R = 7000, F0 = 790\n");
    // Read in the firmware's order: F0 status, F0, impedance, status, CAL_R, checksum.
    std::vector<std::string> reads;
    for (const auto &text : tervox_lines(log, ANDROID_LOG_DEBUG))
        if (text.starts_with("tervox_dsp_tmixer_get: ctl(T Protection 5f210 "))
            reads.push_back(text.substr(46, text.find(')') - 46));
    EXPECT_EQ(reads, (std::vector<std::string>{"DIAG_F0_STATUS", "DIAG_F0", "DIAG_Z_LOW_DIFF",
                                               "CAL_STATUS", "CAL_R", "CAL_CHECKSUM"}));

    EXPECT_EQ(tervox_cal_run_diagnostic(), 0);
    EXPECT_EQ(tervox_cal_run_diagnostic_test(), 0);
}

TEST_F(CalDiagnosticTest, FailingF0WritesNothing)
{
    LogCapture log;
    set_speaker(1, 7000, tvox::sim::SpeakerFault::f0_failure);
    EXPECT_EQ(tervox_cal_diagnostic(), 4);
    EXPECT_EQ(ctx_.cal[1].f0_status, 1u);
    EXPECT_TRUE(log.contains(
        "tervox_cal_diag_check:channel[1] f0 = " + std::to_string(ctx_.cal[1].f0) + ", Failed!\n"));
    set_speaker(0, 8391, tvox::sim::SpeakerFault::open);
    EXPECT_EQ(tervox_cal_diagnostic(), 8);
    EXPECT_FALSE(std::filesystem::exists(f0_));
    EXPECT_FALSE(std::filesystem::exists(bin_));
    EXPECT_EQ(int_values(0, "B DSP Set CAL_R").at(0), 8391);
}

// F0 passes but a calibration failed: only the F0 file is written.
TEST_F(CalDiagnosticTest, FailingCalibrationCheckKeepsOnlyTheF0File)
{
    set_speaker(1, 7000, tvox::sim::SpeakerFault::calibration_failure);
    calibrate_amplifiers();
    EXPECT_EQ(tervox_cal_diagnostic(), 4);
    EXPECT_EQ(ctx_.cal[1].f0_status, 2u);
    EXPECT_EQ(ctx_.cal[1].status, 4u);
    EXPECT_EQ(read_file(f0_), words_bytes({8391, 7000}));
    EXPECT_FALSE(std::filesystem::exists(bin_));
    EXPECT_FALSE(std::filesystem::exists(txt_));
    EXPECT_EQ(int_values(0, "B DSP Set CAL_R").at(0), 8391);
}

TEST_F(CalDiagnosticTest, MissingPlaybackOrControlsFail)
{
    LogCapture log;
    ctx_.playback = nullptr;
    ctx_.cal[0].f0 = 55;
    EXPECT_EQ(tervox_cal_diagnostic(), -1);
    EXPECT_TRUE(log.contains("No dummy playbcak api, error!\n"));
    EXPECT_EQ(ctx_.cal[0].f0, 55u);

    ctx_.playback = settled_silence;
    const char *names[TERVOX_NUM_CTLS] = {};
    ctx_.prot_ctls[1] = names;
    names[CTL_DIAG_F0_STATUS] = "B No Such DIAG_F0_STATUS";
    names[CTL_DIAG_F0] = "B Protection 5f210 DIAG_F0";
    names[CTL_DIAG_Z_LOW_DIFF] = "B Protection 5f210 DIAG_Z_LOW_DIFF";
    names[CTL_CAL_STATUS] = "B Protection 5f210 CAL_STATUS";
    names[CTL_CAL_R] = "B Protection 5f210 CAL_R";
    names[CTL_CAL_CHECKSUM] = "B Protection 5f210 CAL_CHECKSUM";
    // A missing control reads as the reader's preset, which is no passing status.
    EXPECT_EQ(tervox_cal_diagnostic(), 4);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[1].f0_status), -5636096);
    EXPECT_EQ(ctx_.cal[1].f0, 790u);
}

TEST_F(CalDiagnosticTest, NoChannelsReadNothingAndPass)
{
    ctx_.num_channels = 0;
    EXPECT_EQ(tervox_cal_diagnostic(), 0);
    EXPECT_EQ(read_file(f0_), "");
    EXPECT_EQ(read_file(txt_), "");
}

TEST_F(CalDiagnosticTest, AFifthChannelEndsTheProcess)
{
    ctx_.num_channels = 5;
    const char *names[TERVOX_NUM_CTLS] = {};
    for (int id = 0; id < TERVOX_NUM_CTLS; ++id)
        names[id] = ctx_.prot_ctls[0][id];
    for (int ch = 1; ch < 5; ++ch)
        ctx_.prot_ctls[ch] = names;
    EXPECT_DEATH(tervox_cal_diagnostic(), "");
}

} // namespace
