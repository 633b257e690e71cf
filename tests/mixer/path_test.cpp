// Mixer paths: every table of the library on the card, order, pauses, the first failure.
#include "mixer/paths.h"
#include "mixer_fixture.h"
#include "open_counter.h"
#include "support/capture.h"

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <vector>

namespace
{

using tvox::PathEntry;
using tvox::test::LogCapture;
using tvox::test::mixer_calls;
using tvox::test::MixerCalls;
using tvox::test::reset_mixer_calls;
using tvox::test::StreamCapture;

class Path : public tvox::test::SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        reset_mixer_calls();
    }
    // The controls written, in order; the per-value writes of one multi-value control count
    // once.
    std::vector<std::string> written_controls()
    {
        std::vector<std::string> names;
        for (const auto &line : journal_lines()) {
            const auto open = line.find('"');
            const auto close = line.find('"', open + 1);
            std::string name = line.substr(open + 1, close - open - 1);
            if (names.empty() || names.back() != name)
                names.push_back(std::move(name));
        }
        return names;
    }
};
using PathDeathTest = Path;

void expect_once(const char *what)
{
    const MixerCalls calls = mixer_calls();
    EXPECT_EQ(calls.opens, 1) << what;
    EXPECT_EQ(calls.closes, 1) << what;
    reset_mixer_calls();
}

TEST_F(Path, EveryTableAppliesWholeAndInOrder)
{
    struct Table {
        const char *name;
        std::span<const PathEntry> path;
    };
    const Table tables[] = {
        {"spk_playback_path", tvox::spk_playback_path},
        {"rcv_playback_path", tvox::rcv_playback_path},
        {"amp_off_path", tvox::amp_off_path},
        {"amp_on_dsp_path", tvox::amp_on_dsp_path},
        {"cal_mode_path", tvox::cal_mode_path},
        {"run_mode_path", tvox::run_mode_path},
        {"dsp_source_path", tvox::dsp_source_path},
        {"dsp_bypass_path", tvox::dsp_bypass_path},
        {"reload_off_path", tvox::reload_off_path},
        {"reload_load_path", tvox::reload_load_path},
        {"rtlog_setup_path", tvox::rtlog_setup_path},
        {"rtlog_state_clear_path", tvox::rtlog_state_clear_path},
        {"rtlog_stop_path", tvox::rtlog_stop_path},
        {"boot_firmware_path", tvox::boot_firmware_path},
    };
    for (const auto &table : tables) {
        clear_journal();
        StreamCapture err(2);
        EXPECT_EQ(tvox::apply_path(table.path), 0) << table.name << ": " << err.text();
        std::vector<std::string> expected;
        for (const auto &entry : table.path)
            expected.push_back(entry.control);
        EXPECT_EQ(written_controls(), expected) << table.name;
        expect_once(table.name);
    }

    // What the last tables left on the card.
    EXPECT_EQ(int_values(0, "B DSP1 Boot Switch"), (std::vector<long>{1}));
    EXPECT_EQ(bytes(0, "T DSP1 Protection cd RTLOG_ENABLE"), (std::vector<uint8_t>{0, 0, 0, 0}));
    EXPECT_EQ(bytes(0, "B DSP1 Protection cd RTLOG_VARIABLE"),
              (std::vector<uint8_t>{0x00, 0x00, 0x00, 0x6F, 0x00, 0x00, 0x03, 0x9F, 0x00, 0x00,
                                    0x03, 0xAC, 0x00, 0x00, 0x03, 0xAD}));
    EXPECT_EQ(bytes(0, "B DSP1 Protection cd RTLOG_COUNT"), (std::vector<uint8_t>{0, 0, 0, 4}));
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero"); // reload_off_path came after the bypass
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"), (std::vector<long>{817, 817}));
    EXPECT_EQ(int_values(0, "B DSP Set CAL_AMBIENT"), (std::vector<long>{30}));
}

TEST_F(Path, StepsRunInOrderAndUdelayOnlyWaits)
{
    LogCapture log;
    const PathEntry steps[] = {
        {"T DSP Mode", "2"},
        {"udelay", "5000"},
        {"T DSP Mode", "3"},
        {"udelay", "0x10"},
    };
    EXPECT_EQ(tvox::apply_path(steps), 0);
    EXPECT_EQ(journal_lines(),
              (std::vector<std::string>{"ctl 0 \"T DSP Mode\" = 2", "ctl 0 \"T DSP Mode\" = 3"}));
    expect_once("steps");
    EXPECT_TRUE(log.contains("tervox_apply_mixer_path: T DSP Mode = 2\n", "AHAL:TERVOX"));
    EXPECT_TRUE(log.contains("tervox_apply_mixer_path: T DSP Mode = 3\n", "AHAL:TERVOX"));
    for (const auto &line : log.lines())
        EXPECT_EQ(line.text.find("udelay"), std::string::npos) << line.text;

    // An empty path still opens and closes the mixer once.
    clear_journal();
    EXPECT_EQ(tervox_apply_mixer_path(nullptr, 0), 0);
    EXPECT_EQ(tvox::apply_path(tvox::reload_load_path), 0);
    EXPECT_TRUE(journal_lines().empty());
    const MixerCalls calls = mixer_calls();
    EXPECT_EQ(calls.opens, 2);
    EXPECT_EQ(calls.closes, 2);
}

TEST_F(Path, FirstFailureStopsThePath)
{
    struct Case {
        PathEntry failing;
        int32_t status;
    };
    const Case cases[] = {
        {{"No Such Control", "1"}, 2},
        {{"T DSP Mode", "9"}, 22},
        {{"T DSP1 Protection 5f210 CH_BAL", "256"}, -1},
    };
    for (const auto &c : cases) {
        preset_ints(0, "B DSP Mode", {1});
        clear_journal();
        reset_mixer_calls();
        LogCapture log;
        const PathEntry steps[] = {
            {"T DSP Mode", "2"},
            {"T PCM Source", "DSP"},
            c.failing,
            {"B DSP Mode", "3"},
        };
        StreamCapture err(2);
        EXPECT_EQ(tvox::apply_path(steps), c.status) << c.failing.control;
        EXPECT_EQ(written_controls(), (std::vector<std::string>{"T DSP Mode", "T PCM Source"}));
        EXPECT_EQ(int_values(0, "B DSP Mode"), (std::vector<long>{1}));
        expect_once(c.failing.control);

        const std::string failed = std::string("tervox_apply_mixer_path: '") + c.failing.control +
                                   "' <== '" + c.failing.value + "' failed\n";
        ASSERT_FALSE(log.lines().empty());
        EXPECT_EQ(log.lines().back().text, failed);
        EXPECT_EQ(log.lines().back().priority, 6);
        EXPECT_EQ(log.lines().back().tag, "AHAL:TERVOX");
    }
}

TEST_F(PathDeathTest, MixerThatDoesNotOpenEndsTheProcess)
{
    tvox::test::break_card();
    EXPECT_DEATH(tvox::apply_path(tvox::amp_off_path), "Failed to open mixer");
    EXPECT_DEATH(tervox_apply_mixer_path(nullptr, 0), "Failed to open mixer");
}

} // namespace
