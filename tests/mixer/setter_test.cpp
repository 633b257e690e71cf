// The control setter: value text, control lookup, every failure with its message and status.
#include "mixer_fixture.h"
#include "support/capture.h"
#include "tvoxsp/mixer.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace
{

using tvox::test::StreamCapture;
using Bytes = std::vector<uint8_t>;
using Ints = std::vector<long>;

class Setter : public tvox::test::MixerTest
{
  protected:
    // Sets a control and returns its status; what went to standard error lands in `err`.
    int32_t set(const char *control, const char *value, std::string *err = nullptr)
    {
        StreamCapture capture(2);
        const int32_t status = tervox_tmixer_set(mixer(), control, value);
        if (err != nullptr)
            *err = capture.text();
        return status;
    }
};
using SetterDeathTest = Setter;

constexpr const char *kStereoSwitch = "SPK AMP Enable Switch";
constexpr const char *kStereoVolume = "SPK Digital PCM Volume";
constexpr const char *kPlainBytes = "T DSP1 Protection 5f210 CH_BAL";
constexpr const char *kTlvBytes = "RCV DSP1 Protection cd CAL_R";

TEST_F(Setter, NumbersGoToEveryValueOrOnePerIndex)
{
    std::string err;
    EXPECT_EQ(set(kStereoSwitch, "1", &err), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(int_values(0, kStereoSwitch), (Ints{1, 1}));
    EXPECT_EQ(set(kStereoSwitch, "1 0"), 0);
    EXPECT_EQ(int_values(0, kStereoSwitch), (Ints{1, 0}));
    EXPECT_EQ(set(kStereoSwitch, "0,1"), 0);
    EXPECT_EQ(int_values(0, kStereoSwitch), (Ints{0, 1}));

    // Too many numbers: refused before anything is written.
    clear_journal();
    EXPECT_EQ(set(kStereoSwitch, "1 1 1", &err), 22);
    EXPECT_EQ(err, "Error: 3 values given, but control only takes 2\n");
    EXPECT_EQ(int_values(0, kStereoSwitch), (Ints{0, 1}));
    EXPECT_TRUE(journal_lines().empty());

    // Hexadecimal and octal forms count as numbers, but values of these controls are read the
    // decimal way (atoi): "0x1F" is 0 and "037" is 37. Runs of delimiters make no empty tokens.
    EXPECT_EQ(set(kStereoVolume, "0x1F"), 0);
    EXPECT_EQ(int_values(0, kStereoVolume), (Ints{0, 0}));
    EXPECT_EQ(set(kStereoVolume, "037 , ,, 31"), 0);
    EXPECT_EQ(int_values(0, kStereoVolume), (Ints{37, 31}));
    EXPECT_EQ(set(kStereoVolume, " 100,200 "), 0);
    EXPECT_EQ(int_values(0, kStereoVolume), (Ints{100, 200}));
    // One value of a longer control: the rest keep theirs.
    EXPECT_EQ(set("RCV Digital PCM Volume", "817"), 0);
    EXPECT_EQ(int_values(0, "RCV Digital PCM Volume"), (Ints{817}));
    // Only the first token must be a number; a later word is written as it reads (0).
    EXPECT_EQ(set(kStereoVolume, "12 abc"), 0);
    EXPECT_EQ(int_values(0, kStereoVolume), (Ints{12, 0}));
}

TEST_F(Setter, RefusedValuesAndTextReportTheirError)
{
    std::string err;
    EXPECT_EQ(set("T DSP Mode", "7", &err), 22);
    EXPECT_EQ(err, "Error: invalid value\n");
    EXPECT_EQ(int_values(0, "T DSP Mode"), (Ints{1}));

    // A refusal in a list leaves the indices before it written.
    EXPECT_EQ(set(kStereoVolume, "5 9999", &err), 22);
    EXPECT_EQ(err, "Error: invalid value for index 1\n");
    EXPECT_EQ(int_values(0, kStereoVolume), (Ints{5, 817}));

    // 08 is no number in C notation: text, which only an enumerated control takes.
    EXPECT_EQ(set("T DSP Mode", "08", &err), 22);
    EXPECT_EQ(err, "Error: only enum types can be set with strings\n");
    EXPECT_EQ(set(kStereoSwitch, "on", &err), 22);
    EXPECT_EQ(err, "Error: only enum types can be set with strings\n");
}

TEST_F(Setter, EnumeratedControlsTakeOneItemName)
{
    std::string err;
    EXPECT_EQ(set("T PCM Source", "DSP", &err), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(enum_item(0, "T PCM Source"), "DSP");
    EXPECT_EQ(set("T PCM Source", "3"), 0); // by item number
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero");

    EXPECT_EQ(set("T PCM Source", "Bogus", &err), 22);
    EXPECT_EQ(err, "Error: invalid enum value\n");
    EXPECT_EQ(set("T PCM Source", "DSP Zero", &err), 22);
    EXPECT_EQ(err, "Enclose strings in quotes and try again\n");
    EXPECT_EQ(set("T PCM Source", "DSP,Zero", &err), 22);
    EXPECT_EQ(err, "Enclose strings in quotes and try again\n");
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero");
}

TEST_F(Setter, ControlsByNumberOrByName)
{
    std::string err;
    const std::string mode = number_of("T DSP Mode");
    EXPECT_EQ(set(mode.c_str(), "2"), 0);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (Ints{2}));
    // Any form of that number that reads the same in decimal names the same control.
    const std::string signed_number = "+" + mode;
    EXPECT_EQ(set(signed_number.c_str(), "3"), 0);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (Ints{3}));

    EXPECT_EQ(set("No Such Control", "1", &err), 2);
    EXPECT_EQ(err, "Invalid mixer control: No Such Control\n");
    EXPECT_EQ(set("99999", "1", &err), 2);
    EXPECT_EQ(err, "Invalid mixer control: 99999\n");
    EXPECT_EQ(set("", "1", &err), 2);
    EXPECT_EQ(err, "Invalid mixer control: \n");
    EXPECT_EQ(set(nullptr, "1", &err), 2);
    EXPECT_EQ(err, "Invalid mixer control: (null)\n");

    // No token at all is refused quietly, before the control is looked up.
    clear_journal();
    for (const char *empty : {"", " ", " , ,,", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(set("T DSP Mode", empty, &err), -1);
        EXPECT_EQ(err, "");
        EXPECT_EQ(set("No Such Control", empty, &err), -1);
        EXPECT_EQ(err, "");
    }
    EXPECT_TRUE(journal_lines().empty());
}

TEST_F(Setter, ByteControlsTakeOneNumberPerByte)
{
    // Through TLV access the bytes travel behind a {tag 0, length n} header.
    EXPECT_EQ(set(kTlvBytes, "00 00 15 14"), 0);
    EXPECT_EQ(bytes(0, kTlvBytes), (Bytes{0x00, 0x00, 0x0F, 0x0E}));
    ASSERT_FALSE(journal_lines().empty());
    EXPECT_EQ(journal_lines().back(),
              "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 0 len 4 = 00 00 0f 0e");
    EXPECT_EQ(set("T DSP1 Protection cd RTLOG_VARIABLE", "0x11 0x22 0x33"), 0);
    EXPECT_EQ(journal_lines().back(),
              "tlv 0 \"T DSP1 Protection cd RTLOG_VARIABLE\" tag 0 len 3 = 11 22 33");

    // A plain byte control gets exactly the bytes, whatever notation and delimiters.
    EXPECT_EQ(set(kPlainBytes, "0x12,0x34 0253 255"), 0);
    EXPECT_EQ(bytes(0, kPlainBytes), (Bytes{0x12, 0x34, 0xAB, 0xFF}));
    EXPECT_EQ(journal_lines().back(), "ctl 0 \"T DSP1 Protection 5f210 CH_BAL\" = 12 34 ab ff");

    // Fewer bytes than the control holds: the length word kept in the buffer is never sent.
    EXPECT_EQ(set("Tervox SP Delta", "1 2"), 0);
    Bytes expected(64, 0);
    expected[0] = 1;
    expected[1] = 2;
    EXPECT_EQ(bytes(0, "Tervox SP Delta"), expected);
}

TEST_F(Setter, ByteTokenFailuresWriteNothing)
{
    preset_bytes(0, kPlainBytes, {1, 2, 3, 4});
    clear_journal();
    struct Case {
        const char *value;
        const char *message;
    };
    const Case cases[] = {
        {"256", "256 should be between [0, 0xff]\n"},
        {"1 -1", "-1 should be between [0, 0xff]\n"},
        {"08", "08 not an integer\n"},
        {"1 2 0x", "0x not an integer\n"},
        {"99999999999999999999", "strtol: 99999999999999999999: Numerical result out of range\n"},
        {"1 2 3 4 5", "Failed to set binary control\n"},
    };
    for (const auto &c : cases) {
        std::string err;
        EXPECT_EQ(set(kPlainBytes, c.value, &err), -1) << c.value;
        EXPECT_EQ(err, c.message) << c.value;
    }
    std::string err;
    EXPECT_EQ(set(kTlvBytes, "1 2 3 4 5", &err), -1);
    EXPECT_EQ(err, "Failed to set binary control\n");
    EXPECT_EQ(set(kTlvBytes, "1 300", &err), -1);
    EXPECT_EQ(err, "300 should be between [0, 0xff]\n");

    EXPECT_EQ(bytes(0, kPlainBytes), (Bytes{1, 2, 3, 4}));
    EXPECT_TRUE(journal_lines().empty());
}

std::string numbers(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += "1 ";
    return text;
}

TEST_F(SetterDeathTest, AtMost1024Tokens)
{
    // 1024 tokens are taken (the 64-byte control then refuses them); one more ends the process.
    std::string err;
    EXPECT_EQ(set("Tervox SP Delta", numbers(1024).c_str(), &err), -1);
    EXPECT_EQ(err, "Failed to set binary control\n");
    EXPECT_DEATH(tervox_tmixer_set(mixer(), "Tervox SP Delta", numbers(1025).c_str()), "");
    EXPECT_DEATH(tervox_tmixer_set(mixer(), "No Such Control", numbers(2000).c_str()), "");
}

TEST_F(Setter, ThreadsSetControlsIndependently)
{
    // Each thread cuts its own texts: one thread's tokens never leak into the other's.
    auto writer = [](const char *control, const char *value, int *failures) {
        tvox::MixerHandle own = tvox::open_mixer();
        if (!own) {
            *failures = -1;
            return;
        }
        for (int i = 0; i < 100; ++i)
            if (tervox_tmixer_set(own.get(), control, value) != 0)
                ++*failures;
    };
    int failures_t = 0;
    int failures_b = 0;
    std::thread t(writer, "T DSP1 Protection 5f210 CH_BAL", "0x01 0x02 0x03 0x04", &failures_t);
    std::thread b(writer, "B DSP1 Protection 5f210 CH_BAL", "10,20,30,40", &failures_b);
    t.join();
    b.join();
    EXPECT_EQ(failures_t, 0);
    EXPECT_EQ(failures_b, 0);
    EXPECT_EQ(bytes(0, "T DSP1 Protection 5f210 CH_BAL"), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(bytes(0, "B DSP1 Protection 5f210 CH_BAL"), (Bytes{10, 20, 30, 40}));
}

} // namespace
