#include "calibration/context_fixture.h"
#include "util/exported_data.h"

#include <array>
#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <memory>

namespace
{

using tvox::sim::SpeakerFault;
using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::words_bytes;
using tvox::test::write_file;

// Checks, readout conversions and the report, on hand-made records and files.
class ResultsTest : public tvox::test::SimContextTest
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
    std::string line(int ch, const char *measured, const char *stored) const
    {
        return "CH[" + std::to_string(ch) + "] " + (ch == 0 ? "T" : "B") + " = " + measured + ", " +
               stored + " <-- '" + bin_ + "'\n";
    }
};

TEST_F(ResultsTest, StatusOneOrThreePassesAndFailuresShiftCumulatively)
{
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(check(0), 0);
    for (uint32_t bad : {0u, 2u, 4u}) {
        SCOPED_TRACE(bad);
        records_[0].status = bad;
        EXPECT_EQ(check(), 2);
        records_[0].status = 3;
        records_[1].status = bad;
        EXPECT_EQ(check(), 4);
        records_[0].status = bad;
        EXPECT_EQ(check(), 8);
        records_[1].status = 1;
    }
}

TEST_F(ResultsTest, RangeIsInclusiveSkippedWithAZeroBoundAndOverridesThePattern)
{
    records_[0].cal_r = 8000;
    records_[1].cal_r = 10500;
    EXPECT_EQ(check(), 0);
    records_[0].cal_r = 7999;
    EXPECT_EQ(check(), 16);
    // A later channel in range does not undo it; a negative code compares as a huge one.
    records_[1].cal_r = -1;
    records_[0] = {0, 0, 9000, 2, 0, 0};
    EXPECT_EQ(check(1), 2);
    EXPECT_EQ(check(), 16); // bad status on channel 0, channel 1 out of range
    ctx_.cal_r_range[1].min = 0;
    EXPECT_EQ(check(), 2);

    for (auto &record : records_)
        record = {1, 0, 9000, 2, 0, 0};
    EXPECT_EQ(check(8), 0);
    EXPECT_DEATH(check(9), ""); // the ranges have eight entries
}

TEST_F(ResultsTest, DiagnosticCheckPassesOnlyOnF0StatusTwo)
{
    EXPECT_EQ(diag_check(0), 0);
    records_[0].status = 0; // status and range do not matter to it
    records_[1].cal_r = 1;
    EXPECT_EQ(diag_check(), 0);
    records_[1].f0_status = 0;
    EXPECT_EQ(diag_check(), 4);
    records_[0].f0_status = 3;
    EXPECT_EQ(diag_check(), 8);
    EXPECT_EQ(diag_check(1), 2);
}

TEST_F(ResultsTest, ResultsConvertCalRToOhmsAndPassF0Through)
{
    ctx_.cal[0] = {0, 0, 8192, 0, 750, 0};
    ctx_.cal[1] = {0, 0, 8391, 0, 0xFFFFFFFFu, 0};
    float ohms[9] = {-1, -1, -1};
    EXPECT_EQ(tervox_cal_get_result(ohms, 2), 0);
    EXPECT_FLOAT_EQ(ohms[0], 5.85714f);
    EXPECT_EQ(ohms[1], 5.9994216f); // the double product, rounded once
    EXPECT_EQ(ohms[2], -1);
    uint32_t f0[9] = {9, 9, 9};
    EXPECT_EQ(tervox_cal_f0_get_result(f0, 2), 0);
    EXPECT_EQ(f0[1], 0xFFFFFFFFu);
    EXPECT_EQ(f0[2], 9u);
    EXPECT_DEATH(tervox_cal_get_result(ohms, 9), "");
    EXPECT_DEATH(tervox_cal_f0_get_result(f0, 9), "");
}

// The measured value is the single-precision one the HAL reads (2049 rounds up only so); stored
// words pad to five places and convert unsigned.
TEST_F(ResultsTest, ReportShowsMeasuredBesideStoredValues)
{
    char out[512];
    std::memset(out, 'x', sizeof out);
    write_file(bin_, words_bytes({700, 0xFFFFFFFFu}));
    ctx_.cal[0].cal_r = 2049;
    ctx_.cal[1].cal_r = -8192;
    const std::string lines =
        line(0, "1.47", "  700(0.50)") + line(1, "-5.86", "   -1(3070828.22)");
    EXPECT_EQ(tervox_cal_str_format_out(out, sizeof out), static_cast<int32_t>(lines.size()));
    EXPECT_EQ(std::string(out), lines + "calibration success\n");
    EXPECT_EQ(out[sizeof out - 1], '\0'); // the whole buffer is cleared
    // A negative count reports no channel and reads nothing of a long file.
    write_file(bin_, words_bytes(std::vector<uint32_t>(64, 8391)));
    ctx_.num_channels = -1;
    EXPECT_EQ(tervox_cal_str_format_out(out, sizeof out), 0);
    EXPECT_EQ(std::string(out), "calibration success\n");
    ctx_.num_channels = 3;
    EXPECT_DEATH(tervox_cal_str_format_out(out, sizeof out), ""); // two channels are foreseen
}

// The first line and the status fit, the second line does not, but is counted; nothing is
// written past the buffer, nothing at all into none.
TEST_F(ResultsTest, ReportInSmallBuffersDropsLinesAndNeverOverruns)
{
    ctx_.cal[0].cal_r = ctx_.cal[1].cal_r = 8391;
    write_file(bin_, words_bytes({8391, 8391}));
    const std::string first = line(0, "6.00", " 8391(6.00)");
    std::array<char, 256> guard;
    const std::pair<size_t, std::string> cases[] = {
        {first.size() + 40, first + "calibration success\n"},
        {10, "calibrati"},                                 // even the status line is cut
        {first.size(), first.substr(0, first.size() - 1)}, // counted as fitting, cut by the NUL
    };
    for (const auto &[size, expected] : cases) {
        guard.fill('#');
        EXPECT_EQ(tervox_cal_str_format_out(guard.data(), size),
                  static_cast<int32_t>(size >= first.size() ? 2 * first.size() : first.size()));
        EXPECT_EQ(std::string(guard.data()), expected);
        EXPECT_EQ(guard[size], '#');
    }
    guard.fill('#');
    EXPECT_EQ(tervox_cal_str_format_out(guard.data(), 0), static_cast<int32_t>(first.size()));
    EXPECT_EQ(guard[0], '#');
}

// The synchronous sequence and apply on the virtual amplifier pair.
std::atomic<int> g_playbacks{0};

int32_t counting_playback(struct tervox *)
{
    ++g_playbacks;
    return 0;
}

class RunTest : public tvox::test::SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        g_playbacks = 0;
        ctx_.playback = counting_playback;
        set_speaker_raw(0, 9000);
        set_speaker_raw(1, 7000);
    }
};

// The synchronous sequence relies on the firmware having calibrated already.
TEST_F(RunTest, SynchronousCalibrationReadsChecksStoresAndApplies)
{
    calibrate_amplifiers();
    preset_ints(0, "T AMP Enable Switch", {1});
    EXPECT_EQ(tervox_cal_calibration(), 0);
    EXPECT_EQ(g_playbacks, 1);
    EXPECT_EQ(ctx_.cal[0].checksum, 9001u);
    EXPECT_EQ(read_file(bin_), words_bytes({9000, 7000}));
    EXPECT_EQ(value("T DSP Set CAL_R"), 9000);
    EXPECT_EQ(value("B DSP Set CAL_R"), 7000);
    EXPECT_EQ(value("T AMP Enable Switch"), 0); // switched off before the measurement was read
    // The exit hook switches the amplifiers off as well.
    preset_ints(0, "B AMP Enable Switch", {1});
    EXPECT_EQ(tervox_calib_exit(), 0);
    EXPECT_EQ(value("B AMP Enable Switch"), 0);
}

TEST_F(RunTest, SynchronousCalibrationNeedsAPlaybackAndIdleAmplifiers)
{
    ctx_.num_channels = 0; // the reader walks on past the eighth channel
    EXPECT_DEATH(tervox_cal_calibration(), "");
    ctx_.num_channels = 2;
    LogCapture log;
    ctx_.playback = nullptr; // nothing to measure with
    ctx_.cal[0].cal_r = 1;
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("No dummy playbcak api, error!\n", "AHAL:TERVOX"));
    EXPECT_EQ(ctx_.cal[0].cal_r, 1);

    // A playing amplifier stops it before anything is switched or played.
    ctx_.playback = counting_playback;
    record_silence(std::chrono::seconds(0));
    tvox::apply_path(tvox::amp_on_dsp_path);
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("tervox_cal_calibration: AMP is active, abort calibration!\n"));
    EXPECT_EQ(ctx_.cal_ok, 0);
    EXPECT_EQ(value("T AMP Enable Switch"), 1);
    EXPECT_EQ(g_playbacks, 0);
    // So does a mixer that does not open.
    hide_mixer();
    EXPECT_EQ(tervox_cal_calibration(), -1);
    EXPECT_TRUE(log.contains("tervox_amp_is_active: Failed to open mixer\n"));
}

TEST_F(RunTest, ApplyWritesEveryChannelAndReportsTheLast)
{
    LogCapture log;
    uint32_t values[2] = {static_cast<uint32_t>(-5), 7100};
    // A refused channel is logged and skipped; only the last channel decides the result.
    EXPECT_EQ(tervox_cal_apply(values, 2), 0);
    EXPECT_TRUE(log.contains("Channel[0] CAL_R = -5, Applying failed!\n"));
    EXPECT_EQ(value("T DSP Set CAL_R"), 8391);
    EXPECT_EQ(value("B DSP Set CAL_R"), 7100);
    values[1] = 0x800000;
    EXPECT_EQ(tervox_cal_apply(values, 2), 22);
}

// The context as tervox_cal_init fills it, and the exported self this program reads.
// The library's own definition of an exported variable (this program may hold a copy of it).
template <typename T> T *library_symbol(const char *name)
{
    const std::unique_ptr<void, int (*)(void *)> lib(dlopen("libtvoxsp.so", RTLD_NOW | RTLD_NOLOAD),
                                                     dlclose);
    return lib == nullptr ? nullptr : static_cast<T *>(dlsym(lib.get(), name));
}

// This program reads the exported self directly, which GCC's position-independent executables do
// through a copy of the variable in the program: the copy follows every write of the library, and
// the library finds it for the exported name (as a HAL may write an exported setting); a name the
// program has no copy of resolves to the library's own.
TEST(ContextInit, AProgramsCopyOfSelfFollowsTheContext)
{
    struct tervox **own = library_symbol<struct tervox *>("self");
    ASSERT_NE(own, nullptr);
    // ARM's position-independent executables read exported data through the GOT: no copy.
    if (own == &self)
        GTEST_SKIP() << "this program reads the library's own self: no copy to keep in step";

    struct tervox first = {};
    struct tervox second = {};
    ASSERT_EQ(tervox_cal_init(&first), 0);
    EXPECT_EQ(self, &first);
    ASSERT_EQ(tervox_cal_init(&second), 0);
    EXPECT_EQ(self, &second);
    EXPECT_EQ(*own, &second);
    EXPECT_EQ(tervox_cal_deinit(&first), 0);
    EXPECT_EQ(self, &first);
    EXPECT_EQ(*own, &first);
    EXPECT_EQ(tervox_cal_deinit(&second), 0);

    EXPECT_EQ(tvox::program_copy_of("self"), &self);
    self = &second;
    EXPECT_EQ(tvox::live(*own, "self"), &second);
    EXPECT_EQ(&tvox::live(*own, "self"), &self);
    // tervox_this lives in the library only, and a name nobody defines has no copy.
    void **this_slot = library_symbol<void *>("tervox_this");
    ASSERT_NE(this_slot, nullptr);
    EXPECT_EQ(tvox::program_copy_of("tervox_this"), nullptr);
    EXPECT_EQ(tvox::program_copy_of("tvoxsp_no_such_name"), nullptr);
    void *other = nullptr;
    EXPECT_EQ(&tvox::live(other, "tervox_this"), &other);
    self = nullptr;
}

TEST(ContextInit, FillsDefaultsAndSharedTablesAndLogsTheChannelLines)
{
    LogCapture log;
    struct tervox ctx = {};
    ctx.cal[0].cal_r = 1234; // members init does not own keep what the HAL left in them
    ctx.diag_mode = 1;
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(self, &ctx);
    EXPECT_EQ(ctx.cal[0].cal_r, 1234);
    EXPECT_EQ(ctx.diag_mode, 0);
    EXPECT_EQ(ctx.cal_r_range[1].min, 6500u);
    EXPECT_STREQ(ctx.f0_path, "/mnt/vendor/persist/audio/tvox_f0.bin");
    EXPECT_EQ(ctx.get_result, &tervox_cal_get_result);
    EXPECT_EQ(pthread_mutex_trylock(&ctx.mutex), 0); // initialised, and never held by the library
    EXPECT_EQ(pthread_mutex_unlock(&ctx.mutex), 0);
    EXPECT_EQ(tvox::test::tervox_lines(log, ANDROID_LOG_ERROR),
              (std::vector<std::string>{"channel[0] : 2 - 2\n", "channel[1] : 2 - 2\n",
                                        "channel[2] : 2 - 2\n"}));

    // Bottom names are the top names with "B" for the leading "T"; ids a table lacks are null.
    EXPECT_STREQ(ctx.prot_ctls[0][CTL_DIAG_Z_LOW_DIFF], "T Protection 5f210 DIAG_Z_LOW_DIFF");
    for (const char **const *tables : {ctx.set_ctls, ctx.get_ctls, ctx.prot_ctls})
        for (int id = 0; id < TERVOX_NUM_CTLS; ++id) {
            const char *top = tables[0][id];
            ASSERT_EQ(top == nullptr, tables[1][id] == nullptr) << id;
            if (top != nullptr) {
                EXPECT_EQ(top[0], 'T');
                EXPECT_EQ("B" + std::string(top + 1), tables[1][id]) << top;
            }
        }

    // The tables are the library's writable data: a HAL repoints a name for every context.
    const char *saved = ctx.set_ctls[1][CTL_SET_CAL_R];
    ctx.set_ctls[1][CTL_SET_CAL_R] = "B Other CAL_R";
    struct tervox other = {};
    ASSERT_EQ(tervox_cal_init(&other), 0);
    EXPECT_STREQ(other.set_ctls[1][CTL_SET_CAL_R], "B Other CAL_R");
    ctx.set_ctls[1][CTL_SET_CAL_R] = saved;
    EXPECT_EQ(tervox_cal_deinit(&other), 0);
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

} // namespace
