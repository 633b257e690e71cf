// tvoxsp's command line: exit statuses and the message of every kind of mistake, the control,
// path and player commands against the virtual pair, the progress line on a terminal and the
// bash completion.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using tvox::test::CommandResult;

class TvoxspToolTest : public tvox::test::SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        install_phone();
    }

    static CommandResult tvoxsp(const std::string &arguments)
    {
        return run_command("{ " TVOXSP_TOOL_PATH " " + arguments + "; }");
    }

    // The command names `tvoxsp --help` lists.
    static std::vector<std::string> command_names()
    {
        std::istringstream help(tvoxsp("--help").output);
        std::vector<std::string> names;
        for (std::string line; std::getline(help, line);) {
            if (line.rfind("  tvoxsp ", 0) == 0)
                names.push_back(line.substr(9, line.find(' ', 9) - 9));
        }
        return names;
    }
};

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

TEST_F(TvoxspToolTest, MistakesAreUsageErrorsThatNameWhatWasWrong)
{
    std::string tokens;
    for (int i = 0; i < 1025; ++i)
        tokens += " 1";
    const struct {
        std::string arguments;
        int status;
        std::string message;
    } cases[] = {
        {"", 2, "usage: tvoxsp <command>"},
        {"frobnicate", 2, "unknown command 'frobnicate'"},
        {"get", 2, "usage: tvoxsp get [--dsp] CONTROL"},
        {"set 'T DSP Mode'", 2, "usage: tvoxsp set CONTROL VALUE..."},
        {"set 'T DSP Mode' ' , '", 2, "no value for 'T DSP Mode'"},
        {"set 'T DSP Mode'" + tokens, 2, "1025 values for 'T DSP Mode': at most 1024"},
        {"slot write 0x10 -1", 2, "not an unsigned 32-bit number: '-1'"},
        {"slot write 0x10 0xFFFFFFFF", 2, "0xFFFFFFFF has no check word"},
        {"reg read 0x2020x", 2, "not an unsigned 32-bit number: '0x2020x'"},
        {"reg write 0x2020 0x100000000", 2, "'0x100000000'"},
        {"rtlog --interval -5", 2, "milliseconds, not -5"},
        {"monitor --interval 100", 2, "usage: tvoxsp monitor"},
        {"module config 1x", 2, "not a 32-bit number: '1x'"},
        {"module swap maybe", 2, "expected on or off, not 'maybe'"},
        {"bypass T maybe", 2, "expected on or off, not 'maybe'"},
        {"path nowhere", 2, "unknown path 'nowhere' (see tvoxsp path --list)"},
        {"path", 2, "usage: tvoxsp path NAME | --list"},
        {"play a.wav b.wav", 2, "usage: tvoxsp play [--graph] [FILE]"},
        {"mixer-test now", 2, "usage: tvoxsp mixer-test"},
        {"get 'No Such Control'", 1, "card 0 has no control 'No Such Control'"},
        {"get --dsp 'T DSP Mode'", 1, "'T DSP Mode' is not a 4-byte DSP parameter"},
        {"set 'No Such Control' 1", 1, "setting 'No Such Control' to '1' failed (code 2)"},
        {"set 'T PCM Source' Nowhere", 1, "Error: invalid enum value"},
        {"set 'T DSP Mode' 4", 1, "setting 'T DSP Mode' to '4' failed (code 22)"},
        {"set 'T DSP1 Protection cd RTLOG_COUNT' 0 0 0 0x100", 1,
         "0x100 should be between [0, 0xff]"},
    };
    for (const auto &c : cases) {
        const CommandResult result = tvoxsp(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments << "\n" << result.output;
        EXPECT_TRUE(contains(result.output, c.message)) << c.arguments << "\n" << result.output;
    }
    // The refused values changed nothing.
    EXPECT_EQ(int_values(0, "T DSP Mode"), std::vector<long>{1});
    EXPECT_EQ(enum_item(0, "T PCM Source"), "ASPRX1");
}

TEST_F(TvoxspToolTest, EveryCommandAnswersHelp)
{
    const std::vector<std::string> names = command_names();
    for (const char *name : {"calibrate", "report", "slot", "tuning", "reg", "get", "set",
                             "mixer-test", "path", "play", "rtlog", "monitor", "swap"})
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    for (const std::string &name : names) {
        for (const char *flag : {"--help", "-h"}) {
            const CommandResult help = tvoxsp(name + " " + flag);
            EXPECT_EQ(help.status, 0) << name;
            EXPECT_EQ(help.output.rfind("usage: tvoxsp " + name, 0), 0u) << help.output;
        }
    }
    EXPECT_EQ(tvoxsp("--help").status, 0);
}

TEST_F(TvoxspToolTest, SetAndGetEveryKindOfControlInHexOrDecimal)
{
    const struct {
        std::string set;
        std::string get;
        std::string shown;
    } cases[] = {
        {"'T DSP Mode' 0x2", "'T DSP Mode'", "T DSP Mode = 2\n"},
        {"'SPK Digital PCM Volume' 0x64 200", "'SPK Digital PCM Volume'",
         "SPK Digital PCM Volume = 100 (the first value)\n"},
        {"'B PCM Source' DSP", "'B PCM Source'", "B PCM Source = DSP (item 2)\n"},
        {"'T DSP1 Protection cd RTLOG_COUNT' 0x00 0 0x1 255", "'T DSP1 Protection cd RTLOG_COUNT'",
         "T DSP1 Protection cd RTLOG_COUNT = 0x00 0x00 0x01 0xff\n"},
        {"'B DSP1 Protection cd RTLOG_COUNT' 1,0xff,0xff,0xff",
         "--dsp 'B DSP1 Protection cd RTLOG_COUNT'", "B DSP1 Protection cd RTLOG_COUNT = -1\n"},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(tvoxsp("set " + c.set).status, 0) << c.set;
        const CommandResult got = tvoxsp("get " + c.get);
        EXPECT_EQ(got.status, 0) << c.get;
        EXPECT_TRUE(contains(got.output, c.shown)) << got.output;
    }
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"), (std::vector<long>{100, 200}));
    EXPECT_EQ(bytes(0, "T DSP1 Protection cd RTLOG_COUNT"),
              (std::vector<uint8_t>{0x00, 0x00, 0x01, 0xff}));
    // The mixer self-test reads back the value it sets.
    const CommandResult test = tvoxsp("mixer-test");
    EXPECT_EQ(test.status, 0);
    EXPECT_TRUE(contains(test.output, "Default: 00 00 15 14, num=4\n")) << test.output;
}

TEST_F(TvoxspToolTest, NamedPathsAreListedAndApplied)
{
    const CommandResult list = tvoxsp("path --list");
    ASSERT_EQ(list.status, 0);
    const struct {
        std::string path;
        std::string pcm_source; // both amplifiers'
        long enabled;           // both amplifiers' AMP Enable Switch
    } cases[] = {
        {"dsp_source", "DSP", 1}, {"dsp_bypass", "ASPRX1", 1}, {"amp_off", "Zero", 0},
        {"dsp_source", "DSP", 0}, {"reload_off", "Zero", 0},
    };
    preset_ints(0, "T AMP Enable Switch", {1});
    preset_ints(0, "B AMP Enable Switch", {1});
    for (const auto &c : cases) {
        EXPECT_TRUE(contains(list.output, c.path + " ")) << list.output;
        ASSERT_EQ(tvoxsp("path " + c.path).status, 0) << c.path;
        for (const char *amp : {"T", "B"}) {
            EXPECT_EQ(enum_item(0, std::string(amp) + " PCM Source"), c.pcm_source) << c.path;
            EXPECT_EQ(int_values(0, std::string(amp) + " AMP Enable Switch"),
                      std::vector<long>{c.enabled})
                << c.path;
        }
    }
    preset_enum(0, "B DSP1 Firmware", "Calibration");
    ASSERT_EQ(tvoxsp("path boot_firmware").status, 0);
    EXPECT_EQ(enum_item(0, "B DSP1 Firmware"), "Protection");
    EXPECT_EQ(int_values(0, "B DSP1 Boot Switch"), std::vector<long>{1});
    // Paths that only run inside the library's operations, applied whole on their own.
    clear_journal();
    ASSERT_EQ(tvoxsp("path cal_mode").status, 0);
    EXPECT_EQ(journal_lines(), (std::vector<std::string>{
                                   "ctl 0 \"T DSP Set CAL_AMBIENT\" = 30",
                                   "ctl 0 \"T DSP Mode\" = 2",
                                   "ctl 0 \"B DSP Set CAL_AMBIENT\" = 30",
                                   "ctl 0 \"B DSP Mode\" = 2",
                               }));
    for (const char *name : {"spk_playback", "rcv_playback", "amp_on_dsp", "run_mode",
                             "rtlog_setup", "rtlog_state_clear", "rtlog_stop"})
        EXPECT_TRUE(contains(list.output, std::string(name) + " ")) << name;
}

// Without card 0 every card command fails with status 1 and says, on standard error, where to run
// it; only the bench playback has printed its own failure on standard output.
TEST_F(TvoxspToolTest, WithoutCardZeroEveryCardCommandFailsAndSaysSo)
{
    const std::string mixer = "tvoxsp: card 0's mixer does not open";
    const std::string where = ": run it on the device or inside tvoxsim\n";
    const std::string no_card = "tvoxsp: no card 0" + where;
    const struct {
        const char *command;
        std::string out;
        std::string message;
    } cases[] = {
        {"get 'T DSP Mode'", "", mixer + where},
        {"set 'T DSP Mode' 1", "", mixer + where},
        {"mixer-test", "", "Failed to open mixer\n" + mixer + "\n"},
        {"path amp_off", "", no_card},
        {"reload", "", no_card},
        {"boot", "", no_card},
        {"bypass on", "", no_card},
        {"bypass T off", "", no_card},
        {"calibrate", "", no_card},
        {"play", "tervox_tplay_test: Failed to open mixer\n", mixer + "\n"},
    };
    setenv("TINYALSA_CARD_0", "tvoxsp_test_no_such_card", 1);
    const std::string errors = sim_dir() + "/errors";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        const CommandResult result = tvoxsp(c.command + (" 2>" + errors));
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.output, c.out);
        std::ifstream in(errors);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        EXPECT_TRUE(text.ends_with(c.message)) << text;
    }
}

TEST_F(TvoxspToolTest, PlaysWavFilesDirectlyAndThroughTheGraph)
{
    const std::string loop = phone("/sdcard/Music/lrp_loop.wav");
    const CommandResult direct = tvoxsp("play " + loop);
    EXPECT_EQ(direct.status, 0) << direct.output;
    EXPECT_TRUE(contains(direct.output, "Playing sample: 2 ch, 48000 hz, 16 bit")) << direct.output;

    preset_enum(0, "RCV DSP1 Firmware", "Calibration");
    const CommandResult looped = tvoxsp("play");
    EXPECT_EQ(looped.status, 0) << looped.output;
    EXPECT_EQ(enum_item(0, "RCV DSP1 Firmware"), "Protection");
    EXPECT_EQ(int_values(0, "RCV AMP Enable Switch"), std::vector<long>{1});

    const CommandResult graph = tvoxsp("play --graph " + loop);
    EXPECT_EQ(graph.status, 0) << graph.output;
    EXPECT_TRUE(contains(graph.output, "Backend TDM-LPAIF-RX-SECONDARY")) << graph.output;

    const std::string text = folder_file("notes.wav", "not a wave at all");
    for (const std::string &play : {"play " + text, "play --graph " + text}) {
        const CommandResult refused = tvoxsp(play);
        EXPECT_EQ(refused.status, 1) << play;
        EXPECT_TRUE(contains(refused.output, "is not a riff/wave file")) << refused.output;
        EXPECT_TRUE(contains(refused.output, "was not played")) << refused.output;
    }
    const CommandResult missing = tvoxsp("play " + sim_dir() + "/none.wav");
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(contains(missing.output, "Unable to open file")) << missing.output;
}

TEST_F(TvoxspToolTest, CalibrationShowsItsProgressOnlyOnATerminal)
{
    set_speaker(0, 6.0);
    set_speaker(1, 6.0);
    const CommandResult piped = tvoxsp("calibrate");
    ASSERT_EQ(piped.status, 0) << piped.output;
    EXPECT_FALSE(contains(piped.output, "elapsed")) << piped.output;
    // script(1) gives the tool a terminal; the preload (and a sanitizer runtime) is the tool's.
    const CommandResult terminal = run_command(
        "TOOL_PRELOAD=\"$LD_PRELOAD\" LD_PRELOAD= script -qec 'LD_PRELOAD=$TOOL_PRELOAD " +
        std::string(TVOXSP_TOOL_PATH) + " calibrate' /dev/null");
    ASSERT_EQ(terminal.status, 0) << terminal.output;
    // Redrawn while the run measures, then erased.
    size_t redrawn = 0;
    for (size_t at = 0;
         (at = terminal.output.find("\rtvoxsp: calibrating, ", at)) != std::string::npos; ++at)
        ++redrawn;
    EXPECT_GE(redrawn, 2u) << terminal.output;
    EXPECT_TRUE(contains(terminal.output, " s elapsed")) << terminal.output;
    EXPECT_TRUE(contains(terminal.output, "\r\033[K")) << terminal.output;
}

TEST_F(TvoxspToolTest, BashCompletionOffersCommandsWordsAndPaths)
{
    const struct {
        std::string line; // the words typed so far, the last one being completed
        std::string offered;
    } cases[] = {
        {"pa", "path"},          {"mi", "mixer-test"}, {"path b", "boot_firmware"},
        {"path --l", "--list"},  {"tuning s", "seal"}, {"module swap o", "on off"},
        {"play --g", "--graph"}, {"reg u", "update"},  {"get --h", "--help"},
    };
    // What the completion offers for `words` (the last one being completed), joined by spaces.
    const auto complete = [](const std::string &words) {
        return run_command("bash -c 'source " TVOXSP_COMPLETION_PATH
                           "; COMP_WORDS=(" TVOXSP_TOOL_PATH " " +
                           words +
                           "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tvoxsp; "
                           "printf \"%s \" \"${COMPREPLY[@]}\"'");
    };
    for (const auto &c : cases) {
        const CommandResult completed = complete(c.line);
        EXPECT_EQ(completed.status, 0);
        EXPECT_EQ(completed.output, c.offered + " ") << c.line;
    }
    // Every command the tool lists completes from its first two letters.
    for (const std::string &name : command_names())
        EXPECT_TRUE(contains(" " + complete(name.substr(0, 2)).output, " " + name + " ")) << name;
}

} // namespace
