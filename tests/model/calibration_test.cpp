// Calibration and the F0 diagnosis on the virtual amplifiers: what the read-back controls report
// while and after the DSP is in calibration mode, and after long enough silent runs.
#include "model_fixture.h"

#include <array>
#include <string>
#include <string_view>

namespace
{

using tvox::sim::now_ns;
using tvox::sim::SpeakerFault;
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
    expect_result(*this, "T", 1, 8672);
    expect_result(*this, "B", 1, 10490);

    // Run mode, stream gone, speaker changed: the firmware keeps its result.
    set("T DSP Mode", 1);
    record_stream(now_ns() - 3 * kSecond, now_ns(), 0.0);
    set_speaker(0, 5.0);
    expect_result(*this, "T", 1, 8672);
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
    expect_result(*this, "B", 1, 140);

    // A failing calibration keeps the true resistance; an F0 fault leaves calibration alone.
    set_speaker(0, 6.5, SpeakerFault::calibration_failure);
    set_speaker(1, 6.5, SpeakerFault::f0_failure);
    calibrate_both();
    wait_settled();
    expect_result(*this, "T", 4, 9091);
    expect_result(*this, "B", 1, 9091);
}

using Diag = std::array<int32_t, 3>; // F0 status, F0, Z_LOW_DIFF

// The diagnosis of a channel, checked to be the same on both parameter tables.
Diag diag(CalibrationTest &test, const std::string &x)
{
    Diag both[2];
    for (int i = 0; i < 2; ++i) {
        const std::string prefix = x + (i == 0 ? " Protection 5f210 " : " DSP1 Protection 5f210 ");
        both[i] = {test.word(prefix + "DIAG_F0_STATUS"), test.word(prefix + "DIAG_F0"),
                   test.word(prefix + "DIAG_Z_LOW_DIFF")};
    }
    EXPECT_EQ(both[0], both[1]) << x;
    return both[0];
}

using DiagnosticTest = CalibrationTest;

TEST_F(DiagnosticTest, EachLongEnoughSilentRunMeasuresF0OfTheSpeakersOfTheMoment)
{
    set_speaker(0, 5.5, SpeakerFault::none, 812.4);
    set_speaker(1, 6.5, SpeakerFault::f0_failure, 1000);

    // A second of silence is too short; the amplifiers need not be on.
    const int64_t now = now_ns();
    record_stream(now - 3 * kSecond, now - 2 * kSecond, 0.0);
    EXPECT_EQ(diag(*this, "T")[0], 0);
    record_stream(now - 2 * kSecond, now, 0.0);
    // Measured resistance below the CAL_R in use: a negative difference.
    EXPECT_EQ(diag(*this, "T"), (Diag{2, 812, -699}));
    EXPECT_EQ(diag(*this, "B"), (Diag{1, 1000, 700}));

    // The DSP now works with the speaker's own CAL_R: the next measurement finds no difference.
    set("T DSP Set CAL_R", 7692);
    EXPECT_EQ(diag(*this, "T")[2], -699);
    record_stream(now_ns() - 2 * kSecond, 0, 0.0);
    EXPECT_EQ(diag(*this, "T")[2], 0);
}

} // namespace
