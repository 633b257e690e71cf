// The control readers and the setter/reader self-test.
#include "mixer_fixture.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using tvox::test::StreamCapture;
using Reader = tvox::test::MixerTest;
using Bytes8 = std::array<uint8_t, 8>;

constexpr const char *kPlainBytes = "T DSP1 Protection 5f210 CH_BAL";
constexpr const char *kTlvBytes = "RCV DSP1 Protection cd CAL_R";

TEST_F(Reader, ByteControlsCopyTheirBytesInOrder)
{
    Bytes8 out;
    out.fill(0xEE);
    preset_bytes(0, kPlainBytes, {0x00, 0x00, 0x15, 0x14});
    EXPECT_EQ(get(kPlainBytes, out.data()), 4);
    EXPECT_EQ(out, (Bytes8{0x00, 0x00, 0x15, 0x14, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(out_ + err_, "");
    // Behind TLV access the header is left out; a control number reads the same control.
    preset_bytes(0, kTlvBytes, {0x01, 0x02, 0x03, 0x04});
    EXPECT_EQ(get(number_of(kTlvBytes).c_str(), out.data()), 4);
    EXPECT_EQ(out, (Bytes8{0x01, 0x02, 0x03, 0x04, 0xEE, 0xEE, 0xEE, 0xEE}));
}

TEST_F(Reader, OtherControlsDeliverTheirFirstValue)
{
    std::array<int32_t, 2> out{-7, -7};
    preset_ints(0, "SPK Digital PCM Volume", {100, 200});
    EXPECT_EQ(get("SPK Digital PCM Volume", out.data()), 2);
    EXPECT_EQ(out, (std::array<int32_t, 2>{100, -7}));
    EXPECT_EQ(out_, "tervox: isBug ? (nvalue = 2 )\n");
    preset_ints(0, "SPK AMP Enable Switch", {0, 1});
    EXPECT_EQ(get("SPK AMP Enable Switch", out.data()), 2);
    EXPECT_EQ(out[0], 0);
    preset_ints(0, "T DSP Set CAL_AMBIENT", {-12});
    EXPECT_EQ(get("T DSP Set CAL_AMBIENT", out.data()), 1);
    EXPECT_EQ(out[0], -12);
    EXPECT_EQ(out_, "");
    // An enumerated control prints its current item and delivers the item's index.
    preset_enum(0, "T PCM Source", "DSP");
    EXPECT_EQ(get("T PCM Source", out.data()), 1);
    EXPECT_EQ(out[0], 2);
    EXPECT_EQ(out_, "DSP");
    EXPECT_EQ(err_, "");

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
        {{0x01, 0x00, 0x00, 0x00}, -16777216, "ff000000"},
        {{0xFE, 0x00, 0x00, 0x01}, 1, "     1"}, // bits above the sign are ignored
        {{0x00, 0x00, 0x20, 0xC7}, 8391, "  20c7"},
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
