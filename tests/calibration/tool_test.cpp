// The tvoxsp command-line tool, run as a user runs it (its environment reaches the virtual card).
#include "calibration/context_fixture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace
{

using tvox::test::SimContextTest;

struct Outcome {
    int status;
    std::string out;
};

Outcome run_tool(const std::string &arguments)
{
    const std::string command = std::string(TVOXSP_TOOL_PATH) + " " + arguments + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return {-1, {}};
    std::string out;
    char buffer[512];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

using TvoxspToolTest = SimContextTest;

TEST_F(TvoxspToolTest, HelpAndUsageErrors)
{
    const Outcome help = run_tool("--help");
    EXPECT_EQ(help.status, 0);
    for (const char *command : {"calibrate", "diagnose", "report [--f0]"})
        EXPECT_NE(help.out.find(command), std::string::npos) << command;

    const Outcome none = run_tool("");
    EXPECT_EQ(none.status, 2);
    EXPECT_NE(none.out.find("usage: tvoxsp <command>"), std::string::npos);

    const Outcome unknown = run_tool("calibrat");
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.out.find("unknown command 'calibrat'"), std::string::npos);

    const Outcome extra = run_tool("report --f1");
    EXPECT_EQ(extra.status, 2);
    EXPECT_NE(extra.out.find("usage: tvoxsp report [--f0]"), std::string::npos);
    EXPECT_EQ(run_tool("diagnose now").status, 2);
}

TEST_F(TvoxspToolTest, ReportPrintsTheTable)
{
    preset_ints(0, "T DSP Set CAL_R", {8500});
    const Outcome report = run_tool("report --f0");
    EXPECT_EQ(report.status, 0);
    EXPECT_NE(report.out.find("'CHANNEL'     'FS'     'AMP DSP'  'KERNEL'\n"), std::string::npos);
    EXPECT_NE(report.out.find("-     8500\n"), std::string::npos);
    EXPECT_NE(report.out.find("F0 CH[1]:"), std::string::npos);
}

} // namespace
