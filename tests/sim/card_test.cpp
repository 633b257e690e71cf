// A virtual card as a driver serves it: checks, journal, TLV containers, the model hook.
#include "card.h"
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

namespace
{

using tvox::sim::Card;
using tvox::sim::Value;

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

    size_t index(const char *name)
    {
        int found = card_->find(name);
        EXPECT_GE(found, 0) << name;
        return static_cast<size_t>(found);
    }

    int write_numbers(const char *name, std::vector<int64_t> values)
    {
        return card_->write(index(name), Value{values, {}});
    }

    int write_bytes(const char *name, std::vector<uint8_t> values)
    {
        return card_->write(index(name), Value{{}, values});
    }

    std::vector<uint8_t> read_bytes(const char *name)
    {
        std::vector<uint8_t> values(card_->controls()[index(name)].count);
        EXPECT_EQ(card_->read(index(name), Value{{}, values}), 0);
        return values;
    }

    std::unique_ptr<Card> card_;
};

TEST_F(CardTest, RefusedWritesChangeNothingAndAcceptedOnesAreJournaled)
{
    EXPECT_EQ(write_numbers("T DSP Mode", {4}), -EINVAL);
    EXPECT_EQ(write_numbers("T DSP Mode", {-1}), -EINVAL);
    EXPECT_EQ(write_numbers("T DSP Set CAL_AMBIENT", {-41}), -EINVAL);
    EXPECT_EQ(write_numbers("T AMP Enable Switch", {2}), -EINVAL);
    EXPECT_EQ(write_numbers("T PCM Source", {4}), -EINVAL);
    EXPECT_EQ(write_numbers("SPK Digital PCM Volume", {100, 914}), -EINVAL);
    EXPECT_EQ(write_numbers("SPK Digital PCM Volume", {100}), -EINVAL); // wrong count
    EXPECT_EQ(write_bytes("T DSP1 Protection 5f210 CH_BAL", {1, 2, 3, 4, 5}), -EINVAL);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{1}));
    EXPECT_EQ(int_values(0, "T DSP Set CAL_AMBIENT"), (std::vector<long>{25}));
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"), (std::vector<long>{817, 817}));
    EXPECT_EQ(bytes(0, "T DSP1 Protection 5f210 CH_BAL"), (std::vector<uint8_t>{0, 0, 0, 0}));
    EXPECT_TRUE(journal_lines().empty());

    // The range ends are values like any other; an unchanged value reports 0 but is journaled.
    EXPECT_EQ(write_numbers("T DSP Mode", {3}), 1);
    EXPECT_EQ(write_numbers("T DSP Mode", {3}), 0);
    EXPECT_EQ(write_numbers("T DSP Set CAL_AMBIENT", {-40}), 1);
    EXPECT_EQ(write_numbers("T PCM Source", {2}), 1);
    EXPECT_EQ(write_numbers("SPK Digital PCM Volume", {800, 0}), 1);
    EXPECT_EQ(write_bytes("B DSP1 Protection 5f210 CH_BAL", {0, 0x28, 0, 0xff}), 1);
    unsigned int tlv[3] = {7, 4, 0};
    std::memcpy(&tlv[2], "\x00\x00\x15\x14", 4);
    EXPECT_EQ(card_->tlv_write(index("RCV DSP1 Protection cd CAL_R"), tlv, sizeof tlv), 1);
    EXPECT_EQ(journal_lines(),
              (std::vector<std::string>{
                  "ctl 0 \"T DSP Mode\" = 3",
                  "ctl 0 \"T DSP Mode\" = 3",
                  "ctl 0 \"T DSP Set CAL_AMBIENT\" = -40",
                  "ctl 0 \"T PCM Source\" = DSP",
                  "ctl 0 \"SPK Digital PCM Volume\" = 800 0",
                  "ctl 0 \"B DSP1 Protection 5f210 CH_BAL\" = 00 28 00 ff",
                  "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 7 len 4 = 00 00 15 14",
              }));
    clear_journal();
    EXPECT_TRUE(journal_lines().empty());
}

TEST_F(CardTest, RegisterMailboxAnswersReadCommandsPerChannel)
{
    // {0x180, 0x2020, 8} writes; {0x181, 0x2020, 0} reads it back into the last word.
    EXPECT_GE(write_bytes("T AMP WR Registers", {0, 0, 1, 0x80, 0, 0, 0x20, 0x20, 0, 0, 0, 8}), 0);
    EXPECT_GE(write_bytes("T AMP WR Registers", {0, 0, 1, 0x81, 0, 0, 0x20, 0x20, 0, 0, 0, 0}), 0);
    EXPECT_EQ(read_bytes("T AMP WR Registers"),
              (std::vector<uint8_t>{0, 0, 1, 0x81, 0, 0, 0x20, 0x20, 0, 0, 0, 8}));
    // A full 32-bit value survives, and the other amplifier has registers of its own.
    EXPECT_GE(write_bytes("B AMP WR Registers",
                          {0, 0, 1, 0x80, 0, 0, 0x20, 0x20, 0xde, 0xad, 0xbe, 0xef}),
              0);
    EXPECT_GE(write_bytes("T AMP WR Registers", {0, 0, 1, 0x81, 0, 0, 0x20, 0x20, 0, 0, 0, 0}), 0);
    EXPECT_EQ(read_bytes("T AMP WR Registers")[11], 8);
    EXPECT_GE(write_bytes("B AMP WR Registers", {0, 0, 1, 0x81, 0, 0, 0x20, 0x20, 0, 0, 0, 0}), 0);
    EXPECT_EQ(read_bytes("B AMP WR Registers"),
              (std::vector<uint8_t>{0, 0, 1, 0x81, 0, 0, 0x20, 0x20, 0xde, 0xad, 0xbe, 0xef}));
    // A register never written reads 0; an unknown command is refused and leaves the block.
    EXPECT_GE(write_bytes("B AMP WR Registers", {0, 0, 1, 0x81, 0, 0, 0x43, 0x08, 0, 0, 0, 0}), 0);
    EXPECT_EQ(read_bytes("B AMP WR Registers")[11], 0);
    EXPECT_EQ(write_bytes("B AMP WR Registers", {0, 0, 1, 0x82, 0, 0, 0x20, 0x20, 0, 0, 0, 1}),
              -EINVAL);
    EXPECT_EQ(bytes(0, "B AMP WR Registers"),
              (std::vector<uint8_t>{0, 0, 1, 0x81, 0, 0, 0x43, 0x08, 0, 0, 0, 0}));
    tvox::sim::Session session = state().lock();
    EXPECT_EQ(session.reg(1, 0x2020), 0xdeadbeefu);
    EXPECT_EQ(session.reg(0, 0x2020), 8u);
}

// A model that refuses one value and reports a computed one, as the DSP model will.
class TestModel : public tvox::sim::Model
{
  public:
    int on_write(tvox::sim::Session &session, const tvox::sim::Control &control,
                 Value value) override
    {
        if (control.name == "T DSP Mode" && value.numbers[0] == 2)
            return -EBUSY;
        return Model::on_write(session, control, value);
    }
    void on_read(tvox::sim::Session &, const tvox::sim::Control &control, Value value) override
    {
        if (control.name == "T AMP Active Status")
            value.numbers[0] = 1;
    }
};

TEST_F(CardTest, InstalledModelDecidesWritesAndReads)
{
    tvox::sim::ModelRegistration registration{
        [] { return std::unique_ptr<tvox::sim::Model>(new TestModel); }};
    EXPECT_EQ(write_numbers("T DSP Mode", {2}), -EBUSY);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{1}));
    EXPECT_TRUE(journal_lines().empty());
    EXPECT_EQ(write_numbers("T DSP Mode", {3}), 1);

    std::vector<int64_t> active(1);
    ASSERT_EQ(card_->read(index("T AMP Active Status"), Value{active, {}}), 0);
    EXPECT_EQ(active[0], 1);
    EXPECT_EQ(int_values(0, "T AMP Active Status"), (std::vector<long>{0}));

    // The base class still serves the register mailbox.
    EXPECT_GE(write_bytes("T AMP WR Registers", {0, 0, 1, 0x80, 0, 0, 0, 4, 0, 0, 0, 9}), 0);
    EXPECT_GE(write_bytes("T AMP WR Registers", {0, 0, 1, 0x81, 0, 0, 0, 4, 0, 0, 0, 0}), 0);
    EXPECT_EQ(read_bytes("T AMP WR Registers")[11], 9);
}

} // namespace
