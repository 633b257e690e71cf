#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using tvox::test::LogCapture;
using tvox::test::SimContextTest;
using tvox::test::StreamCapture;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;
using tvox::test::write_file;

using ReportTest = SimContextTest;

const std::string kHeader = "'CHANNEL'     'FS'     'AMP DSP'  'KERNEL'\n";

TEST_F(ReportTest, ShowsStoredDspAndKernelValuesSideBySide)
{
    write_file(bin_, words_bytes({8391, 7000}));
    write_file(f0_, words_bytes({800, 790}));
    preset_ints(0, "T DSP Set CAL_R", {9000});
    preset_ints(0, "B DSP Set CAL_R", {0x1000000});
    std::string text;
    {
        StreamCapture out(1);
        tervox_cal_fread_and_check();
        text = out.text();
    }
    // The DSP column reads the kernel's integer as a big-endian 25-bit DSP word.
    EXPECT_EQ(text, kHeader + "CH[0]: 6.00( 8391) -  2293760 -     9000\n"
                              "CH[1]: 5.00( 7000) -        1 - 16777216\n");

    ctx_.diag_mode = 1;
    {
        StreamCapture out(1);
        tervox_cal_fread_and_check();
        text = out.text();
    }
    EXPECT_EQ(text.substr(text.find("\n\n") + 2),
              "F0 CH[0]:  800 - '" + f0_ + "'\nF0 CH[1]:  790 - '" + f0_ + "'\n");
}

TEST_F(ReportTest, MissingFilesAndMixerShowAsZeros)
{
    LogCapture log;
    hide_mixer();
    std::string text;
    {
        StreamCapture out(1);
        tervox_cal_fread_and_check();
        text = out.text();
    }
    EXPECT_EQ(text, kHeader + "CH[0]: 0.00(    0) -        0 -        0\n"
                              "CH[1]: 0.00(    0) -        0 -        0\n");
    EXPECT_TRUE(log.contains("mixer_test_read_cal_values: Failed to open mixer\n"));
    // Outside diagnostic mode the F0 file is not even tried.
    EXPECT_EQ(log.contains("tervox_default_fread: can't open " + f0_ + ", errno=2 \n"), false);
    EXPECT_TRUE(log.contains("tervox_default_fread: can't open " + bin_ + ", errno=2 \n"));
}

TEST_F(ReportTest, AThirdRowEndsTheProcess)
{
    ctx_.num_channels = 3;
    ctx_.set_ctls[2] = ctx_.set_ctls[0];
    EXPECT_DEATH(tervox_cal_fread_and_check(), "");
}

} // namespace
