// Calibration on the virtual amplifiers: what the read-back controls report while and after the
// DSP is in calibration mode, with and without silence reaching the amplifiers.
#include "model_fixture.h"

#include <string>
#include <string_view>

namespace
{

using tvox::sim::now_ns;
using tvox::sim::SpeakerFault;
using tvox::test::expected_raw;
using CalibrationTest = tvox::test::ModelTest;

// Every control the library reads a channel's calibration from agrees on status and CAL_R, and
// both checksums are their sum.
void expect_result(CalibrationTest &test, const std::string &x, int32_t status, int32_t cal_r)
{
    for (const char *table : {" DSP Get ", " DSP1 Protection 5f210 ", " Protection 5f210 "}) {
        EXPECT_EQ(test.word(x + table + "CAL_STATUS"), status) << x << table;
        EXPECT_EQ(test.word(x + table + "CAL_R"), cal_r) << x << table;
        if (std::string_view(table) != " DSP Get ") { // the driver's words carry none
            EXPECT_EQ(test.word(x + table + "CAL_CHECKSUM"), (status + cal_r) & 0xFFFFFF);
        }
    }
}

TEST_F(CalibrationTest, SilenceInCalibrationModeMeasuresEachSpeakerAndTheResultStays)
{
    set_speaker(0, 6.2);
    set_speaker(1, 7.5);
    record_stream(now_ns(), 0, 0.0);
    calibrate_both();
    EXPECT_EQ(get("T AMP Active Status"), 1);
    set("B DSP Set CAL_AMBIENT", -5);
    EXPECT_EQ(word("B Protection 5f210 CAL_AMBIENT"), -5);
    // Not heard long enough yet: status 0, which no check accepts.
    EXPECT_EQ(word("T DSP Get CAL_STATUS"), 0);

    wait_settled();
    expect_result(*this, "T", 1, expected_raw(6.2));
    expect_result(*this, "B", 1, expected_raw(7.5));

    // Run mode, stream gone, speaker changed: the firmware keeps its result.
    set("T DSP Mode", 1);
    record_stream(now_ns() - 3 * kSecond, now_ns(), 0.0);
    set_speaker(0, 5.0);
    expect_result(*this, "T", 1, expected_raw(6.2));
}

TEST_F(CalibrationTest, StreamsThatAreLoudOrElsewhereAreNoSilence)
{
    record_stream(now_ns(), 0, 0.5);
    // A silent stream on an AGM front end connected to no back end never reaches them.
    record_stream(now_ns(), 0, 0.0, 100, 100);
    calibrate_both();
    wait_settled();
    EXPECT_EQ(word("T DSP Get CAL_STATUS"), 0);
    EXPECT_EQ(word("B Protection 5f210 CAL_STATUS"), 0);
    // The loud stream does play to the amplifiers.
    EXPECT_EQ(get("T AMP Active Status"), 1);
}

TEST_F(CalibrationTest, SpeakerFaultsShowInStatusAndResistance)
{
    set_speaker(0, 6.0, SpeakerFault::open);
    set_speaker(1, 6.0, SpeakerFault::shorted);
    record_stream(now_ns(), 0, 0.0);
    calibrate_both();
    wait_settled();
    // Open: failed, and the largest resistance a word holds. Shorted: a tenth of an ohm.
    expect_result(*this, "T", 4, 0xFFFFFF);
    expect_result(*this, "B", 1, expected_raw(0.1));

    // A failing calibration keeps the true resistance; an F0 fault leaves calibration alone.
    set_speaker(0, 6.5, SpeakerFault::calibration_failure);
    set_speaker(1, 6.5, SpeakerFault::f0_failure);
    calibrate_both();
    wait_settled();
    expect_result(*this, "T", 4, expected_raw(6.5));
    expect_result(*this, "B", 1, expected_raw(6.5));
}

} // namespace
