#include "calibration/context_fixture.h"

namespace
{

using tvox::sim::SpeakerFault;
using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::StreamCapture;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;
using tvox::test::write_file;

class FilesTest : public tvox::test::SimContextTest
{
  protected:
    std::string missing(const char *name) const { return sim_dir() + "/no-such-dir/" + name; }
};

TEST_F(FilesTest, BinaryBackEndsKeepWordsInHostOrderAndReportFailures)
{
    uint32_t values[2] = {8391, 0x01020304};
    EXPECT_EQ(tervox_default_fwrite(values, 2, bin_.c_str()), 0);
    EXPECT_EQ(tervox_default_fwrite(values, 1, bin_.c_str()), 0); // truncates
    EXPECT_EQ(read_file(bin_), words_bytes({8391}));

    // A file of one word fills word 0 only; both words are still logged.
    LogCapture log;
    values[1] = 2;
    EXPECT_EQ(tervox_default_fread(values, 2, bin_.c_str()), 0);
    EXPECT_EQ(values[1], 2u);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_INFO),
              (std::vector<std::string>{"CH[0] = 8391, file: " + bin_ + " \n",
                                        "CH[1] = 2, file: " + bin_ + " \n"}));

    const std::string lost = missing("x.bin");
    EXPECT_EQ(tervox_default_fwrite(values, 2, lost.c_str()), -1);
    // Nothing written is a failure that leaves an empty file, which reads as a failure.
    EXPECT_EQ(tervox_default_fwrite(values, 0, bin_.c_str()), -1);
    EXPECT_TRUE(log.contains("can't write CAL_R to persist slot!\n"));
    EXPECT_EQ(read_file(bin_), "");
    EXPECT_EQ(tervox_default_fread(values, 2, bin_.c_str()), -1);
    EXPECT_EQ(values[0], 8391u);
}

TEST_F(FilesTest, TextBackEndWritesOneLinePerChannel)
{
    uint32_t values[9] = {8391, 6500};
    EXPECT_EQ(tervox_ascii_fwrite(values, 2, txt_.c_str()), 0);
    EXPECT_EQ(read_file(txt_), "CH[0] T : 8391 (6.00)\nCH[1] B : 6500 (4.65)\n");
    values[0] = 0xFFFFFFFFu;
    EXPECT_EQ(tervox_ascii_fwrite(values, 1, txt_.c_str()), 0);
    EXPECT_EQ(read_file(txt_), "CH[0] T : -1 (3070828.22)\n");
    EXPECT_EQ(tervox_ascii_fwrite(values, 0, txt_.c_str()), 0);
    EXPECT_EQ(read_file(txt_), "");
    LogCapture log;
    EXPECT_EQ(tervox_ascii_fwrite(values, 2, missing("x.txt").c_str()), -1);
    EXPECT_TRUE(log.contains("can't open " + missing("x.txt") + " \n", "AHAL:TERVOX"));
    EXPECT_DEATH(tervox_ascii_fwrite(values, 9, txt_.c_str()), ""); // eight channel names
}

TEST_F(FilesTest, CalFwriteReportsTheTextWriteAndCalFreadMarksUncalibratedChannels)
{
    uint32_t values[2] = {8391, 8391};
    const std::string lost = missing("x.bin");
    ctx_.cal_bin_path = lost.c_str();
    EXPECT_EQ(tervox_cal_fwrite(values, 2), 0); // an unwritable binary file does not count
    EXPECT_TRUE(std::filesystem::exists(txt_));
    ctx_.cal_bin_path = bin_.c_str();

    const std::pair<std::vector<uint32_t>, int32_t> cases[] = {
        {{8391, 8391}, 0}, {{0, 8391}, 2}, {{8391, 0}, 4}, {{0, 0}, 8}};
    for (const auto &[words, expected] : cases) {
        write_file(bin_, words_bytes(words));
        EXPECT_EQ(tervox_cal_fread(values, 2), expected);
        EXPECT_EQ(values[1], words[1]);
    }
}

// The diagnostic and the stored-calibration report on the virtual amplifier pair.
class DiagnosticTest : public tvox::test::SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        ctx_.playback = settled_silence;
        set_speaker_raw(0, 8391, SpeakerFault::none, 800);
        set_speaker_raw(1, 7000, SpeakerFault::none, 790);
    }
    std::string report()
    {
        StreamCapture out(1);
        tervox_cal_fread_and_check();
        return out.text();
    }
};

// A diagnostic after the firmware calibrated: results read, judged, stored and applied.
TEST_F(DiagnosticTest, PassingChannelsAreStoredAndApplied)
{
    calibrate_amplifiers();
    // The impedance difference is the measurement less the CAL_R in use: one code below it here.
    preset_ints(0, "T DSP Set CAL_R", {8392});
    LogCapture log;
    EXPECT_EQ(tervox_cal_run_diagnostic(), 0);
    EXPECT_EQ(ctx_.cal[0].f0, 800u);
    EXPECT_EQ(static_cast<int32_t>(ctx_.cal[0].z_low_diff), -1);
    EXPECT_EQ(ctx_.cal[0].checksum, 8392u);
    // The F0 file receives the CAL_R words, as the calibration files do.
    EXPECT_EQ(read_file(f0_), words_bytes({8391, 7000}));
    EXPECT_EQ(read_file(bin_), words_bytes({8391, 7000}));
    EXPECT_EQ(value("B DSP Set CAL_R"), 7000);
    EXPECT_TRUE(log.contains("tervox_cal_diagnostic: Channel[1] CAL_R = 7000, F0 = 790\n"));
    EXPECT_EQ(tervox_cal_run_diagnostic_test(), 0);
}

TEST_F(DiagnosticTest, FailuresStoreNothingOrOnlyTheF0File)
{
    set_speaker_raw(0, 8391, SpeakerFault::open);
    EXPECT_EQ(tervox_cal_diagnostic(), 2);
    EXPECT_FALSE(std::filesystem::exists(f0_));
    EXPECT_FALSE(std::filesystem::exists(bin_));

    // F0 passes but a calibration failed: only the F0 file is written.
    set_speaker_raw(0, 8391);
    set_speaker_raw(1, 7000, SpeakerFault::calibration_failure);
    calibrate_amplifiers();
    EXPECT_EQ(tervox_cal_diagnostic(), 4);
    EXPECT_EQ(read_file(f0_), words_bytes({8391, 7000}));
    EXPECT_FALSE(std::filesystem::exists(bin_));
    EXPECT_EQ(value("B DSP Set CAL_R"), 8391);
}

TEST_F(DiagnosticTest, NoChannelsPassAndAFifthChannelEndsTheProcess)
{
    ctx_.num_channels = 0;
    EXPECT_EQ(tervox_cal_diagnostic(), 0);
    EXPECT_EQ(read_file(f0_), "");
    ctx_.num_channels = 5;
    for (int ch = 2; ch < 5; ++ch)
        ctx_.prot_ctls[ch] = ctx_.prot_ctls[0];
    EXPECT_DEATH(tervox_cal_diagnostic(), "");
}

// Stored, DSP and kernel values side by side; a missing file or mixer shows as zeros.
TEST_F(DiagnosticTest, ReportOfStoredDspAndKernelValues)
{
    const std::string header = "'CHANNEL'     'FS'     'AMP DSP'  'KERNEL'\n";
    write_file(bin_, words_bytes({8391, 7000}));
    write_file(f0_, words_bytes({800, 790}));
    preset_ints(0, "T DSP Set CAL_R", {9000});
    preset_ints(0, "B DSP Set CAL_R", {0x1000000});
    // The DSP column reads the kernel's integer as a big-endian 25-bit DSP word.
    EXPECT_EQ(report(), header + "CH[0]: 6.00( 8391) -  2293760 -     9000\n"
                                 "CH[1]: 5.00( 7000) -        1 - 16777216\n");
    ctx_.diag_mode = 1;
    const std::string text = report();
    EXPECT_EQ(text.substr(text.find("\n\n") + 2),
              "F0 CH[0]:  800 - '" + f0_ + "'\nF0 CH[1]:  790 - '" + f0_ + "'\n");

    std::filesystem::remove(bin_);
    hide_mixer();
    LogCapture log;
    ctx_.diag_mode = 0;
    EXPECT_EQ(report(), header + "CH[0]: 0.00(    0) -        0 -        0\n"
                                 "CH[1]: 0.00(    0) -        0 -        0\n");
    EXPECT_TRUE(log.contains("mixer_test_read_cal_values: Failed to open mixer\n"));
    ctx_.num_channels = 3;
    ctx_.set_ctls[2] = ctx_.set_ctls[0];
    EXPECT_DEATH(report(), ""); // two rows at most
}

} // namespace
