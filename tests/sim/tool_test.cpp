// The tvoxsim command-line tool.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace
{

using tvox::test::CommandResult;

using ToolTest = tvox::test::SimTest;

TEST_F(ToolTest, EnvPrintsExportsForAnAbsoluteFolder)
{
    std::filesystem::current_path(sim_dir());
    CommandResult env = tool("env sub");
    EXPECT_EQ(env.status, 0);
    const std::string cards = "export TVOXSIM_DIR='" + sim_dir() + "/sub'\n" +
                              "export ALSA_CONFIG_PATH='/usr/share/alsa/alsa.conf:" + conf_path() +
                              "'\nexport TINYALSA_CARD_0='tvoxsim:0'\n"
                              "export TINYALSA_CARD_100='tvoxsim:100'\n";
    EXPECT_EQ(env.output.substr(0, cards.size()), cards);
    // Last, the preload that maps the phone paths, ahead of whatever was preloaded already.
    EXPECT_EQ(env.output.substr(cards.size()).rfind("export LD_PRELOAD='/", 0), 0u) << env.output;
    EXPECT_NE(env.output.find("libtvoxsim_preload.so"), std::string::npos);
    // Without a folder argument the tool uses $TVOXSIM_DIR, as the fixture set it.
    EXPECT_NE(tool("env").output.find("TVOXSIM_DIR='" + sim_dir() + "'"), std::string::npos);
}

TEST_F(ToolTest, RunStartsACommandInsideTheSimulator)
{
    std::string other = sim_dir() + "/it's here";
    CommandResult run = tool("run --dir \"" + other +
                             "\" -- sh -c 'echo $TVOXSIM_DIR; amixer -D $TINYALSA_CARD_0 cset "
                             "name=\"T DSP Mode\" 3 >/dev/null && exit 7'");
    EXPECT_EQ(run.status, 7) << run.output;
    EXPECT_EQ(run.output, other + "\n");
    // The command sees the phone's persist folder, which lives in the simulator folder.
    EXPECT_EQ(
        tool("run --dir \"" + other + "\" -- sh -c 'test -d /mnt/vendor/persist/audio'").status, 0);
    EXPECT_TRUE(std::filesystem::exists(other + "/journal"));
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{1})) << "the fixture's folder";
    EXPECT_EQ(tool("run -- /nonexistent/command").status, 127);
    EXPECT_EQ(tool("run --dir").status, 2);
    EXPECT_EQ(tool("run --").status, 2);
}

TEST_F(ToolTest, ShowJournalAndInitReportAndResetTheState)
{
    preset_enum(0, "T PCM Source", "DSP");
    preset_bytes(0, "B DSP1 Protection 5f210 CH_BAL", {0, 0, 0, 3});
    ASSERT_EQ(amixer(0, "cset name='T DSP Mode' 2").status, 0);
    const std::string mode_line = "T DSP Mode                                   int              ";
    CommandResult show = tool("show 0");
    EXPECT_EQ(show.status, 0);
    for (const std::string &part :
         std::vector<std::string>{" DSP\n", "00 00 00 03\n", "bytes[4] tlv", mode_line + "2\n"})
        EXPECT_NE(show.output.find(part), std::string::npos) << part;
    EXPECT_EQ(show.output.find("PCM100"), std::string::npos);
    EXPECT_NE(tool("show 100").output.find("bytes[1024] tlv  00 00 00 00 (+1020 zero bytes)"),
              std::string::npos);
    EXPECT_EQ(tool("journal").output, "ctl 0 \"T DSP Mode\" = 2\n");
    EXPECT_EQ(tool("journal --clear").status, 0);
    EXPECT_EQ(tool("journal").output, "");

    ASSERT_EQ(amixer(0, "cset name='B DSP Mode' 2").status, 0);
    CommandResult init = tool("init");
    EXPECT_EQ(init.status, 0);
    EXPECT_EQ(init.output, "simulator ready in " + sim_dir() + "\n");
    EXPECT_EQ(tool("journal").output, "");
    EXPECT_NE(tool("show 0").output.find(mode_line + "1\n"), std::string::npos);
}

TEST_F(ToolTest, BadUsageFailsWithItsReason)
{
    const std::pair<const char *, const char *> bad[] = {
        {"", "usage: tvoxsim COMMAND"},
        {"frobnicate", "unknown command \"frobnicate\""},
        {"show 7", "no such card: 7"},
        {"show x", "no such card: x"},
        {"init a b", "usage: tvoxsim init [DIR]"},
        {"journal --all", "usage: tvoxsim journal [--clear]"},
    };
    for (const auto &[args, message] : bad) {
        CommandResult result = tool(args);
        EXPECT_EQ(result.status, 2) << args;
        EXPECT_NE(result.output.find(message), std::string::npos) << args << ": " << result.output;
    }
    CommandResult help = tool("--help");
    EXPECT_EQ(help.status, 0);
    for (const char *command : {"init", "env", "run", "show", "journal"})
        EXPECT_NE(help.output.find(std::string("\n  ") + command + " "), std::string::npos);
    EXPECT_EQ(tool("init /proc/forbidden").status, 1);
}

} // namespace
