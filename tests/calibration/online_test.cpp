// Full online calibrations: each one waits 2.7 s by design, so they are few and grouped.
#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::SimContextTest;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;

std::atomic<int> g_playbacks{0};
std::atomic<bool> g_on_caller_thread{false};
pthread_t g_caller;

int32_t recording_playback(struct tervox *ctx)
{
    ++g_playbacks;
    SimContextTest::starting_silence(ctx);
    if (pthread_equal(pthread_self(), g_caller))
        g_on_caller_thread = true;
    return ctx == self ? 0 : 1;
}

size_t entries(const char *folder)
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder))
        ++count;
    return count;
}

class OnlineTest : public SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        g_playbacks = 0;
        g_caller = pthread_self();
        ctx_.playback = recording_playback;
        set_speaker(0, 9000);
        set_speaker(1, 9000);
    }
};

TEST_F(OnlineTest, RunsStoreOnlyGoodResultsAndLeaveNoThreadOrDescriptorBehind)
{
    // Sanitizer runtimes start a helper thread along with the process's first thread.
    std::thread([] {}).join();
    const size_t threads = entries("/proc/self/task");
    const size_t descriptors = entries("/proc/self/fd");
    LogCapture log;

    // A failing status: nothing is stored or applied, DSP mode goes back to normal protection.
    set_speaker(1, 9000, tvox::sim::SpeakerFault::calibration_failure);
    EXPECT_EQ(ctx_.run_calibration(), 4);
    EXPECT_EQ(ctx_.cal_ok, 0);
    EXPECT_FALSE(std::filesystem::exists(bin_));
    EXPECT_FALSE(std::filesystem::exists(txt_));
    EXPECT_EQ(int_values(0, "B DSP Set CAL_R").at(0), 8391);
    EXPECT_EQ(int_values(0, "T DSP Mode").at(0), 1);
    EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried -1 times, ret = 4, state = 0\n"));

    // A good run: measured in calibration mode at 30 degrees, stored, applied, switched off.
    set_speaker(1, 9000);
    clear_journal();
    log.clear();
    EXPECT_EQ(ctx_.run_calibration(), 0);
    EXPECT_EQ(ctx_.cal_ok, 1);
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(read_file(bin_), words_bytes({9000, 9000}));
    EXPECT_EQ(read_file(txt_), "CH[0] T : 9000 (6.43)\nCH[1] B : 9000 (6.43)\n");
    EXPECT_EQ(int_values(0, "T DSP Set CAL_R").at(0), 9000);
    EXPECT_EQ(int_values(0, "B DSP Set CAL_R").at(0), 9000);
    const std::vector<std::string> expected_journal = {"ctl 0 \"T PCM Source\" = DSP",
                                                       "ctl 0 \"T AMP Enable Switch\" = 1",
                                                       "ctl 0 \"B PCM Source\" = DSP",
                                                       "ctl 0 \"B AMP Enable Switch\" = 1",
                                                       "ctl 0 \"T DSP Set CAL_AMBIENT\" = 30",
                                                       "ctl 0 \"T DSP Mode\" = 2",
                                                       "ctl 0 \"B DSP Set CAL_AMBIENT\" = 30",
                                                       "ctl 0 \"B DSP Mode\" = 2",
                                                       "ctl 0 \"T DSP Mode\" = 1",
                                                       "ctl 0 \"B DSP Mode\" = 1",
                                                       "ctl 0 \"T DSP Set CAL_R\" = 9000",
                                                       "ctl 0 \"B DSP Set CAL_R\" = 9000",
                                                       "ctl 0 \"T PCM Source\" = Zero",
                                                       "ctl 0 \"T AMP Enable Switch\" = 0",
                                                       "ctl 0 \"B PCM Source\" = Zero",
                                                       "ctl 0 \"B AMP Enable Switch\" = 0"};
    std::vector<std::string> card0;
    for (const auto &line : journal_lines())
        if (line.starts_with("ctl 0 "))
            card0.push_back(line);
    EXPECT_EQ(card0, expected_journal);
    const std::vector<std::string> expected_info = {
        "tervox_cal_run_calibration: running...\n",
        "tervox_cal_run_calibration: count = 0\n",
        "tervox_cal_calibration_online: start to calibrate",
        "tervox_cal_calibration_online: Channel[0] : status[1], chksum[9001], calr[9000]\n",
        "tervox_cal_calibration_online: Channel[1] : status[1], chksum[9001], calr[9000]\n",
        "tervox_cal_calibration_online: start to check cal",
        "tervox_cal_calibration_online: apply mixer path",
        "tervox_cal_apply: Channel[0] CAL_R = 9000\n",
        "tervox_cal_apply: Channel[1] CAL_R = 9000\n",
        "tervox_cal_run_calibration: Tried 0 times, ret = 0, state = 0\n"};
    std::vector<std::string> info;
    for (const auto &text : tervox_lines(log, ANDROID_LOG_INFO))
        if (!text.starts_with("calibration thread"))
            info.push_back(text);
    EXPECT_EQ(info, expected_info);

    // The playback ran on a thread of its own, once per run, with the active context.
    EXPECT_EQ(g_playbacks, 2);
    EXPECT_FALSE(g_on_caller_thread);
    EXPECT_TRUE(log.contains("calibration thread start"));
    EXPECT_TRUE(log.contains("calibration thread stop"));

    // At most the last run's thread is still unjoined; deinit joins it.
    EXPECT_LE(entries("/proc/self/task"), threads + 1);
    EXPECT_EQ(tervox_cal_deinit(&ctx_), 0);
    EXPECT_EQ(entries("/proc/self/task"), threads);
    EXPECT_EQ(entries("/proc/self/fd"), descriptors);
    ASSERT_EQ(tervox_cal_init(&ctx_), 0); // for the fixture's own deinit
}

TEST_F(OnlineTest, WithoutPlaybackTheFirmwareHearsNoSignal)
{
    LogCapture log;
    ctx_.playback = nullptr;
    EXPECT_EQ(tervox_cal_calibration_online(), 8);
    EXPECT_EQ(tervox_cal_deinit(&ctx_), 0);
    EXPECT_TRUE(log.contains("No dummy playbcak api, error!\n"));
    EXPECT_NE(ctx_.cal[0].status, 1u);
    EXPECT_FALSE(std::filesystem::exists(bin_));
    // The amplifiers stay on in normal protection mode; the run would switch them off.
    EXPECT_EQ(int_values(0, "T AMP Enable Switch").at(0), 1);
    EXPECT_EQ(int_values(0, "B DSP Mode").at(0), 1);
    ASSERT_EQ(tervox_cal_init(&ctx_), 0);
}

} // namespace
