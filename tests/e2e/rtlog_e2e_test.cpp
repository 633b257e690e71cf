// The live protection log as an engineer watches it: `tvoxsp rtlog` runs while the virtual pair
// first hears nothing, then a loud file, then the same file on a shorted top speaker; Ctrl-C ends
// it, and `tvoxsp rtlog-plot` draws the log. Real processes and real time, checked on what the
// log shows, not on how long anything took.
#include "calibration/context_fixture.h"
#include "mixer/paths.h"
#include "phone.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace
{

using tvox::test::read_file;

struct Columns {
    double var1, combined;
};

// The columns of channel `label` in each sample line of the log.
std::vector<Columns> channel_columns(const std::string &log, const std::string &label)
{
    std::vector<Columns> all;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find(" " + label + ": ");
        if (at == std::string::npos)
            continue;
        Columns c{};
        double max1 = 0;
        if (std::sscanf(line.c_str() + at + label.size() + 3, "%lf, %lf, %lf", &c.var1, &max1,
                        &c.combined) == 3)
            all.push_back(c);
    }
    return all;
}

class RtlogE2eTest : public tvox::test::SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        install_phone();
        set_speaker(0, 8.0);
        set_speaker(1, 8.0);
    }
};

TEST_F(RtlogE2eTest, SilenceLoudPlayAndAShortedSpeakerShowInTheLogAndItsChart)
{
    ASSERT_EQ(tvox::apply_path(tvox::amp_on_dsp_path), 0);
    const std::string wav = folder_file("loud.wav", tvox::sim::loud_wav());
    const std::string tvoxsp = TVOXSP_TOOL_PATH;
    // aplay is not ours: it runs without the preload (and its sanitizer runtime).
    const std::string play = "env -u LD_PRELOAD aplay -q -D tvoxsim:0 " + wav;
    const auto run = run_command(tvoxsp + " rtlog --interval 50 >" + sim_dir() +
                                 "/rtlog.out 2>/dev/null & p=$!; sleep 0.6; " + play + " && " +
                                 tool_path() + " speaker T --fault shorted >/dev/null && " + play +
                                 "; sleep 0.3; kill -INT $p; wait $p");
    ASSERT_EQ(run.status, 0) << run.output;

    const std::string out = read_file(sim_dir() + "/rtlog.out");
    // The signal may land while a sample is taken: that sample is finished and printed.
    EXPECT_NE(out.find("\nshutdown\n"), std::string::npos) << out;
    EXPECT_TRUE(out.ends_with("rtlog exit - OK\n")) << out;
    const std::string log = read_file(phone("/sdcard/Download/rtlog.txt"));
    const std::vector<Columns> top = channel_columns(log, "T");
    const std::vector<Columns> bottom = channel_columns(log, "B");
    ASSERT_GT(top.size(), 20u) << log;
    // Silence first: a cold coil and nothing driven.
    EXPECT_EQ(top.front().combined, 0.0);
    EXPECT_EQ(top.front().var1, 25.0);
    // Loud play on healthy speakers: about 8 V into 8 ohm; the coils warm up.
    const auto loud = [](const Columns &c) { return c.combined > 5 && c.combined < 12; };
    EXPECT_TRUE(std::any_of(bottom.begin(), bottom.end(), loud));
    EXPECT_TRUE(std::any_of(top.begin(), top.end(), loud));
    EXPECT_GT(bottom.back().var1, 25.0);
    // The shorted top speaker draws the amplifier's limit; the bottom one does not.
    EXPECT_TRUE(
        std::any_of(top.begin(), top.end(), [](const Columns &c) { return c.combined > 100; }));
    EXPECT_FALSE(std::any_of(bottom.begin(), bottom.end(),
                             [](const Columns &c) { return c.combined > 100; }));

    // The chart needs no phone path; gnuplot, not ours, runs without the preload.
    const std::string plotter = "env -u LD_PRELOAD " + tvoxsp + " rtlog-plot ";
    const std::string chart = sim_dir() + "/rtlog.svg";
    const auto plot = run_command(plotter + phone("/sdcard/Download/rtlog.txt") + " -o " + chart);
    ASSERT_EQ(plot.status, 0) << plot.output;
    const std::string svg = read_file(chart);
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("T active"), std::string::npos);
    EXPECT_NE(svg.find("B max"), std::string::npos);
    EXPECT_EQ(run_command(plotter + sim_dir() + "/rtlog.out -o x.pdf").status, 1);
    EXPECT_EQ(run_command(plotter + wav + " -o " + chart).status, 1) << "no sample lines";
}

// The register commands and switches through the tool, on the same virtual pair.
TEST_F(RtlogE2eTest, ToolDrivesRegistersAndSwitches)
{
    const std::string tvoxsp = TVOXSP_TOOL_PATH;
    const auto quiet = [&](const std::string &args) {
        return run_command(tvoxsp + " " + args + " 2>&1 | grep -v AHAL | grep -v '^$'");
    };
    EXPECT_EQ(quiet("reg write 0x2020 12").output,
              "write : 0x2020 -- T: 0x0000000c, B: 0x0000000c,  \n");
    EXPECT_EQ(quiet("reg update 8224 0x0c 0x04").output,
              "update bits : 0x2020 -- T: 0x00000004, B: 0x00000004,  \n");
    EXPECT_EQ(quiet("reg read 0x2020").output,
              "read : 0x2020 -- T: 0x00000004, B: 0x00000004,  \n");
    EXPECT_EQ(run_command(tvoxsp + " swap --dsp on >/dev/null 2>&1").status, 0);
    EXPECT_EQ(bytes(0, "T DSP1 Protection 5f210 CH_BAL"), (std::vector<uint8_t>{0, 40, 0, 0}));
    EXPECT_EQ(run_command(tvoxsp + " bypass B on >/dev/null 2>&1").status, 0);
    EXPECT_EQ(enum_item(0, "B PCM Source"), "ASPRX1");
    EXPECT_EQ(enum_item(0, "T PCM Source"), "ASPRX1") << "untouched default";
    for (const char *bad :
         {" reg read", " reg read 0x1 0x2", " reg write 0x10 -1", " reg peek 1", " monitor",
          " monitor --interval x 0x10", " bypass X on", " swap maybe", " rtlog 5", " info now"})
        EXPECT_EQ(run_command(tvoxsp + bad + " >/dev/null 2>&1").status, 2) << bad;
}

} // namespace
