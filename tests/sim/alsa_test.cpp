// The virtual cards as amixer, an ALSA client in a process of its own, sees them.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{

using AlsaTest = tvox::test::SimTest;

TEST_F(AlsaTest, FillerControlsFollowTheRealOnesOnCardZero)
{
    setenv("TVOXSIM_FILLER", "12", 1);
    std::string controls = amixer(0, "controls").output;
    EXPECT_NE(controls.find("name='Filler Control 0011'"), std::string::npos);
    EXPECT_EQ(controls.find("name='Filler Control 0012'"), std::string::npos);
    EXPECT_EQ(amixer(100, "controls").output.find("Filler"), std::string::npos);
    EXPECT_EQ(amixer(0, "cset name='Filler Control 0007' 42").status, 0);
    EXPECT_EQ(journal_lines(), (std::vector<std::string>{"ctl 0 \"Filler Control 0007\" = 42"}));
    unsetenv("TVOXSIM_FILLER");
    EXPECT_EQ(amixer(0, "controls").output.find("Filler"), std::string::npos);
    EXPECT_NE(amixer(7, "controls").status, 0) << "no such card in the catalogue";
}

} // namespace
