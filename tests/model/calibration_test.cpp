// Calibration on the virtual amplifiers: what the read-back controls report while and after the
// DSP is in calibration mode, with and without silence reaching the amplifiers.
#include "model_fixture.h"

#include <csignal>
#include <string>

namespace
{

using tvox::sim::now_ns;
using tvox::sim::SpeakerFault;
using tvox::test::expected_raw;
using tvox::test::ModelTest;

using CalibrationTest = ModelTest;

// Every control the library reads a channel's calibration from.
struct ReadBack {
    int32_t status[3];
    int32_t cal_r[3];
    int32_t checksum[2];
};

ReadBack read_back(ModelTest &test, const std::string &x)
{
    auto w = [&](const std::string &suffix) { return test.word(x + " " + suffix); };
    return ReadBack{
        {w("DSP Get CAL_STATUS"), w("DSP1 Protection 5f210 CAL_STATUS"),
         w("Protection 5f210 CAL_STATUS")},
        {w("DSP Get CAL_R"), w("DSP1 Protection 5f210 CAL_R"), w("Protection 5f210 CAL_R")},
        {w("DSP1 Protection 5f210 CAL_CHECKSUM"), w("Protection 5f210 CAL_CHECKSUM")}};
}

void expect_result(const ReadBack &got, int32_t status, int32_t cal_r, const char *what)
{
    for (int32_t s : got.status)
        EXPECT_EQ(s, status) << what;
    for (int32_t r : got.cal_r)
        EXPECT_EQ(r, cal_r) << what;
    for (int32_t c : got.checksum)
        EXPECT_EQ(c, (status + cal_r) & 0xFFFFFF) << what;
}

void expect_uncalibrated(const ReadBack &got, const char *what)
{
    for (int32_t s : got.status)
        EXPECT_EQ(s, 0) << what;
}

TEST_F(CalibrationTest, SilenceInCalibrationModeMeasuresEachSpeakerAndTheResultStays)
{
    set_speaker(0, 6.2, SpeakerFault::none);
    set_speaker(1, 7.5, SpeakerFault::none);
    // Nothing measured yet: every status word reads 0, which no check accepts.
    expect_uncalibrated(read_back(*this, "T"), "fresh");

    record_stream(now_ns(), 0, 0.0);
    path_to_dsp("T");
    path_to_dsp("B");
    EXPECT_EQ(get("T AMP Active Status"), 1);
    calibration_mode("T");
    calibration_mode("B");
    set("T DSP Set CAL_AMBIENT", 30);
    EXPECT_EQ(word("T DSP1 Protection 5f210 CAL_AMBIENT"), 30);
    set("B DSP Set CAL_AMBIENT", -5);
    EXPECT_EQ(word("B Protection 5f210 CAL_AMBIENT"), -5);
    expect_uncalibrated(read_back(*this, "T"), "not heard long enough yet");

    wait_settled();
    expect_result(read_back(*this, "T"), 1, expected_raw(6.2), "T measured");
    expect_result(read_back(*this, "B"), 1, expected_raw(7.5), "B measured");

    // Back to run mode, amplifiers off, stream gone: the firmware keeps its result.
    set("T DSP Mode", 1);
    set("T AMP Enable Switch", 0);
    record_stream(now_ns() - 3 * kSecond, now_ns(), 0.0);
    EXPECT_EQ(get("T AMP Active Status"), 0);
    expect_result(read_back(*this, "T"), 1, expected_raw(6.2), "after run mode");
    // Changing the speaker afterwards does not change a finished measurement.
    set_speaker(1, 5.0, SpeakerFault::none);
    expect_result(read_back(*this, "B"), 1, expected_raw(7.5), "speaker changed later");

    // A new calibration starts over: no signal heard in it yet, CAL_R stays the last one.
    calibration_mode("B");
    expect_result(read_back(*this, "B"), 2, expected_raw(7.5), "restarted");
}

TEST_F(CalibrationTest, StreamsThatAreLoudDeadOrElsewhereAreNoSilence)
{
    record_stream(now_ns(), 0, 0.5);
    // A stream still marked running by a process that has ended does not play.
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    record_stream(now_ns(), 0, 0.0, 0, 1, static_cast<uint32_t>(child));
    // A silent stream on an AGM front end connected to no back end never reaches them.
    record_stream(now_ns(), 0, 0.0, 100, 100);
    path_to_dsp("T");
    path_to_dsp("B");
    calibration_mode("T");
    calibration_mode("B");
    wait_settled();

    expect_uncalibrated(read_back(*this, "T"), "T");
    expect_uncalibrated(read_back(*this, "B"), "B");
    // The loud stream does play to the amplifiers.
    EXPECT_EQ(get("T AMP Active Status"), 1);
    EXPECT_EQ(word("T Protection 5f210 DIAG_F0_STATUS"), 0);
}

TEST_F(CalibrationTest, TheAmplifierMustBeOnAndFedByTheDspForTheWholeMeasurement)
{
    record_stream(now_ns(), 0, 0.0);
    set_enum("T PCM Source", "DSP"); // amplifier left off
    path_to_dsp("B");
    EXPECT_EQ(get("T AMP Active Status"), 0);
    EXPECT_EQ(get("B AMP Active Status"), 1);
    calibration_mode("T");
    calibration_mode("B");
    // B's source leaves the DSP and comes back: the measurement counts from its return.
    std::this_thread::sleep_for(kSettle / 2);
    set_enum("B PCM Source", "Zero");
    set_enum("B PCM Source", "DSP");
    std::this_thread::sleep_for(kSettle / 2 + kMargin);
    EXPECT_EQ(word("T DSP Get CAL_STATUS"), 0);
    EXPECT_EQ(word("B DSP Get CAL_STATUS"), 0);
    std::this_thread::sleep_for(kSettle / 2);
    EXPECT_EQ(word("T DSP Get CAL_STATUS"), 0);
    EXPECT_EQ(word("B DSP Get CAL_STATUS"), 1);
}

TEST_F(CalibrationTest, SpeakerFaultsShowInStatusAndResistance)
{
    set_speaker(0, 6.0, SpeakerFault::open);
    set_speaker(1, 6.0, SpeakerFault::shorted);
    path_to_dsp("T");
    path_to_dsp("B");
    record_stream(now_ns(), 0, 0.0);
    calibration_mode("T");
    calibration_mode("B");
    wait_settled();
    // Open: failed, and the largest resistance a word holds. Shorted: a tenth of an ohm.
    expect_result(read_back(*this, "T"), 4, 0xFFFFFF, "open");
    expect_result(read_back(*this, "B"), 1, expected_raw(0.1), "shorted");

    // A failing calibration keeps the true resistance; an F0 fault leaves calibration alone.
    set_speaker(0, 6.5, SpeakerFault::calibration_failure);
    set_speaker(1, 6.5, SpeakerFault::f0_failure);
    calibration_mode("T");
    calibration_mode("B");
    wait_settled();
    expect_result(read_back(*this, "T"), 4, expected_raw(6.5), "calibration fault");
    expect_result(read_back(*this, "B"), 1, expected_raw(6.5), "F0 fault");
}

} // namespace
