// Calibrations and diagnostics as a HAL runs them: a zeroed context, tervox_cal_init, the
// run_calibration slot with the default graph playback of the silent file, the default files
// under the persist folder. The virtual amplifiers' DSP model does the measuring; each full run
// plays the 3-second file, so the runs are few and each test checks all it can of its own.
#include "dsp_model.h"
#include "phone.h"
#include "support/capture.h"
#include "support/sim_fixture.h"
#include "tvoxsp.h"

#include "state.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace
{

using tvox::sim::SpeakerFault;
using tvox::test::LogCapture;

// Raw resistance code of a speaker of `ohms`, as the amplifier scales it.
int32_t raw(double ohms)
{
    return static_cast<int32_t>(std::lround(ohms * 8192 / 5.85714));
}

std::string read_file(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class CalibrationE2eTest : public tvox::test::SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        ASSERT_EQ(tvox::sim::install_phone(sim_dir()), 0);
        persist_ = std::filesystem::path(sim_dir()) / "phone/mnt/vendor/persist/audio";
        ASSERT_EQ(tervox_cal_init(&ctx_), 0);
    }

    void TearDown() override
    {
        EXPECT_EQ(tervox_cal_deinit(&ctx_), 0);
        SimTest::TearDown();
    }

    void set_speaker(unsigned channel, double ohms, SpeakerFault fault = SpeakerFault::none)
    {
        tvox::sim::Session session = state().lock();
        session.speaker(channel) = tvox::sim::SpeakerConfig{ohms, 800, fault, 0};
    }

    bool persisted(const char *name) const { return std::filesystem::exists(persist_ / name); }

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
        EXPECT_FALSE(persisted("tvox_calr.bin"));
        EXPECT_FALSE(persisted("tvox_calr.txt"));
        EXPECT_FALSE(persisted("tvox_f0.bin"));
        EXPECT_EQ(int_values(0, "T DSP Set CAL_R").at(0), 8391);
        EXPECT_EQ(int_values(0, "B DSP Set CAL_R").at(0), 8391);
        EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried -1 times, ret = " +
                                 std::to_string(ret) + ", state = 0\n"));
        int32_t length = -1;
        EXPECT_EQ(report(log, length), "calibration failed\n");
        EXPECT_EQ(length, 0);
    }

    struct tervox ctx_ = {};
    std::filesystem::path persist_;
};

TEST_F(CalibrationE2eTest, GoodCalibrationIsStoredAppliedReportedAndGuardedAgainstASecondRun)
{
    set_speaker(0, 6.2);
    set_speaker(1, 5.5);
    LogCapture log;
    int32_t first = -100;
    std::thread run([&] { first = ctx_.run_calibration(); });

    // A second run while the first one plays is refused, and leaves the state idle.
    std::atomic_ref<uint32_t> cal_state(ctx_.cal_state);
    for (int i = 0; i < 200 && cal_state.load() != 1; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(cal_state.load(), 1u);
    EXPECT_EQ(ctx_.run_calibration(), -1);
    EXPECT_EQ(cal_state.load(), 0u);
    EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried 1 times, ret = -1, state = 0\n"));
    run.join();

    EXPECT_EQ(first, 0);
    EXPECT_EQ(ctx_.cal_ok, 1);
    EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried 0 times, ret = 0, state = 0\n"));
    EXPECT_EQ(ctx_.cal[0].status, 1u);
    EXPECT_EQ(ctx_.cal[0].checksum, static_cast<uint32_t>(raw(6.2) + 1));
    EXPECT_EQ(ctx_.cal[1].cal_r, raw(5.5));

    // Both files, byte for byte: host-order words and the text copy.
    const std::vector<uint32_t> words = {static_cast<uint32_t>(raw(6.2)),
                                         static_cast<uint32_t>(raw(5.5))};
    EXPECT_EQ(read_file(persist_ / "tvox_calr.bin"),
              std::string(reinterpret_cast<const char *>(words.data()), 8));
    EXPECT_EQ(read_file(persist_ / "tvox_calr.txt"), "CH[0] T : 8672 (6.20)\n"
                                                     "CH[1] B : 7692 (5.50)\n");
    EXPECT_FALSE(persisted("tvox_f0.bin"));

    // The DSPs work with the new values, back in protection mode with the amplifiers off.
    {
        tvox::sim::Session session = state().lock();
        EXPECT_EQ(tvox::sim::dsp::report(session, 0).cal_r_in_use, raw(6.2));
        EXPECT_EQ(tvox::sim::dsp::report(session, 1).cal_r_in_use, raw(5.5));
    }
    EXPECT_EQ(int_values(0, "B DSP Mode").at(0), 1);
    EXPECT_EQ(int_values(0, "T AMP Enable Switch").at(0), 0);
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
    set_speaker(0, 6.2, SpeakerFault::shorted);
    {
        LogCapture log;
        EXPECT_EQ(ctx_.run_calibration(), 16);
        EXPECT_TRUE(log.contains("tervox_cal_check: Channel[0] CAL_R = 140, out of range[8000 - "
                                 "12000]!\n"));
        expect_nothing_stored(log, 16);
    }
    // The bottom calibration fails: the status rejects it, the top channel alone is not stored.
    set_speaker(0, 6.2);
    set_speaker(1, 5.5, SpeakerFault::calibration_failure);
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
    set_speaker(1, 6.0, SpeakerFault::f0_failure);
    ctx_.diag_mode = 1;
    LogCapture log;
    EXPECT_EQ(ctx_.run_calibration(), 4);
    EXPECT_TRUE(log.contains("tervox_cal_diag_check:channel[1] f0 = 800, Failed!\n"));
    EXPECT_EQ(ctx_.cal[0].f0_status, 2u);
    EXPECT_EQ(ctx_.cal[0].f0, 800u);
    EXPECT_EQ(ctx_.cal[1].f0_status, 1u);
    expect_nothing_stored(log, 4);
}

TEST_F(CalibrationE2eTest, DiagnosticAfterACalibrationStoresAndAppliesItsResistances)
{
    set_speaker(0, 6.5);
    set_speaker(1, 6.0);
    ASSERT_EQ(ctx_.run_calibration(), 0);
    std::filesystem::remove(persist_ / "tvox_calr.bin");
    std::filesystem::remove(persist_ / "tvox_calr.txt");
    // The speaker has aged since: the diagnostic reports the drift against the CAL_R in use,
    // and stores the calibration the firmware holds.
    set_speaker(0, 6.6);
    ctx_.diag_mode = 1;
    EXPECT_EQ(ctx_.run_calibration(), 0);
    EXPECT_EQ(ctx_.cal[0].z_low_diff, static_cast<uint32_t>(raw(6.6) - raw(6.5)));
    const std::vector<uint32_t> words = {static_cast<uint32_t>(raw(6.5)),
                                         static_cast<uint32_t>(raw(6.0))};
    const std::string bytes(reinterpret_cast<const char *>(words.data()), 8);
    EXPECT_EQ(read_file(persist_ / "tvox_f0.bin"), bytes);
    EXPECT_EQ(read_file(persist_ / "tvox_calr.bin"), bytes);
    EXPECT_EQ(int_values(0, "T DSP Set CAL_R").at(0), raw(6.5));
}

} // namespace
