// The tvoxsim commands that set and show the speakers.
#include "model_fixture.h"

#include <string>

namespace
{

using tvox::sim::SpeakerFault;

using SpeakerToolTest = tvox::test::ModelTest;

TEST_F(SpeakerToolTest, SpeakerSetsOnlyWhatItIsGivenAndSpeakersShowsIt)
{
    EXPECT_EQ(tool("speaker T --ohms 6.2 --fault open").output,
              "T: speaker 6.20 ohm (CAL_R 8672), F0 800 Hz, fault open\n");
    const tvox::test::CommandResult run = tool("speaker 0 --f0 912.6");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "T: speaker 6.20 ohm (CAL_R 8672), F0 913 Hz, fault open\n");
    EXPECT_EQ(journal_lines().back(), "speaker T 6.20 ohm f0 913 Hz fault open");

    for (const char *bad :
         {"speaker X", "speaker T --ohms abc", "speaker T --fault melted",
          "speaker B --ohms 7 --fault", "speaker B --ohms 1e300", "speaker B --ohms 0",
          "speaker B --f0 24001", "speaker B --f0 -800", "speaker B --f0 8x", "speaker B --f0"}) {
        const tvox::test::CommandResult refused = tool(bad);
        EXPECT_EQ(refused.status, 2) << bad;
        EXPECT_NE(refused.output.find("usage: tvoxsim speaker"), std::string::npos) << bad;
    }
    // Nothing was half applied.
    {
        tvox::sim::Session session = state().lock();
        EXPECT_DOUBLE_EQ(session.speaker(0).resistance_ohm, 6.2);
        EXPECT_DOUBLE_EQ(session.speaker(0).f0_hz, 912.6);
        EXPECT_EQ(session.speaker(0).fault, SpeakerFault::open);
        EXPECT_DOUBLE_EQ(session.speaker(1).resistance_ohm, 6.0);
        EXPECT_EQ(session.speaker(1).fault, SpeakerFault::none);
    }
    // `speakers` shows the CAL_R the DSP uses.
    set("B DSP Set CAL_R", 9000);
    EXPECT_NE(tool("speakers").output.find("\nB: DSP uses CAL_R 9000 (6.43 ohm)\n"),
              std::string::npos);
}

} // namespace
