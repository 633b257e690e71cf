// A virtual card as a driver serves it: checks, journal, TLV containers, the register mailbox and
// the model hook.
#include "card.h"
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace
{

using tvox::sim::Card;
using tvox::sim::Value;
using Bytes = std::vector<uint8_t>;

// A register mailbox block: the command word 0x1xx, the address and the value, big-endian.
Bytes block(uint8_t command, uint16_t address, uint32_t value)
{
    const uint32_t words[3] = {0x100u | command, address, value};
    Bytes data;
    for (const uint32_t word : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            data.push_back(static_cast<uint8_t>(word >> shift));
    return data;
}

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
    // Sends a mailbox command to channel `x` and returns the block the card then shows.
    Bytes mailbox(const std::string &x, uint8_t command, uint16_t address, uint32_t value = 0)
    {
        EXPECT_GE(write(x + " AMP WR Registers", {}, block(command, address, value)), 0);
        Bytes shown(12);
        EXPECT_EQ(card_->read(index(x + " AMP WR Registers"), Value{{}, shown}), 0);
        return shown;
    }

    std::unique_ptr<Card> card_;
};

TEST_F(CardTest, RefusedWritesChangeNothingAndAcceptedOnesAreJournaled)
{
    const std::pair<const char *, std::vector<int64_t>> refused[] = {
        {"T DSP Mode", {4}},
        {"T DSP Mode", {-1}},
        {"T DSP Set CAL_AMBIENT", {-41}},
        {"T AMP Enable Switch", {2}},
        {"T PCM Source", {4}},
        {"SPK Digital PCM Volume", {100, 914}},
        {"SPK Digital PCM Volume", {100}}, // wrong count
    };
    for (const auto &[name, values] : refused)
        EXPECT_EQ(write(name, values), -EINVAL) << name << " " << values[0];
    EXPECT_EQ(write("T DSP1 Protection 5f210 CH_BAL", {}, {1, 2, 3, 4, 5}), -EINVAL);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{1}));
    EXPECT_EQ(int_values(0, "T DSP Set CAL_AMBIENT"), (std::vector<long>{25}));
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"), (std::vector<long>{817, 817}));
    EXPECT_EQ(bytes(0, "T DSP1 Protection 5f210 CH_BAL"), (Bytes{0, 0, 0, 0}));
    EXPECT_TRUE(journal_lines().empty());

    // The range ends are values like any other; an unchanged value reports 0 but is journaled.
    EXPECT_EQ(write("T DSP Mode", {3}), 1);
    EXPECT_EQ(write("T DSP Mode", {3}), 0);
    EXPECT_EQ(write("T DSP Set CAL_AMBIENT", {-40}), 1);
    EXPECT_EQ(write("T PCM Source", {2}), 1);
    EXPECT_EQ(write("SPK Digital PCM Volume", {800, 0}), 1);
    EXPECT_EQ(write("B DSP1 Protection 5f210 CH_BAL", {}, {0, 0x28, 0, 0xff}), 1);
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
                  "ctl 0 \"T DSP Set CAL_AMBIENT\" = -40",
                  "ctl 0 \"T PCM Source\" = DSP",
                  "ctl 0 \"SPK Digital PCM Volume\" = 800 0",
                  "ctl 0 \"B DSP1 Protection 5f210 CH_BAL\" = 00 28 00 ff",
                  "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 7 len 4 = 00 00 15 14",
                  "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 9 len 1 = aa",
              }));
    clear_journal();
    EXPECT_TRUE(journal_lines().empty());
}

TEST_F(CardTest, RegisterMailboxKeepsTheRegistersOfEachChannel)
{
    // Both channels write the same register; a read command brings each one's own value back.
    const std::pair<const char *, uint32_t> channels[] = {{"T", 8}, {"B", 0xdeadbeef}};
    for (const auto &[x, value] : channels)
        mailbox(x, 0x80, 0x2020, value);
    for (unsigned channel = 0; channel < 2; ++channel) {
        const auto &[x, value] = channels[channel];
        EXPECT_EQ(mailbox(x, 0x81, 0x2020), block(0x81, 0x2020, value)) << x;
        EXPECT_EQ(state().lock().reg(channel, 0x2020), value) << x;
    }
    // A register never written reads 0; an unknown command is refused and leaves the block.
    EXPECT_EQ(mailbox("B", 0x81, 0x4308), block(0x81, 0x4308, 0));
    EXPECT_EQ(write("B AMP WR Registers", {}, block(0x82, 0x2020, 1)), -EINVAL);
    EXPECT_EQ(bytes(0, "B AMP WR Registers"), block(0x81, 0x4308, 0));
}

// A model that refuses one value and reports a computed one, as the DSP model does.
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
    EXPECT_EQ(write("T DSP Mode", {2}), -EBUSY);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{1}));
    EXPECT_TRUE(journal_lines().empty());
    EXPECT_EQ(write("T DSP Mode", {3}), 1);

    std::vector<int64_t> active(1);
    ASSERT_EQ(card_->read(index("T AMP Active Status"), Value{active, {}}), 0);
    EXPECT_EQ(active[0], 1);
    EXPECT_EQ(int_values(0, "T AMP Active Status"), (std::vector<long>{0}));
    // The base class still serves the register mailbox.
    mailbox("T", 0x80, 4, 9);
    EXPECT_EQ(mailbox("T", 0x81, 4), block(0x81, 4, 9));
}

} // namespace
