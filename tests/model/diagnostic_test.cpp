// The F0 diagnostic words and the CAL_R the DSP uses.
#include "model_fixture.h"

#include <array>
#include <string>

namespace
{

using tvox::sim::now_ns;
using tvox::sim::SpeakerFault;
using tvox::test::expected_raw;
using tvox::test::ModelTest;
using Diag = std::array<int32_t, 3>; // F0 status, F0, Z_LOW_DIFF

// The diagnosis of a channel, checked to be the same on both parameter tables.
Diag diag(ModelTest &test, const std::string &x)
{
    Diag both[2];
    for (int i = 0; i < 2; ++i) {
        const std::string prefix = x + (i == 0 ? " Protection 5f210 " : " DSP1 Protection 5f210 ");
        both[i] = {test.word(prefix + "DIAG_F0_STATUS"), test.word(prefix + "DIAG_F0"),
                   test.word(prefix + "DIAG_Z_LOW_DIFF")};
    }
    EXPECT_EQ(both[0], both[1]) << x;
    return both[0];
}

using DiagnosticTest = ModelTest;

TEST_F(DiagnosticTest, EachLongEnoughSilentRunMeasuresF0OfTheSpeakersOfTheMoment)
{
    set_speaker(0, 5.5, SpeakerFault::none, 812.4);
    set_speaker(1, 6.5, SpeakerFault::f0_failure, 1000);

    // A second of silence is too short; the amplifiers need not be on.
    const int64_t now = now_ns();
    record_stream(now - 3 * kSecond, now - 2 * kSecond, 0.0);
    EXPECT_EQ(diag(*this, "T")[0], 0);
    record_stream(now - 2 * kSecond, now, 0.0);
    // Measured resistance below the CAL_R in use: a negative difference.
    EXPECT_EQ(diag(*this, "T"), (Diag{2, 812, expected_raw(5.5) - 8391}));
    EXPECT_EQ(diag(*this, "B"), (Diag{1, 1000, expected_raw(6.5) - 8391}));

    // The DSP now works with the speaker's own CAL_R: the next measurement finds no difference.
    set("T DSP Set CAL_R", expected_raw(5.5));
    EXPECT_EQ(diag(*this, "T")[2], expected_raw(5.5) - 8391);
    record_stream(now_ns() - 2 * kSecond, 0, 0.0);
    EXPECT_EQ(diag(*this, "T")[2], 0);
}

} // namespace
