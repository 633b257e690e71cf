#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <vector>

namespace
{

using tvox::test::ContextTest;
using tvox::test::LogCapture;
using tvox::test::tervox_lines;

class CheckTest : public ContextTest
{
  protected:
    // Records of two channels, both good by default.
    tervox_cal_record records_[9] = {{1, 0, 9000, 2, 0, 0}, {3, 0, 9000, 2, 0, 0}};

    int32_t check(size_t count = 2)
    {
        return tervox_cal_check(reinterpret_cast<uint32_t *>(records_), count);
    }
    int32_t diag_check(size_t count = 2)
    {
        return tervox_cal_diag_check(reinterpret_cast<uint32_t *>(records_), count);
    }
};

TEST_F(CheckTest, StatusOneOrThreePassesAndFailuresShiftCumulatively)
{
    EXPECT_EQ(check(), 0);
    for (uint32_t bad : {0u, 2u, 4u, 7u}) {
        SCOPED_TRACE(bad);
        records_[0].status = bad;
        records_[1].status = 1;
        EXPECT_EQ(check(), 2);
        records_[0].status = 3;
        records_[1].status = bad;
        EXPECT_EQ(check(), 4);
        records_[0].status = bad;
        EXPECT_EQ(check(), 8);
    }
    EXPECT_EQ(check(0), 0);

    LogCapture log;
    records_[0] = {0, 0, 9001, 0, 0, 0};
    records_[1] = {5, 0, -3, 0, 0, 0};
    ctx_.cal_r_range[1] = {0, 0};
    EXPECT_EQ(check(), 8);
    const std::vector<std::string> expected = {
        "tervox_cal_check: Channel[0] CAL_R = 9001, STATUS = 0, Failed!\n",
        "tervox_cal_check: Channel[1] CAL_R = -3, STATUS = 5, Failed!\n"};
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_ERROR), expected);
}

TEST_F(CheckTest, RangeIsInclusiveSkippedWithAZeroBoundAndOverridesThePattern)
{
    records_[0].cal_r = 8000;
    records_[1].cal_r = 10500;
    EXPECT_EQ(check(), 0);
    records_[0].cal_r = 12000;
    records_[1].cal_r = 6500;
    EXPECT_EQ(check(), 0);

    LogCapture log;
    records_[0].cal_r = 7999;
    EXPECT_EQ(check(), 16);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_ERROR),
              std::vector<std::string>{
                  "tervox_cal_check: Channel[0] CAL_R = 7999, out of range[8000 - 12000]!\n"});
    records_[0].cal_r = 12001;
    EXPECT_EQ(check(), 16);
    // A later channel in range does not undo the failure; only the channels counted are seen.
    records_[0].cal_r = 9000;
    records_[1].cal_r = 10501;
    EXPECT_EQ(check(), 16);
    EXPECT_EQ(check(1), 0);
    // Compared unsigned: a negative code is far above any maximum.
    records_[1].cal_r = -1;
    EXPECT_EQ(check(), 16);

    // Bad status on channel 0 and channel 1 out of range reports the range failure.
    records_[0].status = 0;
    EXPECT_EQ(check(), 16);

    // Either bound 0 disables the check for that channel.
    ctx_.cal_r_range[1].min = 0;
    EXPECT_EQ(check(), 2);
    ctx_.cal_r_range[1] = {6500, 0};
    EXPECT_EQ(check(), 2);
}

TEST_F(CheckTest, RangeCheckPastTheEighthChannelEndsTheProcess)
{
    for (auto &record : records_)
        record = {1, 0, 9000, 2, 0, 0};
    EXPECT_EQ(check(8), 0);
    EXPECT_DEATH(check(9), "");
}

TEST_F(CheckTest, DiagnosticPassesOnlyOnF0StatusTwo)
{
    EXPECT_EQ(diag_check(), 0);
    EXPECT_EQ(diag_check(0), 0);
    LogCapture log;
    records_[1].f0_status = 0;
    records_[1].f0 = 812;
    EXPECT_EQ(diag_check(), 4);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_INFO),
              std::vector<std::string>{"tervox_cal_diag_check:channel[1] f0 = 812, Failed!\n"});
    records_[0].f0_status = 3;
    EXPECT_EQ(diag_check(), 8);
    EXPECT_EQ(diag_check(1), 2);
    // Status and range do not matter to the diagnostic check.
    records_[0] = {0, 0, 1, 2, 0, 0};
    records_[1] = {0, 0, 1, 2, 0, 0};
    EXPECT_EQ(diag_check(), 0);
}

TEST_F(CheckTest, ResultsConvertCalRToOhmsAndPassF0Through)
{
    ctx_.cal[0].cal_r = 8192;
    ctx_.cal[1].cal_r = 8391;
    ctx_.cal[2].cal_r = -8192;
    ctx_.cal[0].f0 = 750;
    ctx_.cal[1].f0 = 0xFFFFFFFFu;
    float ohms[4] = {-1, -1, -1, -1};
    EXPECT_EQ(tervox_cal_get_result(ohms, 3), 0);
    EXPECT_FLOAT_EQ(ohms[0], 5.85714f);
    EXPECT_EQ(ohms[1], static_cast<float>(8391 * 5.85714 * 0.0001220703125));
    EXPECT_NEAR(ohms[1], 5.9994, 1e-4);
    EXPECT_FLOAT_EQ(ohms[2], -5.85714f);
    EXPECT_EQ(ohms[3], -1);

    uint32_t f0[3] = {9, 9, 9};
    EXPECT_EQ(tervox_cal_f0_get_result(f0, 2), 0);
    EXPECT_EQ(f0[0], 750u);
    EXPECT_EQ(f0[1], 0xFFFFFFFFu);
    EXPECT_EQ(f0[2], 9u);

    EXPECT_EQ(tervox_cal_get_result(nullptr, 0), 0);
    EXPECT_EQ(tervox_cal_f0_get_result(nullptr, 0), 0);
}

TEST_F(CheckTest, ResultsPastTheEighthChannelEndTheProcess)
{
    float ohms[9] = {};
    uint32_t f0[9] = {};
    EXPECT_DEATH(tervox_cal_get_result(ohms, 9), "");
    EXPECT_DEATH(tervox_cal_f0_get_result(f0, 9), "");
}

} // namespace
