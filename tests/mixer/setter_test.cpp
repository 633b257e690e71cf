// The control setter: value text, control lookup, every failure with its message and status.
#include "mixer_fixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<uint8_t>;
using Ints = std::vector<long>;
using Setter = tvox::test::MixerTest;
using SetterDeathTest = Setter;

constexpr const char *kSwitch = "SPK AMP Enable Switch";
constexpr const char *kVolume = "SPK Digital PCM Volume";
constexpr const char *kPlainBytes = "T DSP1 Protection 5f210 CH_BAL";
constexpr const char *kTlvBytes = "RCV DSP1 Protection cd CAL_R";

TEST_F(Setter, NumbersItemsAndControlNumbers)
{
    EXPECT_EQ(set(kSwitch, "1"), 0); // one number goes to every value
    EXPECT_EQ(err_, "");
    EXPECT_EQ(int_values(0, kSwitch), (Ints{1, 1}));
    // Hex and octal forms count as numbers, but the values are read the decimal way (atoi):
    // "0x1F" is 0 and "037" is 37. Runs of delimiters make no empty tokens.
    EXPECT_EQ(set(kVolume, "0x1F"), 0);
    EXPECT_EQ(int_values(0, kVolume), (Ints{0, 0}));
    EXPECT_EQ(set(kVolume, " 037 , ,, 31 "), 0);
    EXPECT_EQ(int_values(0, kVolume), (Ints{37, 31}));

    EXPECT_EQ(set("T PCM Source", "DSP"), 0);
    EXPECT_EQ(enum_item(0, "T PCM Source"), "DSP");
    EXPECT_EQ(set("T PCM Source", "3"), 0); // by item number
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero");

    // A control number in any form that atoi reads the same names that control.
    const std::string mode = number_of("T DSP Mode");
    EXPECT_EQ(set(("+" + mode).c_str(), "3"), 0);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (Ints{3}));
}

TEST_F(Setter, EveryRefusalPrintsItsErrorAndWritesNothing)
{
    preset_bytes(0, kPlainBytes, {1, 2, 3, 4});
    clear_journal();
    const struct {
        const char *control;
        const char *value;
        int32_t status;
        const char *message;
    } cases[] = {
        {"T DSP Mode", "", -1, ""}, // no token: refused before the lookup
        {"No Such Control", " , ,,", -1, ""},
        {"T DSP Mode", nullptr, -1, ""},
        {"No Such Control", "1", 2, "Invalid mixer control: No Such Control\n"},
        {"99999", "1", 2, "Invalid mixer control: 99999\n"},
        {"", "1", 2, "Invalid mixer control: \n"},
        {nullptr, "1", 2, "Invalid mixer control: (null)\n"},
        {kSwitch, "1 1 1", 22, "Error: 3 values given, but control only takes 2\n"},
        {"T DSP Mode", "7", 22, "Error: invalid value\n"},
        {"T DSP Mode", "08", 22, "Error: only enum types can be set with strings\n"},
        {kSwitch, "on", 22, "Error: only enum types can be set with strings\n"},
        {"T PCM Source", "Bogus", 22, "Error: invalid enum value\n"},
        {"T PCM Source", "DSP Zero", 22, "Enclose strings in quotes and try again\n"},
        {"T PCM Source", "DSP,Zero", 22, "Enclose strings in quotes and try again\n"},
        {kPlainBytes, "256", -1, "256 should be between [0, 0xff]\n"},
        {kTlvBytes, "1 -1", -1, "-1 should be between [0, 0xff]\n"},
        {kPlainBytes, "08", -1, "08 not an integer\n"},
        {kPlainBytes, "1 2 0x", -1, "0x not an integer\n"},
        {kPlainBytes, "99999999999999999999", -1,
         "strtol: 99999999999999999999: Numerical result out of range\n"},
        {kPlainBytes, "1 2 3 4 5", -1, "Failed to set binary control\n"},
        {kTlvBytes, "1 2 3 4 5", -1, "Failed to set binary control\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(set(c.control, c.value), c.status) << c.control << " <== " << c.value;
        EXPECT_EQ(err_, c.message) << c.control << " <== " << c.value;
    }
    EXPECT_TRUE(journal_lines().empty());
    EXPECT_EQ(bytes(0, kPlainBytes), (Bytes{1, 2, 3, 4}));

    // A refusal inside a list leaves the indices before it written.
    EXPECT_EQ(set(kVolume, "5 9999"), 22);
    EXPECT_EQ(err_, "Error: invalid value for index 1\n");
    EXPECT_EQ(int_values(0, kVolume), (Ints{5, 817}));
}

TEST_F(Setter, ByteControlsTakeOneNumberPerByte)
{
    // Through TLV access the bytes travel behind a {tag 0, length n} header.
    EXPECT_EQ(set(kTlvBytes, "00 00 15 14"), 0);
    EXPECT_EQ(bytes(0, kTlvBytes), (Bytes{0x00, 0x00, 0x0F, 0x0E}));
    EXPECT_EQ(journal_lines().back(),
              "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 0 len 4 = 00 00 0f 0e");
    // A plain byte control gets exactly the bytes, whatever notation and delimiters.
    EXPECT_EQ(set(kPlainBytes, "0x12,0x34 0253 255"), 0);
    EXPECT_EQ(journal_lines().back(), "ctl 0 \"T DSP1 Protection 5f210 CH_BAL\" = 12 34 ab ff");
    // Fewer bytes than the control holds: the length word kept in the buffer is never sent.
    EXPECT_EQ(set("Tervox SP Delta", "1 2"), 0);
    Bytes expected(64, 0);
    expected[0] = 1;
    expected[1] = 2;
    EXPECT_EQ(bytes(0, "Tervox SP Delta"), expected);
}

TEST_F(SetterDeathTest, AtMost1024Tokens)
{
    const auto ones = [](int count) {
        std::string text;
        while (count-- > 0)
            text += "1 ";
        return text;
    };
    // 1024 tokens are taken (the 64-byte control then refuses them); one more ends the process.
    EXPECT_EQ(set("Tervox SP Delta", ones(1024).c_str()), -1);
    EXPECT_EQ(err_, "Failed to set binary control\n");
    EXPECT_DEATH(tervox_tmixer_set(mixer(), "Tervox SP Delta", ones(1025).c_str()), "");
    EXPECT_DEATH(tervox_tmixer_set(mixer(), "No Such Control", ones(2000).c_str()), "");
}

} // namespace
