// The speaker rules alone, and the tvoxsim commands that set and show the speakers.
#include "model_fixture.h"

#include "speaker.h"

#include <limits>
#include <string>

namespace
{

namespace dsp = tvox::sim::dsp;
using tvox::sim::SpeakerFault;

TEST(SpeakerRules, ResistanceCodesWordsAndNames)
{
    // 8192 raw steps per 5.85714 ohms, rounded to nearest; nothing leaves the positive range.
    EXPECT_EQ(dsp::raw_from_ohms(6.0), 8392);
    EXPECT_EQ(dsp::raw_from_ohms(5.99934), 8391);
    EXPECT_EQ(dsp::raw_from_ohms(-3), 0);
    EXPECT_EQ(dsp::raw_from_ohms(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(dsp::raw_from_ohms(1e9), 0xFFFFFF);

    // Signed 25-bit words clamp what they cannot hold.
    EXPECT_EQ(dsp::to_word(0x7FFFFFFF), 0xFFFFFFu);
    EXPECT_EQ(dsp::to_word(-0x7FFFFFFF), 0x1000000u);

    for (auto fault : {SpeakerFault::none, SpeakerFault::open, SpeakerFault::shorted,
                       SpeakerFault::calibration_failure, SpeakerFault::f0_failure})
        EXPECT_EQ(dsp::fault_from_name(dsp::fault_name(fault)), fault);
    EXPECT_FALSE(dsp::fault_from_name("Open"));
    EXPECT_EQ(dsp::channel_from_name("B"), 1u);
    EXPECT_EQ(dsp::channel_from_name("1"), 1u);
    EXPECT_FALSE(dsp::channel_from_name("2"));
    EXPECT_FALSE(dsp::channel_from_name("t"));
}

using SpeakerToolTest = tvox::test::ModelTest;

TEST_F(SpeakerToolTest, SpeakerSetsOnlyWhatItIsGivenAndRefusesBadInput)
{
    EXPECT_EQ(tool("speaker T --ohms 6.2 --fault open").output,
              "T: speaker 6.20 ohm (CAL_R 8672), F0 800 Hz, fault open\n");
    const tvox::test::CommandResult run = tool("speaker 0 --f0 912.6");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "T: speaker 6.20 ohm (CAL_R 8672), F0 913 Hz, fault open\n");
    EXPECT_EQ(journal_lines().back(), "speaker T 6.20 ohm f0 913 Hz fault open");

    for (const char *bad : {"speaker", "speaker X", "speaker T --ohms", "speaker T --ohms abc",
                            "speaker T --ohms 0", "speaker T --f0 -5", "speaker T --fault melted",
                            "speaker T --volume 3", "speaker B --ohms 7 --fault"}) {
        const tvox::test::CommandResult refused = tool(bad);
        EXPECT_EQ(refused.status, 2) << bad;
        EXPECT_NE(refused.output.find("usage: tvoxsim speaker"), std::string::npos) << bad;
    }
    // Nothing was half applied.
    tvox::sim::Session session = state().lock();
    EXPECT_DOUBLE_EQ(session.speaker(0).resistance_ohm, 6.2);
    EXPECT_DOUBLE_EQ(session.speaker(0).f0_hz, 912.6);
    EXPECT_EQ(session.speaker(0).fault, SpeakerFault::open);
    EXPECT_DOUBLE_EQ(session.speaker(1).resistance_ohm, 6.0);
    EXPECT_EQ(session.speaker(1).fault, SpeakerFault::none);
}

TEST_F(SpeakerToolTest, SpeakersShowsTheCalR_InUseAndWhatTheDspReports)
{
    set("B DSP Set CAL_R", 9000);
    set("T DSP Mode", 2);
    const tvox::test::CommandResult run = tool("speakers");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "T: speaker 6.00 ohm (CAL_R 8392), F0 800 Hz, fault none\n"
                          "T: DSP uses CAL_R 8391 (6.00 ohm)\n"
                          "T: calibrating, status 0, CAL_R 8391 (6.00 ohm), checksum 0\n"
                          "T: F0 status 0, F0 0 Hz, Z_LOW_DIFF 0, amplifier idle\n"
                          "B: speaker 6.00 ohm (CAL_R 8392), F0 800 Hz, fault none\n"
                          "B: DSP uses CAL_R 9000 (6.43 ohm)\n"
                          "B: not calibrated, status 0, CAL_R 8391 (6.00 ohm), checksum 0\n"
                          "B: F0 status 0, F0 0 Hz, Z_LOW_DIFF 0, amplifier idle\n");
    EXPECT_EQ(tool("speakers T").status, 2);
}

} // namespace
