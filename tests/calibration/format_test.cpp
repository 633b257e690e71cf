#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

namespace
{

using tvox::test::ContextTest;
using tvox::test::LogCapture;
using tvox::test::words_bytes;
using tvox::test::write_file;

class FormatTest : public ContextTest
{
  protected:
    void SetUp() override
    {
        ContextTest::SetUp();
        ctx_.cal[0].cal_r = 8391;
        ctx_.cal[1].cal_r = 8391;
    }

    std::string line(int ch, const char *name, const char *measured, const char *stored) const
    {
        return "CH[" + std::to_string(ch) + "] " + name + " = " + measured + ", " + stored +
               " <-- '" + bin_ + "'\n";
    }
};

TEST_F(FormatTest, ReportsMeasuredBesideStoredValues)
{
    write_file(bin_, words_bytes({8391, 8391}));
    LogCapture log;
    char out[512];
    std::memset(out, 'x', sizeof out);
    const std::string lines =
        line(0, "T", "6.00", " 8391(6.00)") + line(1, "B", "6.00", " 8391(6.00)");
    EXPECT_EQ(tervox_cal_str_format_out(out, sizeof out), static_cast<int32_t>(lines.size()));
    EXPECT_EQ(std::string(out), lines + "calibration success\n");
    // The rest of the caller's buffer is cleared.
    EXPECT_EQ(out[sizeof out - 1], '\0');
    EXPECT_TRUE(log.contains("tervox_cal_str_format_out: \n " + lines + "calibration success\n",
                             "AHAL:TERVOX"));

    // A value below 1000 pads to five places; unsigned stored words convert without a sign.
    write_file(bin_, words_bytes({0, 0xFFFFFFFFu}));
    ctx_.cal[0].cal_r = 700;
    ctx_.cal[1].cal_r = -8192;
    tervox_cal_str_format_out(out, sizeof out);
    EXPECT_EQ(std::string(out), line(0, "T", "0.50", "    0(0.00)") +
                                    line(1, "B", "-5.86", "   -1(3070828.22)") +
                                    "calibration success\n");
}

TEST_F(FormatTest, MissingFileShowsZeroAndFailedRunShowsOnlyTheStatus)
{
    char out[256];
    EXPECT_GT(tervox_cal_str_format_out(out, sizeof out), 0);
    EXPECT_EQ(std::string(out), line(0, "T", "6.00", "    0(0.00)") +
                                    line(1, "B", "6.00", "    0(0.00)") + "calibration success\n");

    ctx_.cal_ok = 0;
    EXPECT_EQ(tervox_cal_str_format_out(out, sizeof out), 0);
    EXPECT_EQ(std::string(out), "calibration failed\n");
}

TEST_F(FormatTest, SmallBuffersDropLinesAndNeverOverrun)
{
    write_file(bin_, words_bytes({8391, 8391}));
    const std::string first = line(0, "T", "6.00", " 8391(6.00)");
    const std::string second = line(1, "B", "6.00", " 8391(6.00)");
    const auto total = static_cast<int32_t>(first.size() + second.size());

    // Room for the first line and the status, not the second line: the count still has both.
    std::array<char, 256> guard{};
    const size_t size = first.size() + 40;
    guard.fill('#');
    EXPECT_EQ(tervox_cal_str_format_out(guard.data(), size), total);
    EXPECT_EQ(std::string(guard.data()), first + "calibration success\n");
    EXPECT_EQ(guard[size], '#');

    // Too small even for the status line: it is cut, the byte after the buffer stays untouched.
    guard.fill('#');
    EXPECT_EQ(tervox_cal_str_format_out(guard.data(), 10), static_cast<int32_t>(first.size()));
    EXPECT_EQ(std::string(guard.data()), "calibrati");
    EXPECT_EQ(guard[10], '#');

    // Exactly the first line's length: it is counted as fitting, cut short by its terminator.
    guard.fill('#');
    tervox_cal_str_format_out(guard.data(), first.size());
    EXPECT_EQ(std::string(guard.data()), first.substr(0, first.size() - 1));
    EXPECT_EQ(guard[first.size()], '#');

    guard.fill('#');
    EXPECT_EQ(tervox_cal_str_format_out(guard.data(), 0), static_cast<int32_t>(first.size()));
    EXPECT_EQ(guard[0], '#');
}

TEST_F(FormatTest, AThirdChannelEndsTheProcess)
{
    ctx_.num_channels = 3;
    char out[512];
    EXPECT_DEATH(tervox_cal_str_format_out(out, sizeof out), "");
}

} // namespace
