// Mixer paths: every table of the library on the card, order, pauses, the first failure.
#include "mixer/paths.h"
#include "mixer_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <span>
#include <string>
#include <vector>

namespace
{

using tvox::PathEntry;
using tvox::test::LogCapture;
using tvox::test::mixer_calls;
using tvox::test::reset_mixer_calls;
using Path = tvox::test::MixerTest;
using PathDeathTest = Path;
using Names = std::vector<std::string>;

// Each application opens and closes the mixer exactly once.
void expect_one_mixer(const std::string &what)
{
    EXPECT_EQ(mixer_calls().opens, 1) << what;
    EXPECT_EQ(mixer_calls().closes, 1) << what;
    reset_mixer_calls();
}

TEST_F(Path, EveryTableAppliesWholeAndInOrder)
{
    const std::span<const PathEntry> tables[] = {
        tvox::spk_playback_path, tvox::rcv_playback_path, tvox::amp_off_path,
        tvox::amp_on_dsp_path,   tvox::cal_mode_path,     tvox::run_mode_path,
        tvox::dsp_source_path,   tvox::dsp_bypass_path,   tvox::reload_off_path,
        tvox::reload_load_path,  tvox::rtlog_setup_path,  tvox::rtlog_state_clear_path,
        tvox::rtlog_stop_path,   tvox::boot_firmware_path};
    for (const auto &path : tables) {
        const std::string name = "table " + std::to_string(&path - tables);
        clear_journal();
        EXPECT_EQ(captured([&] { return tvox::apply_path(path); }), 0) << name << ": " << err_;
        Names expected;
        for (const auto &entry : path)
            expected.push_back(entry.control);
        EXPECT_EQ(written_controls(), expected) << name;
        expect_one_mixer(name);
    }
}

TEST_F(Path, StepsRunInOrderAndUdelayOnlyWaits)
{
    LogCapture log;
    const PathEntry steps[] = {
        {"T DSP Mode", "2"}, {"udelay", "50000"}, {"T DSP Mode", "3"}, {"udelay", "0x10"}};
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(tvox::apply_path(steps), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_EQ(journal_lines(), (Names{"ctl 0 \"T DSP Mode\" = 2", "ctl 0 \"T DSP Mode\" = 3"}));
    expect_one_mixer("steps");
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[1].text, "tervox_apply_mixer_path: T DSP Mode = 3\n");
    EXPECT_EQ(log.lines()[1].priority, 3);

    // An empty path still opens and closes the mixer.
    clear_journal();
    EXPECT_EQ(tervox_apply_mixer_path(nullptr, 0), 0);
    EXPECT_TRUE(journal_lines().empty());
    expect_one_mixer("empty path");
}

TEST_F(Path, FirstFailureStopsThePath)
{
    const std::pair<PathEntry, int32_t> cases[] = {
        {{"No Such Control", "1"}, 2},
        {{"T DSP Mode", "9"}, 22},
        {{"T DSP1 Protection 5f210 CH_BAL", "256"}, -1},
    };
    for (const auto &[failing, status] : cases) {
        preset_ints(0, "B DSP Mode", {1});
        clear_journal();
        LogCapture log;
        const PathEntry steps[] = {
            {"T DSP Mode", "2"}, {"T PCM Source", "DSP"}, failing, {"B DSP Mode", "3"}};
        EXPECT_EQ(captured([&] { return tvox::apply_path(steps); }), status) << failing.control;
        EXPECT_EQ(written_controls(), (Names{"T DSP Mode", "T PCM Source"}));
        EXPECT_EQ(int_values(0, "B DSP Mode"), (std::vector<long>{1}));
        expect_one_mixer(failing.control);
        ASSERT_FALSE(log.lines().empty());
        EXPECT_EQ(log.lines().back().text, std::string("tervox_apply_mixer_path: '") +
                                               failing.control + "' <== '" + failing.value +
                                               "' failed\n");
        EXPECT_EQ(log.lines().back().priority, 6);
        EXPECT_EQ(log.lines().back().tag, "AHAL:TERVOX");
    }
}

TEST_F(PathDeathTest, MixerThatDoesNotOpenEndsTheProcess)
{
    tvox::test::break_card();
    EXPECT_DEATH(tvox::apply_path(tvox::amp_off_path), "Failed to open mixer");
}

} // namespace
