#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;
using tvox::test::write_file;

class FilesTest : public tvox::test::ContextTest
{
  protected:
    std::string missing(const char *name) const
    {
        return (folder_ / "no-such-dir" / name).string();
    }
};

TEST_F(FilesTest, BinaryBackEndsKeepWordsInHostOrderAndReportFailures)
{
    uint32_t values[2] = {8391, 0x01020304};
    EXPECT_EQ(tervox_default_fwrite(values, 2, bin_.c_str()), 0);
    EXPECT_EQ(read_file(bin_), words_bytes({8391, 0x01020304}));
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
    EXPECT_TRUE(log.contains("can't open " + lost + " \n", "AHAL:TERVOX"));
    EXPECT_EQ(tervox_default_fread(values, 2, lost.c_str()), -1);
    EXPECT_TRUE(log.contains("tervox_default_fread: can't open " + lost + ", errno=2 \n"));
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
    EXPECT_TRUE(std::filesystem::exists(txt_));
    EXPECT_EQ(read_file(txt_), "");
    LogCapture log;
    EXPECT_EQ(tervox_ascii_fwrite(values, 2, missing("x.txt").c_str()), -1);
    EXPECT_TRUE(log.contains("can't open " + missing("x.txt") + " \n"));
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
    ctx_.cal_txt_path = lost.c_str();
    EXPECT_EQ(tervox_cal_fwrite(values, 2), -1);
    EXPECT_EQ(read_file(bin_), words_bytes({8391, 8391}));

    const std::pair<std::vector<uint32_t>, int32_t> cases[] = {
        {{8391, 8391}, 0}, {{0, 8391}, 2}, {{8391, 0}, 4}, {{0, 0}, 8}};
    for (const auto &[words, expected] : cases) {
        write_file(bin_, words_bytes(words));
        EXPECT_EQ(tervox_cal_fread(values, 2), expected);
        EXPECT_EQ(values[1], words[1]);
    }
    write_file(bin_, "");
    EXPECT_EQ(tervox_cal_fread(values, 2), -1);
}

// Front-ends look the back-end and the path up in the active context at each call.
TEST_F(FilesTest, FrontEndsUseTheContextsBackEndsAndPaths)
{
    static std::vector<std::string> calls; // "path:count"
    static int32_t result = 0;
    calls.clear();
    const auto record = [](uint32_t *, size_t count, const char *path) -> int32_t {
        calls.push_back(std::string(path) + ":" + std::to_string(count));
        return result;
    };
    ctx_.fwrite_backend = record;
    ctx_.fread_backend = record;
    ctx_.txt_fwrite_backend = record;
    uint32_t values[2] = {11, 0};
    EXPECT_EQ(tervox_f0_fwrite(values, 2), 0);
    EXPECT_EQ(tervox_f0_fread(values, 1), 0);
    EXPECT_EQ(tervox_cal_fread(values, 2), 4);
    result = -1;
    EXPECT_EQ(tervox_f0_fread(values, 2), -1);
    EXPECT_EQ(tervox_cal_fread(values, 2), -1);
    EXPECT_EQ(tervox_cal_fwrite(values, 2), -1);
    EXPECT_EQ(calls, (std::vector<std::string>{f0_ + ":2", f0_ + ":1", bin_ + ":2", f0_ + ":2",
                                               bin_ + ":2", bin_ + ":2", txt_ + ":2"}));
}

} // namespace
