#include "calibration/context_fixture.h"
#include "context/ctl_tables.h"
#include "support/capture.h"
#include "tvoxsp.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using tvox::test::LogCapture;

std::string at(const char *const *table, int id)
{
    return table[id] == nullptr ? "<none>" : table[id];
}

TEST(ContextInit, FillsDefaultsSlotsAndLogsTheChannelLines)
{
    LogCapture log;
    struct tervox ctx = {};
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(self, &ctx);

    EXPECT_EQ(ctx.num_channels, 2);
    EXPECT_STREQ(ctx.channel_name[0], "T");
    EXPECT_STREQ(ctx.channel_name[1], "B");
    EXPECT_EQ(ctx.channel_name[2], nullptr);
    EXPECT_EQ(ctx.cal_r_default[0], 8391u);
    EXPECT_EQ(ctx.cal_r_default[1], 8391u);
    EXPECT_EQ(ctx.cal_r_range[0].min, 8000u);
    EXPECT_EQ(ctx.cal_r_range[0].max, 12000u);
    EXPECT_EQ(ctx.cal_r_range[1].min, 6500u);
    EXPECT_EQ(ctx.cal_r_range[1].max, 10500u);
    EXPECT_EQ(ctx.cal_r_range[2].min, 0u);
    EXPECT_EQ(ctx.cal_ok, 1);
    EXPECT_EQ(ctx.diag_mode, 0);
    EXPECT_EQ(ctx.cal_state, 0u);
    EXPECT_EQ(ctx.play_card, 100u);
    EXPECT_EQ(ctx.play_device, 100u);
    EXPECT_STREQ(ctx.backend_name, "TDM-LPAIF-RX-SECONDARY");
    EXPECT_STREQ(ctx.silent_wav_path, "/odm/etc/audio/silent-3sec.wav");
    EXPECT_STREQ(ctx.cal_bin_path, "/mnt/vendor/persist/audio/tvox_calr.bin");
    EXPECT_STREQ(ctx.cal_txt_path, "/mnt/vendor/persist/audio/tvox_calr.txt");
    EXPECT_STREQ(ctx.f0_path, "/mnt/vendor/persist/audio/tvox_f0.bin");

    EXPECT_EQ(ctx.playback, &tervox_agmplay);
    EXPECT_EQ(ctx.fwrite_backend, &tervox_default_fwrite);
    EXPECT_EQ(ctx.fread_backend, &tervox_default_fread);
    EXPECT_EQ(ctx.txt_fwrite_backend, &tervox_ascii_fwrite);
    EXPECT_EQ(ctx.run_calibration, &tervox_cal_run_calibration);
    EXPECT_EQ(ctx.cal_fwrite, &tervox_cal_fwrite);
    EXPECT_EQ(ctx.cal_fread, &tervox_cal_fread);
    EXPECT_EQ(ctx.get_result, &tervox_cal_get_result);
    EXPECT_EQ(ctx.apply, &tervox_cal_apply);
    EXPECT_EQ(ctx.str_format_out, &tervox_cal_str_format_out);

    // The context mutex is initialised (and never held by the library).
    EXPECT_EQ(pthread_mutex_trylock(&ctx.mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&ctx.mutex), 0);

    const std::vector<std::string> expected = {"channel[0] : 2 - 2\n", "channel[1] : 2 - 2\n",
                                               "channel[2] : 2 - 2\n"};
    EXPECT_EQ(tvox::test::tervox_lines(log, ANDROID_LOG_ERROR), expected);
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

TEST(ContextInit, ControlTablesNameEachAmplifiersControls)
{
    struct tervox ctx = {};
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(ctx.set_ctls[2], nullptr);
    EXPECT_EQ(ctx.get_ctls[2], nullptr);

    EXPECT_EQ(at(ctx.set_ctls[0], CTL_SET_CAL_R), "T DSP Set CAL_R");
    EXPECT_EQ(at(ctx.set_ctls[1], CTL_SET_CAL_R), "B DSP Set CAL_R");
    EXPECT_EQ(at(ctx.set_ctls[1], CTL_AMP_ACTIVE_STATUS), "B AMP Active Status");
    EXPECT_EQ(at(ctx.set_ctls[1], CTL_AMP_WR_REGISTERS), "B AMP WR Registers");
    EXPECT_EQ(at(ctx.set_ctls[0], CTL_DIAG_F0), "<none>");
    EXPECT_EQ(at(ctx.get_ctls[0], CTL_CAL_STATUS), "T DSP Get CAL_STATUS");
    EXPECT_EQ(at(ctx.get_ctls[1], CTL_CAL_R), "B DSP Get CAL_R");
    EXPECT_EQ(at(ctx.get_ctls[1], CTL_CAL_CHECKSUM), "B DSP1 Protection 5f210 CAL_CHECKSUM");
    EXPECT_EQ(at(ctx.get_ctls[0], CTL_CH_BAL), "<none>");
    EXPECT_EQ(at(ctx.prot_ctls[0], CTL_DIAG_Z_LOW_DIFF), "T Protection 5f210 DIAG_Z_LOW_DIFF");
    EXPECT_EQ(at(ctx.prot_ctls[1], CTL_QORA_STATE), "B Protection 5f210 QORA_STATE");
    EXPECT_EQ(at(ctx.qdsp_ctls, CTL_CHANNEL_SWAP), "Tervox SP Channel Swap");
    EXPECT_EQ(at(ctx.qdsp_ctls, CTL_DELTA), "Tervox SP Delta");
    EXPECT_EQ(at(ctx.qdsp_ctls, CTL_LOAD_RX_CONFIG), "Tervox SP Load Rx Config");

    // Every bottom name is the top name with "B" for the leading "T"; unused ids stay empty.
    const std::pair<const char **, const char **> pairs[] = {
        {ctx.set_ctls[0], ctx.set_ctls[1]},
        {ctx.get_ctls[0], ctx.get_ctls[1]},
        {ctx.prot_ctls[0], ctx.prot_ctls[1]},
    };
    for (const auto &[top, bottom] : pairs) {
        EXPECT_EQ(top[10], nullptr);
        EXPECT_EQ(top[12], nullptr);
        for (int id = 0; id < TERVOX_NUM_CTLS; ++id) {
            SCOPED_TRACE(id);
            ASSERT_EQ(top[id] == nullptr, bottom[id] == nullptr);
            if (top[id] == nullptr)
                continue;
            EXPECT_EQ(top[id][0], 'T');
            EXPECT_EQ("B" + std::string(top[id] + 1), bottom[id]);
        }
    }
    for (int id = 0; id < CTL_CHANNEL_SWAP; ++id)
        EXPECT_EQ(ctx.qdsp_ctls[id], nullptr) << id;
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

TEST(ContextInit, TablesAreTheLibrarysWritableDataSoAHalCanRepointThem)
{
    struct tervox ctx = {};
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    const char *saved = ctx.set_ctls[1][CTL_SET_CAL_R];
    ctx.set_ctls[1][CTL_SET_CAL_R] = "B Other CAL_R";
    // A second context shares the library's tables.
    struct tervox other = {};
    ASSERT_EQ(tervox_cal_init(&other), 0);
    EXPECT_STREQ(other.set_ctls[1][CTL_SET_CAL_R], "B Other CAL_R");
    ctx.set_ctls[1][CTL_SET_CAL_R] = saved;
    EXPECT_EQ(tervox_cal_deinit(&other), 0);
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

TEST(ContextInit, LeavesMembersItDoesNotOwnAsTheHalSetThem)
{
    struct tervox ctx = {};
    ctx.cal[0].cal_r = 1234;
    ctx.swap_state = 7;
    ctx.cal_state = 0;
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(ctx.cal[0].cal_r, 1234);
    EXPECT_EQ(ctx.swap_state, 7);
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

// Without a calibration there is no thread to join; deinit must not touch the zero handle.
TEST(ContextLifecycle, DeinitWithoutACalibrationAndRepeatedInit)
{
    LogCapture log;
    struct tervox ctx = {};
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(tervox_cal_init(&ctx), 0);
        EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
        EXPECT_EQ(self, &ctx);
    }
    tervox_cal_exit();
    EXPECT_FALSE(log.contains("tervox_cal_deinit: Unable to join the boot thread"));
    EXPECT_EQ(tvox::test::tervox_lines(log, ANDROID_LOG_INFO).size(), 0u);
}

} // namespace
