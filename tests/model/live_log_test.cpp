// The living amplifiers: the protection firmware's real-time log and the temperature register,
// driven by what plays, the speaker, the routing and the firmware controls.
#include "live_log.h"
#include "mixer/paths.h"
#include "model_fixture.h"
#include "tvoxsp/mixer.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace
{

using tvox::sim::SpeakerFault;

class LiveLogTest : public tvox::test::ModelTest
{
  protected:
    // A register command block written into channel `letter`'s mailbox.
    void mailbox(const std::string &letter, uint32_t command, uint32_t reg, uint32_t value)
    {
        std::array<uint8_t, 12> block{};
        const std::array<uint32_t, 3> words{command, reg, value};
        for (size_t i = 0; i < 12; ++i)
            block[i] = static_cast<uint8_t>(words[i / 4] >> (24 - 8 * (i % 4)));
        EXPECT_EQ(mixer_ctl_set_array(ctl(letter + " AMP WR Registers"), block.data(), 12), 0);
    }
    uint32_t read_reg(const std::string &letter, uint32_t reg)
    {
        mailbox(letter, 0x181, reg, 0);
        return static_cast<uint32_t>(words<3>(letter + " AMP WR Registers", 31)[2]);
    }

    // The log configured and fed on both channels, as the live log tool sets it up.
    void start_log()
    {
        ASSERT_EQ(tvox::apply_path(tvox::rtlog_setup_path), 0);
        for (const std::string letter : {"T", "B"}) {
            mailbox(letter, 0x180, 0x2020, 0x8);
            mailbox(letter, 0x180, 0x2018, 0x400);
        }
    }
    void amplifier(const std::string &letter, bool on, const char *source)
    {
        set(letter + " AMP Enable Switch", on ? 1 : 0);
        EXPECT_EQ(mixer_ctl_set_enum_by_string(ctl(letter + " PCM Source"), source), 0);
    }

    // The log block of a channel: {variable, value} pairs, values sign-extended from bit 23.
    std::array<int32_t, 8> block(const std::string &letter)
    {
        return words<8>(letter + " DSP1 Protection 5f210 RTLOG_DATA", 23);
    }
    int32_t state_word(const std::string &letter)
    {
        return word(letter + " DSP1 Protection 5f210 RTLOG_STATE");
    }
};

TEST_F(LiveLogTest, LogDeliversOnlyWhileConfiguredAndFed)
{
    EXPECT_EQ(state_word("T"), 0);
    ASSERT_EQ(tvox::apply_path(tvox::rtlog_setup_path), 0);
    EXPECT_EQ(state_word("T"), 0) << "configured, not fed";
    EXPECT_EQ(block("T"), (std::array<int32_t, 8>{}));
    mailbox("T", 0x180, 0x2020, 0x8);
    EXPECT_EQ(state_word("T"), 0) << "one of the two feed bits";
    mailbox("T", 0x180, 0x2018, 0x400);
    EXPECT_EQ(state_word("T"), 1);
    EXPECT_EQ(block("T"), (std::array<int32_t, 8>{0x6F, 25 << 14, 0x39F, 0, 0x3AC, 0, 0x3AD, 0}));
    EXPECT_EQ(state_word("B"), 0);

    // A boot restarts the firmware: the configuration is gone, the last block stays.
    set("T DSP1 Boot Switch", 1);
    EXPECT_EQ(state_word("T"), 0);
    EXPECT_EQ(block("T")[1], 25 << 14);
}

TEST_F(LiveLogTest, WhatPlaysShowsInEachChannelsLog)
{
    struct Case {
        const char *what;
        double peak;
        SpeakerFault top_fault;
        bool swap;
        const char *top_source;
        bool top_on;
        double top_volts, top_amps, top_excursion, bottom_volts;
    };
    const Case cases[] = {
        {"silence", 0.0, SpeakerFault::none, false, "DSP", true, 0, 0, 0, 0},
        {"loud", 0.8, SpeakerFault::none, false, "DSP", true, 8.0, 1.0, 0.64, 8.0},
        {"swap", 0.8, SpeakerFault::none, true, "DSP", true, 4.8, 0.6, 0.384, 8.0},
        {"open speaker", 0.8, SpeakerFault::open, false, "DSP", true, 8.0, 0, 0.64, 8.0},
        {"shorted speaker", 0.8, SpeakerFault::shorted, false, "DSP", true, 8.0, 15.9, 0.64, 8.0},
        {"F0 fault", 0.8, SpeakerFault::f0_failure, false, "DSP", true, 8.0, 1.0, 0.99, 8.0},
        {"bypass", 0.8, SpeakerFault::none, false, "ASPRX1", true, 0, 0, 0, 8.0},
        {"reload (muted)", 0.8, SpeakerFault::none, false, "Zero", false, 0, 0, 0, 8.0},
    };
    start_log();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        set_speaker(0, 8.0, c.top_fault);
        set_speaker(1, 8.0);
        const std::vector<uint8_t> balance{0, static_cast<uint8_t>(c.swap ? 40 : 0), 0, 0};
        EXPECT_EQ(mixer_ctl_set_array(ctl("T DSP1 Protection 5f210 CH_BAL"), balance.data(), 4), 0);
        amplifier("T", c.top_on, c.top_source);
        amplifier("B", true, "DSP");
        record_stream(tvox::sim::now_ns(), 0, c.peak);
        const std::array<int32_t, 8> top = block("T");
        EXPECT_NEAR(top[3] / double(1 << 19), c.top_volts, 1e-4);
        EXPECT_NEAR(top[5] / double(1 << 19), c.top_amps, 1e-4);
        EXPECT_NEAR(top[7] / double(1 << 23), c.top_excursion, 1e-4);
        EXPECT_NEAR(block("B")[3] / double(1 << 19), c.bottom_volts, 1e-4);
    }
}

TEST_F(LiveLogTest, TemperatureRegisterRisesWhileLoudAndKeepsItsHighBits)
{
    mailbox("T", 0x180, 0x4308, 0xA000);
    EXPECT_EQ(read_reg("T", 0x4308), 0xA000u | 100u) << "25 degrees, 4 codes per degree";
    set_speaker(0, 8.0);
    amplifier("T", true, "DSP");
    record_stream(tvox::sim::now_ns(), 0, 1.0);
    read_reg("T", 0x4308); // the coil is followed from here at full power
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const uint32_t warm = read_reg("T", 0x4308);
    EXPECT_EQ(warm & ~0xFFFu, 0xA000u);
    EXPECT_GT(warm & 0xFFFu, 100u);
    EXPECT_EQ(read_reg("B", 0x4308), 100u) << "the bottom amplifier is off";
}

} // namespace
