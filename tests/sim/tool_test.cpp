// The tvoxsim command-line tool.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace
{

using tvox::test::CommandResult;

using ToolTest = tvox::test::SimTest;

TEST_F(ToolTest, EnvAndRunPutCommandsInsideTheSimulator)
{
    std::filesystem::current_path(sim_dir());
    // A folder that is not a simulator is refused, not silently made one.
    std::string other = sim_dir() + "/it's here";
    const std::string not_simulator = "tvoxsim: " + other + " is not a simulator folder (tvoxsim " +
                                      "init " + other + " makes one)\n";
    for (const std::string &command :
         {"env \"" + other + "\"", "run --dir \"" + other + "\" true"}) {
        const CommandResult refused = tool(command);
        EXPECT_EQ(refused.status, 1) << command;
        EXPECT_EQ(refused.output, not_simulator) << command;
    }
    EXPECT_FALSE(std::filesystem::exists(other));
    ASSERT_EQ(tool("init \"" + other + "\"").status, 0);

    CommandResult env = tool("env \"it's here\"");
    EXPECT_EQ(env.status, 0);
    const std::string quoted = "'" + sim_dir() + "/it'\\''s here";
    const std::string exports =
        "export TVOXSIM_DIR=" + quoted + "'\n" +
        "export ALSA_CONFIG_PATH='/usr/share/alsa/alsa.conf:" + conf_path() +
        "'\nexport TINYALSA_CARD_0='tvoxsim:0'\n"
        "export TINYALSA_CARD_100='tvoxsim:100'\n"
        "export TVOXSP_LOG_FILE=" +
        quoted + "/tvoxsp.log'\n";
    EXPECT_EQ(env.output.substr(0, exports.size()), exports);
    // Last, the preload that maps the phone paths.
    EXPECT_EQ(env.output.substr(exports.size()).rfind("export LD_PRELOAD='/", 0), 0u) << env.output;

    CommandResult run = tool("run --dir \"" + other +
                             "\" -- sh -c 'echo $TVOXSIM_DIR; amixer -D $TINYALSA_CARD_0 cset "
                             "name=\"T DSP Mode\" 3 >/dev/null && exit 7'");
    EXPECT_EQ(run.status, 7) << run.output;
    EXPECT_EQ(run.output, other + "\n");
    // The command sees the phone's persist folder, which lives in the simulator folder.
    EXPECT_EQ(
        tool("run --dir \"" + other + "\" -- sh -c 'test -d /mnt/vendor/persist/audio'").status, 0);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{1})) << "the fixture's folder";
}

TEST_F(ToolTest, ShowJournalAndInitReportAndResetTheStateOrSayWhyNot)
{
    ASSERT_EQ(amixer(0, "cset name='T DSP Mode' 2").status, 0);
    const std::string mode_line = "T DSP Mode                                   int              ";
    EXPECT_NE(tool("show 0").output.find(mode_line + "2\n"), std::string::npos);
    EXPECT_EQ(tool("journal").output, "ctl 0 \"T DSP Mode\" = 2\n");

    EXPECT_EQ(tool("init --force").output, "simulator ready in " + sim_dir() + "\n");
    EXPECT_EQ(tool("journal").output, "");
    EXPECT_NE(tool("show 0").output.find(mode_line + "1\n"), std::string::npos);

    const CommandResult bad = tool("show x");
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.output.find("no such card: x"), std::string::npos) << bad.output;
    EXPECT_EQ(tool("init /proc/forbidden").status, 1);
}

TEST_F(ToolTest, HelpNamesTheDefaultFolderAndAgmTakesOnlyKnownBackEnds)
{
    const CommandResult help = tool("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("The simulator folder is $TVOXSIM_DIR, by default "
                               "/tmp/tvoxsim-<uid> (now " +
                               sim_dir() + ")."),
              std::string::npos)
        << help.output;

    EXPECT_EQ(tool("agm mfc TDM-LPAIF-RX-SECONDARY off").status, 0);
    const CommandResult unknown = tool("agm mfc TDM-LPAIF-RX-SECUNDARY off");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.output.rfind("tvoxsim: no such back end: TDM-LPAIF-RX-SECUNDARY\n", 0), 0u)
        << unknown.output;
    EXPECT_EQ(tool("agm").output, "interface TDM-LPAIF-RX-SECONDARY mfc off\n");
}

// Control faults reach every client that opens the card afterwards, as amixer shows.
TEST_F(ToolTest, ControlFaultsHideAControlOrRefuseItsWritesUntilRestored)
{
    const size_t listed = amixer(0, "controls").output.size();
    EXPECT_EQ(tool("control remove 'T DSP Mode'").output, "control 0 \"T DSP Mode\": missing\n");
    EXPECT_EQ(tool("control refuse 'PCM100 control' --errno 5").output,
              "control 0 \"T DSP Mode\": missing\n"
              "control 100 \"PCM100 control\": refuses writes with errno 5 (Input/output error)\n");

    // Missing: not listed, not found by name, and element numbers stay contiguous.
    const std::string controls = amixer(0, "controls").output;
    EXPECT_EQ(controls.find("'T DSP Mode'"), std::string::npos);
    EXPECT_EQ(controls.size() + std::string("numid=NN,iface=MIXER,name='T DSP Mode'\n").size(),
              listed);
    const size_t last = controls.rfind("numid=");
    const size_t count = static_cast<size_t>(std::count(controls.begin(), controls.end(), '\n'));
    EXPECT_EQ(std::stoul(controls.substr(last + 6)), count) << controls;
    EXPECT_NE(amixer(0, "cget name='T DSP Mode'").status, 0);
    EXPECT_EQ(amixer(0, "cget numid=" + std::to_string(count + 1)).status, 1);
    // Still there inside: the firmware has it, only the card does not offer it.
    EXPECT_NE(tool("show 0").output.find("    -  T DSP Mode "), std::string::npos);

    // Refused: the write fails with the errno and the value stays.
    const CommandResult refused = amixer(100, "cset name='PCM100 control' 1");
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.output.find("Input/output error"), std::string::npos) << refused.output;
    EXPECT_EQ(amixer_values(100, "PCM100 control"), "0");
    EXPECT_NE(tool("show 100").output.find("[refuses writes]"), std::string::npos);

    EXPECT_EQ(tool("control restore 'T DSP Mode'").status, 0);
    EXPECT_EQ(amixer(0, "cset name='T DSP Mode' 2").status, 0);
    EXPECT_EQ(tool("control restore").output, "control faults: none\n");
    EXPECT_EQ(amixer(100, "cset name='PCM100 control' 1").status, 0);

    // Only controls of the catalogue, on the card named.
    for (const char *bad : {"remove 'T No Such Control'", "remove 'T DSP Mode' --card 100",
                            "refuse 'T DSP Mode' --errno 0", "drop 'T DSP Mode'", "remove"}) {
        const CommandResult usage = tool(std::string("control ") + bad);
        EXPECT_EQ(usage.status, 2) << bad;
        EXPECT_NE(usage.output.find("usage: tvoxsim control"), std::string::npos) << bad;
    }
}

} // namespace
