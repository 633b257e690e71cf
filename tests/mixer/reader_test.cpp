// The control readers and the setter/reader self-test.
#include "mixer_fixture.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using Reader = tvox::test::MixerTest;

constexpr const char *kPlainBytes = "T DSP1 Protection 5f210 CH_BAL";
constexpr const char *kTlvBytes = "RCV DSP1 Protection cd CAL_R";

// Byte controls copy their bytes (behind TLV access without the header); others deliver their
// first value; a control number reads the same control.
TEST_F(Reader, BytesInOrderOrTheFirstValue)
{
    std::array<int32_t, 2> out{-7, -7};
    preset_bytes(0, kTlvBytes, {0x01, 0x02, 0x03, 0x04});
    EXPECT_EQ(get(number_of(kTlvBytes).c_str(), out.data()), 4);
    EXPECT_EQ(out, (std::array<int32_t, 2>{0x04030201, -7}));
    EXPECT_EQ(out_ + err_, "");
    preset_ints(0, "SPK Digital PCM Volume", {100, 200});
    EXPECT_EQ(get("SPK Digital PCM Volume", out.data()), 2);
    EXPECT_EQ(out, (std::array<int32_t, 2>{100, -7}));
    EXPECT_EQ(out_, "tervox: isBug ? (nvalue = 2 )\n");
    // An enumerated control prints its current item and delivers the item's index.
    preset_enum(0, "T PCM Source", "DSP");
    EXPECT_EQ(get("T PCM Source", out.data()), 1);
    EXPECT_EQ(out[0], 2);
    EXPECT_EQ(out_, "DSP");

    EXPECT_EQ(get("No Such Control", out.data()), 0);
    EXPECT_EQ(out[0], 2);
    EXPECT_EQ(err_, "Invalid mixer control: No Such Control\n");
    EXPECT_EQ(out_, "Get 'No Such Control' Failed\n");
}

TEST_F(Reader, DspWordsReadAsSigned25BitNumbers)
{
    const struct {
        std::vector<uint8_t> bytes;
        int32_t value;
        const char *logged;
    } cases[] = {
        {{0x01, 0xFF, 0xFF, 0xFF}, -1, "ffffffff"},
        {{0x00, 0xFF, 0xFF, 0xFF}, 16777215, "ffffff"},
        {{0xFE, 0x00, 0x00, 0x01}, 1, "     1"}, // bits above the sign are ignored
    };
    LogCapture log;
    for (const auto &c : cases) {
        preset_bytes(0, kPlainBytes, c.bytes);
        EXPECT_EQ(tervox_dsp_tmixer_get(mixer(), kPlainBytes), c.value) << c.logged;
        ASSERT_FALSE(log.lines().empty());
        EXPECT_EQ(log.lines().back().text, std::string("tervox_dsp_tmixer_get: ctl(") +
                                               kPlainBytes + ") = " + c.logged + "\n");
        EXPECT_EQ(log.lines().back().priority, 3);
        EXPECT_EQ(log.lines().back().tag, "AHAL:TERVOX");
    }
    // A missing control leaves the preset, which reads as a recognisable number.
    EXPECT_EQ(captured([&] { return tervox_dsp_tmixer_get(mixer(), "No Such Control"); }),
              -5636096);
}

TEST_F(Reader, SelfTestPrintsWhatReadsBack)
{
    EXPECT_EQ(captured(tervox_tmixer_test), 0);
    EXPECT_EQ(out_, "Default: 00 00 15 14, num=4\n"
                    "RCV DSP1 Protection cd CAL_R: e0f0000 0 0 0 \n");
    EXPECT_EQ(bytes(0, kTlvBytes), (std::vector<uint8_t>{0x00, 0x00, 0x0F, 0x0E}));

    tvox::test::break_card();
    EXPECT_EQ(captured(tervox_tmixer_test), 19);
    EXPECT_EQ(err_, "Failed to open mixer\n");
    EXPECT_EQ(out_, "");
}

} // namespace
