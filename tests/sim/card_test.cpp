// A virtual card as a driver serves it: checks, journal and TLV containers.
#include "card.h"
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace
{

using tvox::sim::Card;
using tvox::sim::Value;
using Bytes = std::vector<uint8_t>;

class CardTest : public tvox::test::SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        int err = 0;
        card_ = Card::open(0, err);
        ASSERT_TRUE(card_) << err;
    }

    size_t index(const std::string &name)
    {
        const int found = card_->find(name);
        EXPECT_GE(found, 0) << name;
        return static_cast<size_t>(found);
    }
    int write(const std::string &name, std::vector<int64_t> numbers, Bytes data = {})
    {
        return card_->write(index(name), Value{numbers, data});
    }
    std::unique_ptr<Card> card_;
};

TEST_F(CardTest, RefusedWritesChangeNothingAndAcceptedOnesAreJournaled)
{
    // Past a range end, not an item, not a boolean, the wrong count.
    const std::pair<const char *, std::vector<int64_t>> refused[] = {
        {"T DSP Mode", {4}},
        {"T DSP Set CAL_AMBIENT", {-41}},
        {"T AMP Enable Switch", {2}},
        {"T PCM Source", {4}},
        {"SPK Digital PCM Volume", {100}}};
    for (const auto &[name, values] : refused)
        EXPECT_EQ(write(name, values), -EINVAL) << name << " " << values[0];
    EXPECT_EQ(write("T DSP1 Protection 5f210 CH_BAL", {}, {1, 2, 3, 4, 5}), -EINVAL);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{1}));
    EXPECT_EQ(bytes(0, "T DSP1 Protection 5f210 CH_BAL"), (Bytes{0, 0, 0, 0}));
    EXPECT_TRUE(journal_lines().empty());

    // The range ends are values like any other; an unchanged value reports 0 but is journaled.
    EXPECT_EQ(write("T DSP Mode", {3}), 1);
    EXPECT_EQ(write("T DSP Mode", {3}), 0);
    EXPECT_EQ(write("T PCM Source", {2}), 1);
    // A TLV container shorter than the control rewrites its start and keeps the rest.
    const unsigned int tlv[3] = {7, 4, 0x14150000};
    EXPECT_EQ(card_->tlv_write(index("RCV DSP1 Protection cd CAL_R"), tlv, sizeof tlv), 1);
    const unsigned int shorter[3] = {9, 1, 0xaa};
    EXPECT_EQ(card_->tlv_write(index("RCV DSP1 Protection cd CAL_R"), shorter, sizeof shorter), 1);
    EXPECT_EQ(bytes(0, "RCV DSP1 Protection cd CAL_R"), (Bytes{0xaa, 0, 0x15, 0x14}));
    EXPECT_EQ(journal_lines(),
              (std::vector<std::string>{
                  "ctl 0 \"T DSP Mode\" = 3",
                  "ctl 0 \"T DSP Mode\" = 3",
                  "ctl 0 \"T PCM Source\" = DSP",
                  "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 7 len 4 = 00 00 15 14",
                  "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 9 len 1 = aa",
              }));
}

// The register mailbox: a write block stores the register of that amplifier only, a read block
// makes the next read return the block with the register's value in word 2; other commands are
// refused.
TEST_F(CardTest, RegisterMailboxServesEachAmplifiersRegisters)
{
    const auto block = [](uint32_t command, uint32_t reg, uint32_t value) {
        Bytes out;
        for (uint32_t word : {command, reg, value})
            for (int shift = 24; shift >= 0; shift -= 8)
                out.push_back(static_cast<uint8_t>(word >> shift));
        return out;
    };
    const auto read_back = [&](const std::string &name) {
        Bytes data(12);
        EXPECT_EQ(card_->read(index(name), Value{{}, data}), 0);
        return data;
    };
    EXPECT_EQ(write("T AMP WR Registers", {}, block(0x180, 0x2020, 0x12345678)), 1);
    EXPECT_GE(write("T AMP WR Registers", {}, block(0x181, 0x2020, 0)), 0);
    EXPECT_EQ(read_back("T AMP WR Registers"), block(0x181, 0x2020, 0x12345678));
    EXPECT_GE(write("B AMP WR Registers", {}, block(0x181, 0x2020, 0)), 0);
    EXPECT_EQ(read_back("B AMP WR Registers"), block(0x181, 0x2020, 0));
    EXPECT_EQ(write("B AMP WR Registers", {}, block(0x182, 0x2020, 1)), -EINVAL);
}

} // namespace
