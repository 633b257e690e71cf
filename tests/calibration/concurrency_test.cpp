// The calibration's two threads: runs at once, the playback thread's life across runs and
// deinit. Built as a target of its own so that CI runs it under ThreadSanitizer.
#include "calibration/context_fixture.h"
#include "support/process.h"

#include <atomic>
#include <future>
#include <memory>
#include <pthread.h>

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

// Holds the playback of the first run until the test lets it go.
std::promise<void> *g_entered = nullptr;
std::shared_future<void> g_release;

int32_t held_playback(struct tervox *)
{
    g_entered->set_value();
    g_release.wait();
    return 0;
}

// Tells the test that the run has reached its playback, and returns at once.
int32_t announcing_playback(struct tervox *)
{
    g_entered->set_value();
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
        threads_ = tvox::test::running_threads();
        descriptors_ = tvox::test::open_descriptors();
    }
    size_t threads_ = 0, descriptors_ = 0;
};

TEST_F(ConcurrencyTest, ASecondRunWhileOneIsRunningIsRefused)
{
    std::promise<void> entered, release;
    g_entered = &entered;
    g_release = release.get_future().share();
    ctx_.diag_mode = 1; // a quick run: the state machine is the same
    ctx_.playback = held_playback;
    ctx_.cal_ok = 7; // the refused run leaves it alone
    auto first = std::async(std::launch::async, [] { return tervox_cal_run_calibration(); });
    entered.get_future().wait();
    LogCapture log;
    EXPECT_EQ(std::atomic_ref(ctx_.cal_state).load(), 1u);
    EXPECT_EQ(tervox_cal_run_calibration(), -1);
    EXPECT_EQ(std::atomic_ref(ctx_.cal_state).load(), 0u);
    EXPECT_EQ(std::atomic_ref(ctx_.cal_ok).load(), 7);
    EXPECT_EQ(
        tervox_lines(log, ANDROID_LOG_ERROR),
        std::vector<std::string>{"tervox_cal_run_calibration: calibration is already running!\n"});
    EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried 1 times, ret = -1, state = 0\n"));
    release.set_value();
    EXPECT_EQ(first.get(), 8); // nothing played for the firmware: the first run fails on its own
    EXPECT_EQ(ctx_.cal_state, 0u);
    EXPECT_EQ(ctx_.cal_ok, 0);
}

// Full online runs (2.7 s each by design): the sequence, and at most one unjoined thread.
TEST_F(ConcurrencyTest, OnlineRunsLeaveNoThreadOrDescriptorBehind)
{
    LogCapture log;
    for (int run = 0; run < 2; ++run) {
        clear_journal();
        EXPECT_EQ(ctx_.run_calibration(), 0);
        EXPECT_LE(tvox::test::running_threads(), threads_ + 1);
    }
    EXPECT_EQ(read_file(bin_), words_bytes({9000, 9000}));
    std::vector<std::string> journal =
        journal_of({tvox::amp_on_dsp_path, tvox::cal_mode_path, tvox::run_mode_path});
    journal.push_back("ctl 0 \"T DSP Set CAL_R\" = 9000");
    journal.push_back("ctl 0 \"B DSP Set CAL_R\" = 9000");
    const auto off = journal_of({tvox::amp_off_path});
    journal.insert(journal.end(), off.begin(), off.end());
    EXPECT_EQ(card0_journal(), journal);
    EXPECT_TRUE(log.contains("calibration thread stop"));
    EXPECT_EQ(g_playbacks, 2); // once a run, on a thread of its own, with the active context
    EXPECT_FALSE(g_misplaced);
    EXPECT_EQ(tervox_cal_deinit(&ctx_), 0); // joins the last run's thread
    EXPECT_EQ(tvox::test::running_threads(), threads_);
    EXPECT_EQ(tvox::test::open_descriptors(), descriptors_);
    ASSERT_EQ(tervox_cal_init(&ctx_), 0); // for the fixture's own deinit
}

// A HAL tears the context down while another of its threads runs a calibration, then frees the
// record: teardown returns only once the run has ended. A run made after teardown starts no
// playback thread, which nobody would join.
TEST_F(ConcurrencyTest, TeardownWaitsForARunAndStartsNoThreadAfterIt)
{
    auto hal_ctx = std::make_unique<struct tervox>();
    ASSERT_EQ(tervox_cal_init(hal_ctx.get()), 0);
    hal_ctx->diag_mode = 1; // a quick run: it fails and sleeps 0.5 s before its last writes
    hal_ctx->playback = announcing_playback;
    std::promise<void> entered;
    g_entered = &entered;
    LogCapture log;
    auto run = std::async(std::launch::async, [] { return tervox_cal_run_calibration(); });
    entered.get_future().wait();
    EXPECT_EQ(tervox_cal_deinit(hal_ctx.get()), 0);
    // The run's last words, after its last writes into the record.
    EXPECT_TRUE(log.contains("tervox_cal_run_calibration: Tried -1 times, ret = 8, state = 0\n"))
        << "teardown returned while the run was still writing into the record";
    hal_ctx.reset();
    EXPECT_EQ(run.get(), 8);

    ASSERT_EQ(tervox_cal_init(&ctx_), 0);
    ASSERT_EQ(tervox_cal_deinit(&ctx_), 0);
    ctx_.playback = recording_playback;
    log.clear();
    EXPECT_NE(tervox_cal_run_calibration(), 0) << "nothing played for the firmware";
    EXPECT_EQ(g_playbacks, 0);
    EXPECT_TRUE(log.contains("tervox_cal_calibration_online: create calib thread failed"));
    EXPECT_EQ(tvox::test::running_threads(), threads_);
    ASSERT_EQ(tervox_cal_init(&ctx_), 0); // for the fixture's own deinit
}

} // namespace
