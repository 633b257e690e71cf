// Calibrations and diagnostics as a HAL runs them: a zeroed context, tervox_cal_init, the
// run_calibration slot with the default graph playback of the silent file and the default files
// under the persist folder. The virtual amplifiers' DSP model does the measuring; each full run
// plays the 3-second file, so the runs are few and each test checks all it can.
#include "calibration/context_fixture.h"

namespace
{

using tvox::sim::SpeakerFault;
using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::words_bytes;
using tvox::test::write_file;

class CalibrationE2eTest : public tvox::test::SimContextTest
{
  protected:
    CalibrationE2eTest() { temp_files_ = false; }
    void SetUp() override
    {
        SimContextTest::SetUp();
        install_phone();
        persist_ = std::filesystem::path(sim_dir()) / "phone/mnt/vendor/persist/audio";
    }

    // The report of the last run, checked to be logged whole as well.
    std::string report(const LogCapture &log, int32_t &length)
    {
        char out[512];
        length = ctx_.str_format_out(out, sizeof out);
        EXPECT_TRUE(
            log.contains(std::string("tervox_cal_str_format_out: \n ") + out, "AHAL:TERVOX"));
        return out;
    }

    // A failed run stores and applies nothing and says so.
    void expect_nothing_stored(const LogCapture &log, int32_t ret)
    {
        EXPECT_EQ(ctx_.cal_ok, 0);
        for (const char *name : {"tvox_calr.bin", "tvox_calr.txt", "tvox_f0.bin"})
            EXPECT_FALSE(std::filesystem::exists(persist_ / name)) << name;
        EXPECT_EQ(value("T DSP Set CAL_R"), 8391);
        EXPECT_EQ(value("B DSP Set CAL_R"), 8391);
        EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried -1 times, ret = " +
                                 std::to_string(ret) + ", state = 0\n"));
        int32_t length = -1;
        EXPECT_EQ(report(log, length), "calibration failed\n");
        EXPECT_EQ(length, 0);
    }

    // The tvoxsp tool's standard output (the library logs to standard error on a host) and exit
    // status.
    static tvox::test::CommandResult tvoxsp(const std::string &arguments)
    {
        return run_command("{ " TVOXSP_TOOL_PATH " " + arguments + " 2>/dev/null; }");
    }

    std::filesystem::path persist_;
};

TEST_F(CalibrationE2eTest, GoodCalibrationIsStoredAppliedAndReported)
{
    set_speaker_raw(0, 8672);
    set_speaker_raw(1, 7692);
    LogCapture log;
    EXPECT_EQ(ctx_.run_calibration(), 0);
    EXPECT_EQ(ctx_.cal_ok, 1);
    EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried 0 times, ret = 0, state = 0\n"));
    // Both files, byte for byte: host-order words and the text copy.
    EXPECT_EQ(read_file(persist_ / "tvox_calr.bin"), words_bytes({8672, 7692}));
    EXPECT_EQ(read_file(persist_ / "tvox_calr.txt"), "CH[0] T : 8672 (6.20)\n"
                                                     "CH[1] B : 7692 (5.50)\n");
    EXPECT_FALSE(std::filesystem::exists(persist_ / "tvox_f0.bin"));
    // The DSPs work with the new values, back in protection mode with the amplifiers off.
    {
        tvox::sim::Session session = state().lock();
        EXPECT_EQ(tvox::sim::dsp::report(session, 0).cal_r_in_use, 8672);
        EXPECT_EQ(tvox::sim::dsp::report(session, 1).cal_r_in_use, 7692);
    }
    EXPECT_EQ(value("B DSP Mode"), 1);
    EXPECT_EQ(value("T AMP Enable Switch"), 0);
    EXPECT_EQ(enum_item(0, "B PCM Source"), "Zero");

    int32_t length = 0;
    const std::string line0 = "CH[0] T = 6.20,  8672(6.20) <-- "
                              "'/mnt/vendor/persist/audio/tvox_calr.bin'\n";
    const std::string line1 = "CH[1] B = 5.50,  7692(5.50) <-- "
                              "'/mnt/vendor/persist/audio/tvox_calr.bin'\n";
    EXPECT_EQ(report(log, length), line0 + line1 + "calibration success\n");
    EXPECT_EQ(length, static_cast<int32_t>(line0.size() + line1.size()));
}

TEST_F(CalibrationE2eTest, FailingCalibrationsStoreNothing)
{
    // A shorted top speaker measures fine, at a resistance outside the accepted range.
    set_speaker_raw(0, 8672, SpeakerFault::shorted);
    {
        LogCapture log;
        EXPECT_EQ(ctx_.run_calibration(), 16);
        EXPECT_TRUE(log.contains(
            "tervox_cal_check: Channel[0] CAL_R = 140, out of range[8000 - 12000]!\n"));
        expect_nothing_stored(log, 16);
    }
    // The bottom calibration fails: the status rejects it, the top channel alone is not stored.
    set_speaker_raw(0, 8672);
    set_speaker_raw(1, 7692, SpeakerFault::calibration_failure);
    {
        LogCapture log;
        EXPECT_EQ(ctx_.run_calibration(), 4);
        EXPECT_TRUE(
            log.contains("tervox_cal_check: Channel[1] CAL_R = 7692, STATUS = 4, Failed!\n"));
        expect_nothing_stored(log, 4);
    }
}

TEST_F(CalibrationE2eTest, DiagnosticWithAFailingF0WritesNothing)
{
    set_speaker_raw(1, 8391, SpeakerFault::f0_failure);
    ctx_.diag_mode = 1;
    LogCapture log;
    EXPECT_EQ(ctx_.run_calibration(), 4);
    EXPECT_TRUE(log.contains("tervox_cal_diag_check:channel[1] f0 = 800, Failed!\n"));
    EXPECT_EQ(ctx_.cal[1].f0_status, 1u);
    expect_nothing_stored(log, 4);
    // The amplifiers end switched off, whatever the outcome.
    const auto journal = card0_journal();
    const auto off = journal_of({tvox::amp_off_path});
    ASSERT_GE(journal.size(), off.size());
    EXPECT_EQ(std::vector(journal.end() - off.size(), journal.end()), off);
}

// The tvoxsp tool, a program of its own over the exported interface: the stored-calibration
// report beside what the DSP and the kernel hold, and its exit statuses.
TEST_F(CalibrationE2eTest, ToolReportsTheStoredCalibrationAndRefusesBadUsage)
{
    write_file(persist_ / "tvox_calr.bin", words_bytes({8392, 7692}));
    const auto report = tvoxsp("report");
    // "T DSP Set CAL_R" holds 8391: as a plain integer for the kernel column, and read as a
    // big-endian DSP word (bytes C7 20 00 00) for the DSP column. The stored values are not
    // those in use: a mismatch.
    EXPECT_EQ(report.status, 8);
    EXPECT_EQ(report.output, "'CHANNEL'     'FS'     'AMP DSP'  'KERNEL'\n"
                             "CH[0]: 6.00( 8392) - -14680064 -     8391\n"
                             "CH[1]: 5.50( 7692) - -14680064 -     8391\n"
                             "CH[0] T: stored CAL_R 8392 (6.00 ohm) differs from the one in use, "
                             "8391 (6.00 ohm)\n"
                             "CH[1] B: stored CAL_R 7692 (5.50 ohm) differs from the one in use, "
                             "8391 (6.00 ohm)\n");
    EXPECT_EQ(tvoxsp("--help >/dev/null").status, 0);
    for (const char *bad : {"", "calibrate now", "no-such-command", "report --f1"})
        EXPECT_EQ(tvoxsp(bad).status, 2) << bad;
}

TEST_F(CalibrationE2eTest, ToolReadsBackWhatWasStoredAndFailsWhenStoringFailed)
{
    set_speaker_raw(0, 8672);
    set_speaker_raw(1, 7692);
    write_file(persist_ / "tvox_calr.bin", words_bytes({7000, 7001}));
    ASSERT_EQ(tool("persist full").status, 0);
    // The library's own result is success: the tool finds the previous file and says so.
    const auto full = tvoxsp("calibrate");
    EXPECT_EQ(full.status, 6);
    EXPECT_EQ(full.output.find("calibration success"), std::string::npos) << full.output;
    EXPECT_NE(full.output.find("calibration failed: storing failed\n"), std::string::npos)
        << full.output;
    EXPECT_NE(full.output.find("storing failed: CH[0] T measured CAL_R 8672, "
                               "/mnt/vendor/persist/audio/tvox_calr.bin holds 7000\n"),
              std::string::npos)
        << full.output;
    EXPECT_EQ(read_file(persist_ / "tvox_calr.bin"), words_bytes({7000, 7001}));

    // With room again a run stores what it measured; the diagnostic prints every speaker's F0.
    ASSERT_EQ(tool("persist normal").status, 0);
    set_speaker_raw(1, 7692, SpeakerFault::none, 790);
    const auto diagnosis = tvoxsp("diagnose");
    EXPECT_EQ(diagnosis.status, 0);
    EXPECT_NE(diagnosis.output.find("CH[0] T F0 = 800 Hz (status 2)\nCH[1] B F0 = 790 Hz (status "
                                    "2)\n"),
              std::string::npos)
        << diagnosis.output;
    EXPECT_EQ(read_file(persist_ / "tvox_calr.bin"), words_bytes({8672, 7692}));
    EXPECT_EQ(read_file(persist_ / "tvox_f0.bin"), words_bytes({8672, 7692}));
}

TEST_F(CalibrationE2eTest, ToolNamesTheFailingSpeakerAndWhy)
{
    set_speaker_raw(0, 8672, SpeakerFault::shorted);
    set_speaker_raw(1, 7692, SpeakerFault::calibration_failure);
    const auto calibration = tvoxsp("calibrate");
    EXPECT_EQ(calibration.status, 5);
    // After the library's report (its playback prints the back end's format first).
    const std::string failures =
        "CH[0] T failed: CAL_R 140 (0.10 ohm) out of range [8000 - 12000] (5.72 - 8.58 ohm)\n"
        "CH[1] B failed: calibration status 4, CAL_R 7692 (5.50 ohm)\n"
        "calibration failed: the measurement is out of bounds\n"
        "both amplifiers are off\n";
    EXPECT_TRUE(calibration.output.ends_with(failures)) << calibration.output;
    set_speaker_raw(0, 8672);
    set_speaker_raw(1, 7692, SpeakerFault::f0_failure);
    const auto diagnosis = tvoxsp("diagnose");
    EXPECT_EQ(diagnosis.status, 5);
    EXPECT_NE(diagnosis.output.find("CH[1] B failed: F0 status 1, F0 800 Hz\n"), std::string::npos)
        << diagnosis.output;
    // Nothing was stored by either run, so there is no calibration to report.
    EXPECT_EQ(tvoxsp("report").status, 1);
}

// Two calibrations started at once in one simulator, as two processes on a phone: the second
// (past the refusal an active amplifier gives) cannot open the calibration's PCM while the first
// plays on it, says so at once and fails; the first one succeeds.
TEST_F(CalibrationE2eTest, TwoToolsAtOnceShareTheDeviceAsOnAPhone)
{
    const std::string first = sim_dir() + "/first", second = sim_dir() + "/second";
    const auto both =
        run_command("{ " TVOXSP_TOOL_PATH " calibrate >" + first +
                    " 2>/dev/null & sleep 0.5; " TVOXSP_TOOL_PATH " calibrate --force >" + second +
                    " 2>/dev/null; s=$?; wait $! && exit $s; }");
    EXPECT_EQ(both.status, 4) << both.output; // the second one: busy
    const std::string busy = "Unable to open PCM device 100 (cannot open device 'tvoxsim:100,100': "
                             "Device or resource busy)\n";
    EXPECT_EQ(read_file(first).find(busy), std::string::npos) << read_file(first);
    EXPECT_NE(read_file(second).find(busy), std::string::npos) << read_file(second);
    EXPECT_TRUE(read_file(second).ends_with(
        "calibration failed: the silent playback failed: " + busy.substr(0, busy.size() - 1) +
        "\nboth amplifiers are off\n"))
        << read_file(second);
    EXPECT_TRUE(read_file(first).ends_with("calibration success\nboth amplifiers are off\n"));
    EXPECT_EQ(state().lock().stream(100, 100, false)->starts, 1u);
}

} // namespace
