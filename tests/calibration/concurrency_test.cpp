// The calibration's two threads: runs at once, the playback thread's life across runs and
// deinit. Built as a target of its own so that CI runs it under ThreadSanitizer.
#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
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
std::atomic<bool> g_misplaced{false}; // played on the caller's thread or for another context
pthread_t g_caller;

int32_t recording_playback(struct tervox *ctx)
{
    ++g_playbacks;
    if (pthread_equal(pthread_self(), g_caller) || ctx != self)
        g_misplaced = true;
    return SimContextTest::starting_silence(ctx);
}

size_t entries(const char *folder)
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder))
        ++count;
    return count;
}

// Holds the playback of the first run until the test lets it go.
struct Gate {
    std::mutex lock;
    std::condition_variable changed;
    bool entered = false;
    bool open = false;
} *g_gate = nullptr;

int32_t gated_playback(struct tervox *)
{
    std::unique_lock lock(g_gate->lock);
    g_gate->entered = true;
    g_gate->changed.notify_all();
    g_gate->changed.wait(lock, [] { return g_gate->open; });
    return 0;
}

class ConcurrencyTest : public SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        g_playbacks = 0;
        g_caller = pthread_self();
        ctx_.playback = recording_playback;
        set_speaker_raw(0, 9000);
        set_speaker_raw(1, 9000);
        std::thread([] {}).join(); // sanitizer runtimes start a helper with the first thread
        threads_ = entries("/proc/self/task");
        descriptors_ = entries("/proc/self/fd");
    }
    void expect_nothing_left()
    {
        EXPECT_EQ(entries("/proc/self/task"), threads_);
        EXPECT_EQ(entries("/proc/self/fd"), descriptors_);
    }
    size_t threads_ = 0, descriptors_ = 0;
};

TEST_F(ConcurrencyTest, ASecondRunWhileOneIsRunningIsRefused)
{
    Gate gate;
    g_gate = &gate;
    ctx_.diag_mode = 1; // a quick run: the state machine is the same
    ctx_.playback = gated_playback;
    ctx_.cal_ok = 7; // the refused run leaves it alone
    auto first = std::async(std::launch::async, [] { return tervox_cal_run_calibration(); });
    {
        std::unique_lock lock(gate.lock);
        gate.changed.wait(lock, [&] { return gate.entered; });
    }
    LogCapture log;
    EXPECT_EQ(std::atomic_ref(ctx_.cal_state).load(), 1u);
    EXPECT_EQ(tervox_cal_run_calibration(), -1);
    EXPECT_EQ(std::atomic_ref(ctx_.cal_state).load(), 0u);
    EXPECT_EQ(std::atomic_ref(ctx_.cal_ok).load(), 7);
    EXPECT_EQ(
        tervox_lines(log, ANDROID_LOG_ERROR),
        std::vector<std::string>{"tervox_cal_run_calibration: calibration is already running!\n"});
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_INFO),
              std::vector<std::string>{
                  "tervox_cal_run_calibration: Tried 1 times, ret = -1, state = 0\n"});
    {
        std::lock_guard lock(gate.lock);
        gate.open = true;
    }
    gate.changed.notify_all();
    EXPECT_EQ(first.get(), 8); // nothing played for the firmware: the first run fails on its own
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(ctx_.cal_ok, 0);
}

// Full online runs (2.7 s each by design): the sequence, and at most one unjoined thread.
TEST_F(ConcurrencyTest, OnlineRunsLeaveNoThreadOrDescriptorBehind)
{
    LogCapture log;
    set_speaker_raw(1, 9000, tvox::sim::SpeakerFault::calibration_failure);
    EXPECT_EQ(ctx_.run_calibration(), 4);
    EXPECT_FALSE(std::filesystem::exists(bin_));
    EXPECT_EQ(value("T DSP Mode"), 1); // back to normal protection, nothing stored or applied
    EXPECT_EQ(value("B DSP Set CAL_R"), 8391);

    set_speaker_raw(1, 9000);
    for (int run = 0; run < 2; ++run) {
        clear_journal();
        log.clear();
        EXPECT_EQ(ctx_.run_calibration(), 0);
        EXPECT_LE(entries("/proc/self/task"), threads_ + 1);
    }
    EXPECT_EQ(read_file(bin_), words_bytes({9000, 9000}));
    std::vector<std::string> journal =
        journal_of({tvox::amp_on_dsp_path, tvox::cal_mode_path, tvox::run_mode_path});
    journal.push_back("ctl 0 \"T DSP Set CAL_R\" = 9000");
    journal.push_back("ctl 0 \"B DSP Set CAL_R\" = 9000");
    const auto off = journal_of({tvox::amp_off_path});
    journal.insert(journal.end(), off.begin(), off.end());
    EXPECT_EQ(card0_journal(), journal);
    std::vector<std::string> info; // the playback thread's lines interleave with these
    for (const auto &text : tervox_lines(log, ANDROID_LOG_INFO))
        if (!text.starts_with("calibration thread"))
            info.push_back(text);
    EXPECT_EQ(info, (std::vector<std::string>{
                        "tervox_cal_run_calibration: running...\n",
                        "tervox_cal_run_calibration: count = 0\n",
                        "tervox_cal_calibration_online: start to calibrate",
                        "tervox_cal_calibration_online: Channel[0] : status[1], chksum[9001], "
                        "calr[9000]\n",
                        "tervox_cal_calibration_online: Channel[1] : status[1], chksum[9001], "
                        "calr[9000]\n",
                        "tervox_cal_calibration_online: start to check cal",
                        "tervox_cal_calibration_online: apply mixer path",
                        "tervox_cal_apply: Channel[0] CAL_R = 9000\n",
                        "tervox_cal_apply: Channel[1] CAL_R = 9000\n",
                        "tervox_cal_run_calibration: Tried 0 times, ret = 0, state = 0\n"}));
    EXPECT_TRUE(log.contains("calibration thread start"));
    EXPECT_TRUE(log.contains("calibration thread stop"));
    EXPECT_EQ(g_playbacks, 3); // once a run, on a thread of its own, with the active context
    EXPECT_FALSE(g_misplaced);
    EXPECT_EQ(tervox_cal_deinit(&ctx_), 0); // joins the last run's thread
    expect_nothing_left();
    ASSERT_EQ(tervox_cal_init(&ctx_), 0); // for the fixture's own deinit
}

// The synchronous sequence opens and closes everything itself, run after run.
TEST_F(ConcurrencyTest, RepeatedSynchronousRunsLeaveNoDescriptorBehind)
{
    calibrate_amplifiers();
    for (int run = 0; run < 40; ++run)
        ASSERT_EQ(tervox_cal_calibration(), 0) << run;
    EXPECT_EQ(g_playbacks, 40);
    EXPECT_EQ(read_file(bin_), words_bytes({9000, 9000}));
    expect_nothing_left();
}

} // namespace
