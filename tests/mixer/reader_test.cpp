// The control readers and the setter/reader self-test.
#include "mixer_fixture.h"
#include "support/capture.h"
#include "tvoxsp/mixer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace
{

using tvox::test::LogCapture;
using tvox::test::StreamCapture;

constexpr const char *kPlainBytes = "T DSP1 Protection 5f210 CH_BAL";
constexpr const char *kTlvBytes = "RCV DSP1 Protection cd CAL_R";

class Reader : public tvox::test::MixerTest
{
  protected:
    // Reads a control into `out`, recording both standard streams.
    int32_t get(const char *control, void *out)
    {
        StreamCapture err(2);
        StreamCapture out_stream(1);
        const int32_t count = tervox_tmixer_get(mixer(), control, out);
        err_ = err.text();
        out_ = out_stream.text();
        return count;
    }
    std::string err_;
    std::string out_;
};

TEST_F(Reader, ByteControlsCopyTheirBytesInOrder)
{
    std::array<uint8_t, 8> out;
    out.fill(0xEE);
    preset_bytes(0, kPlainBytes, {0x00, 0x00, 0x15, 0x14});
    EXPECT_EQ(get(kPlainBytes, out.data()), 4);
    EXPECT_EQ(out, (std::array<uint8_t, 8>{0x00, 0x00, 0x15, 0x14, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(out_, "");
    EXPECT_EQ(err_, "");

    // Behind TLV access the header is left out.
    preset_bytes(0, kTlvBytes, {0x01, 0x02, 0x03, 0x04});
    out.fill(0xEE);
    EXPECT_EQ(get(kTlvBytes, out.data()), 4);
    EXPECT_EQ(out, (std::array<uint8_t, 8>{0x01, 0x02, 0x03, 0x04, 0xEE, 0xEE, 0xEE, 0xEE}));

    // What the setter wrote reads back unchanged, also by control number.
    ASSERT_EQ(tervox_tmixer_set(mixer(), kPlainBytes, "0xde 0xad 0xbe 0xef"), 0);
    out.fill(0);
    EXPECT_EQ(get(number_of(kPlainBytes).c_str(), out.data()), 4);
    EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 4),
              (std::vector<uint8_t>{0xDE, 0xAD, 0xBE, 0xEF}));
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
}

TEST_F(Reader, MissingControlReadsAsZeroCount)
{
    int32_t out = 1234;
    EXPECT_EQ(get("No Such Control", &out), 0);
    EXPECT_EQ(out, 1234);
    EXPECT_EQ(err_, "Invalid mixer control: No Such Control\n");
    EXPECT_EQ(out_, "Get 'No Such Control' Failed\n");
    EXPECT_EQ(get("99999", &out), 0);
    EXPECT_EQ(out_, "Get '99999' Failed\n");
}

TEST_F(Reader, DspWordsReadAsSigned25BitNumbers)
{
    struct Case {
        std::vector<uint8_t> bytes;
        int32_t value;
        const char *logged;
    };
    const Case cases[] = {
        {{0x01, 0xFF, 0xFF, 0xFF}, -1, "ffffffff"},
        {{0x00, 0xFF, 0xFF, 0xFF}, 16777215, "ffffff"},
        {{0x00, 0x7F, 0xFF, 0xFF}, 8388607, "7fffff"},
        {{0x01, 0x00, 0x00, 0x00}, -16777216, "ff000000"},
        {{0xFE, 0x00, 0x00, 0x01}, 1, "     1"}, // bits above the sign are ignored
        {{0x00, 0x00, 0x20, 0xC7}, 8391, "  20c7"},
    };
    LogCapture log;
    for (const auto &c : cases) {
        preset_bytes(0, kPlainBytes, c.bytes);
        log.clear();
        EXPECT_EQ(tervox_dsp_tmixer_get(mixer(), kPlainBytes), c.value) << c.logged;
        EXPECT_TRUE(log.contains(std::string("tervox_dsp_tmixer_get: ctl(") + kPlainBytes +
                                     ") = " + c.logged + "\n",
                                 "AHAL:TERVOX"))
            << c.logged;
    }
    // A missing control leaves the preset, which reads as a recognisable number.
    StreamCapture quiet_err(2);
    StreamCapture quiet_out(1);
    EXPECT_EQ(tervox_dsp_tmixer_get(mixer(), "No Such Control"), -5636096);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines().back().priority, 3);
}

TEST_F(Reader, SelfTestPrintsWhatReadsBack)
{
    StreamCapture out(1);
    EXPECT_EQ(tervox_tmixer_test(), 0);
    EXPECT_EQ(out.text(), "Default: 00 00 15 14, num=4\n"
                          "RCV DSP1 Protection cd CAL_R: e0f0000 0 0 0 \n");
    EXPECT_EQ(bytes(0, kTlvBytes), (std::vector<uint8_t>{0x00, 0x00, 0x0F, 0x0E}));
}

TEST_F(Reader, SelfTestWithoutMixer)
{
    tvox::test::break_card();
    StreamCapture err(2);
    StreamCapture out(1);
    EXPECT_EQ(tervox_tmixer_test(), 19);
    EXPECT_EQ(err.text(), "Failed to open mixer\n");
    EXPECT_EQ(out.text(), "");
}

} // namespace
