#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace
{

using tvox::test::ContextTest;
using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;
using tvox::test::write_file;

using FilesTest = ContextTest;

TEST_F(FilesTest, BinaryBackEndsWriteAndReadWordsInHostOrder)
{
    uint32_t values[2] = {8391, 0x01020304};
    EXPECT_EQ(tervox_default_fwrite(values, 2, bin_.c_str()), 0);
    EXPECT_EQ(read_file(bin_), words_bytes({8391, 0x01020304}));

    // An existing file is truncated.
    EXPECT_EQ(tervox_default_fwrite(values, 1, bin_.c_str()), 0);
    EXPECT_EQ(read_file(bin_), words_bytes({8391}));

    LogCapture log;
    write_file(bin_, words_bytes({7000, 9000}));
    uint32_t read[2] = {};
    EXPECT_EQ(tervox_default_fread(read, 2, bin_.c_str()), 0);
    EXPECT_EQ(read[0], 7000u);
    EXPECT_EQ(read[1], 9000u);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_INFO),
              (std::vector<std::string>{"CH[0] = 7000, file: " + bin_ + " \n",
                                        "CH[1] = 9000, file: " + bin_ + " \n"}));
}

TEST_F(FilesTest, BinaryBackEndsReportFailures)
{
    LogCapture log;
    const std::string missing = (folder_ / "no-such-dir" / "x.bin").string();
    uint32_t values[2] = {1, 2};
    EXPECT_EQ(tervox_default_fwrite(values, 2, missing.c_str()), -1);
    EXPECT_TRUE(log.contains("can't open " + missing + " \n", "AHAL:TERVOX"));
    EXPECT_EQ(tervox_default_fread(values, 2, missing.c_str()), -1);
    EXPECT_TRUE(log.contains("tervox_default_fread: can't open " + missing + ", errno=2 \n"));
    EXPECT_FALSE(std::filesystem::exists(missing));

    // Nothing written is a failure, and it still leaves an empty file behind.
    EXPECT_EQ(tervox_default_fwrite(values, 0, bin_.c_str()), -1);
    EXPECT_TRUE(log.contains("can't write CAL_R to persist slot!\n"));
    EXPECT_EQ(read_file(bin_), "");
    EXPECT_EQ(tervox_default_fread(values, 2, bin_.c_str()), -1);
    EXPECT_EQ(values[0], 1u);

    // A file of one word fills word 0 only; both words are still logged.
    log.clear();
    write_file(bin_, words_bytes({8391}));
    EXPECT_EQ(tervox_default_fread(values, 2, bin_.c_str()), 0);
    EXPECT_EQ(values[0], 8391u);
    EXPECT_EQ(values[1], 2u);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_INFO).size(), 2u);
    EXPECT_TRUE(log.contains("CH[1] = 2, file: " + bin_ + " \n"));
}

TEST_F(FilesTest, TextBackEndWritesOneLinePerChannel)
{
    uint32_t values[2] = {8391, 6500};
    EXPECT_EQ(tervox_ascii_fwrite(values, 2, txt_.c_str()), 0);
    EXPECT_EQ(read_file(txt_), "CH[0] T : 8391 (6.00)\nCH[1] B : 6500 (4.65)\n");

    values[0] = 0xFFFFFFFFu;
    EXPECT_EQ(tervox_ascii_fwrite(values, 1, txt_.c_str()), 0);
    EXPECT_EQ(read_file(txt_), "CH[0] T : -1 (3070828.22)\n");

    EXPECT_EQ(tervox_ascii_fwrite(values, 0, txt_.c_str()), 0);
    EXPECT_TRUE(std::filesystem::exists(txt_));
    EXPECT_EQ(read_file(txt_), "");

    LogCapture log;
    const std::string missing = (folder_ / "no-such-dir" / "x.txt").string();
    EXPECT_EQ(tervox_ascii_fwrite(values, 2, missing.c_str()), -1);
    EXPECT_TRUE(log.contains("can't open " + missing + " \n"));
}

TEST_F(FilesTest, TextBackEndPastTheEighthChannelEndsTheProcess)
{
    uint32_t values[9] = {};
    EXPECT_DEATH(tervox_ascii_fwrite(values, 9, txt_.c_str()), "");
}

TEST_F(FilesTest, CalFwriteWritesBothFilesAndReportsTheTextWrite)
{
    uint32_t values[2] = {8391, 8391};
    EXPECT_EQ(tervox_cal_fwrite(values, 2), 0);
    EXPECT_EQ(read_file(bin_), words_bytes({8391, 8391}));
    EXPECT_EQ(read_file(txt_), "CH[0] T : 8391 (6.00)\nCH[1] B : 8391 (6.00)\n");

    // An unwritable binary file does not change the result; only the text file appears.
    std::filesystem::remove(bin_);
    std::filesystem::remove(txt_);
    const std::string missing = (folder_ / "no-such-dir" / "x.bin").string();
    ctx_.cal_bin_path = missing.c_str();
    EXPECT_EQ(tervox_cal_fwrite(values, 2), 0);
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_TRUE(std::filesystem::exists(txt_));

    // An unwritable text file fails even though the binary file was written.
    ctx_.cal_bin_path = bin_.c_str();
    const std::string missing_txt = (folder_ / "no-such-dir" / "x.txt").string();
    ctx_.cal_txt_path = missing_txt.c_str();
    EXPECT_EQ(tervox_cal_fwrite(values, 2), -1);
    EXPECT_TRUE(std::filesystem::exists(bin_));
}

TEST_F(FilesTest, CalFreadMarksChannelsThatWereNeverCalibrated)
{
    const std::pair<std::vector<uint32_t>, int32_t> cases[] = {
        {{8391, 8391}, 0}, {{0, 8391}, 2}, {{8391, 0}, 4}, {{0, 0}, 8}};
    for (const auto &[words, expected] : cases) {
        SCOPED_TRACE(expected);
        write_file(bin_, words_bytes(words));
        uint32_t values[2] = {5, 5};
        EXPECT_EQ(tervox_cal_fread(values, 2), expected);
        EXPECT_EQ(values[0], words[0]);
        EXPECT_EQ(values[1], words[1]);
    }
    std::filesystem::remove(bin_);
    uint32_t values[2] = {};
    EXPECT_EQ(tervox_cal_fread(values, 2), -1);
    write_file(bin_, "");
    EXPECT_EQ(tervox_cal_fread(values, 2), -1);
}

// Front-ends look the back-end and the path up in the active context at each call.
TEST_F(FilesTest, FrontEndsUseTheContextsBackEndsAndPaths)
{
    struct Call {
        std::vector<uint32_t> values;
        std::string path;
    };
    static std::vector<Call> calls;
    calls.clear();
    static int32_t result = 0;
    const auto record = [](uint32_t *values, size_t count, const char *path) -> int32_t {
        calls.push_back({std::vector<uint32_t>(values, values + count), path});
        return result;
    };
    ctx_.fwrite_backend = record;
    ctx_.fread_backend = record;
    ctx_.txt_fwrite_backend = record;

    uint32_t values[2] = {11, 0};
    result = 0;
    EXPECT_EQ(tervox_f0_fwrite(values, 2), 0);
    EXPECT_EQ(tervox_f0_fread(values, 1), 0);
    EXPECT_EQ(tervox_cal_fread(values, 2), 4);
    result = -1;
    EXPECT_EQ(tervox_f0_fread(values, 2), -1);
    EXPECT_EQ(tervox_cal_fwrite(values, 2), -1);
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[0].path, f0_);
    EXPECT_EQ(calls[0].values, (std::vector<uint32_t>{11, 0}));
    EXPECT_EQ(calls[1].path, f0_);
    EXPECT_EQ(calls[1].values.size(), 1u);
    EXPECT_EQ(calls[2].path, bin_);
    EXPECT_EQ(calls[3].path, f0_);
    EXPECT_EQ(calls[4].path, bin_);
    EXPECT_EQ(calls[5].path, txt_);
    EXPECT_FALSE(std::filesystem::exists(bin_));
}

} // namespace
