// The control catalogue: the built-in cards and the text format's error reporting.
#include "catalogue.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using tvox::sim::Catalogue;
using tvox::sim::Control;

// The type, count and access of a control of the built-in catalogue ("missing" when absent).
std::string shape(int card, const std::string &name)
{
    const Control *c = Catalogue::get(0).find(card, name);
    if (c == nullptr)
        return "missing";
    static constexpr const char *types[] = {"?", "bool", "int", "enum", "bytes"};
    return std::string(types[static_cast<int>(c->type)]) + "[" + std::to_string(c->count) + "]" +
           (c->is_tlv() ? " tlv" : "") +
           ((c->access & (tvox::sim::access_write | tvox::sim::access_tlv_write)) ? "" : " ro");
}

TEST(CatalogueTest, CardsHoldTheControlsTheLibraryUses)
{
    const std::pair<const char *, const char *> per_channel[] = {
        {" DSP1 Protection 5f210 RTLOG_DATA", "bytes[32]"},
        {" DSP1 Protection cd RTLOG_VARIABLE", "bytes[16] tlv"},
        {" DSP1 Protection cd RTLOG_ENABLE", "bytes[4] tlv"},
        {" AMP WR Registers", "bytes[12]"},
        {" AMP Enable Switch", "bool[1]"},
        {" AMP Active Status", "int[1] ro"},
        {" DSP Get CAL_STATUS", "bytes[4] ro"},
        {" DSP Set CAL_R", "int[1]"},
        {" PCM Source", "enum[1]"},
    };
    for (std::string x : {"T", "B"}) {
        for (const auto &[name, expected] : per_channel)
            EXPECT_EQ(shape(0, x + name), expected) << x << name;
        for (std::string word : {"CAL_R", "CAL_STATUS", "CAL_CHECKSUM", "CAL_AMBIENT", "DIAG_F0",
                                 "DIAG_F0_STATUS", "DIAG_Z_LOW_DIFF", "QORA_STATE"}) {
            EXPECT_EQ(shape(0, x + " DSP1 Protection 5f210 " + word), "bytes[4]") << word;
            EXPECT_EQ(shape(0, x + " Protection 5f210 " + word), "bytes[4]") << word;
        }
    }
    EXPECT_EQ(shape(0, "SPK Digital PCM Volume"), "int[2]");
    EXPECT_EQ(shape(0, "RCV DSP1 Protection cd CAL_R"), "bytes[4] tlv");
    EXPECT_EQ(Catalogue::get(0).find(0, "Tervox SP Channel Swap")->items,
              (std::vector<std::string>{"LR", "RL"}));

    for (std::string intf : {"TDM-LPAIF-RX-SECONDARY", "TDM-LPAIF-RX-TERTIARY", "VIRT-SPK-GROUP"}) {
        EXPECT_EQ(shape(100, intf + " rate ch fmt"), "int[4]");
        for (std::string word : {" metadata", " setParam", " group config"})
            EXPECT_EQ(shape(100, intf + word), "bytes[1024] tlv") << word;
    }
    for (std::string dev : {"PCM100", "PCM101"}) {
        EXPECT_EQ(shape(100, dev + " getTaggedInfo"), "bytes[1024] tlv");
        for (std::string word : {" control", " connect", " disconnect"}) {
            const Control *c = Catalogue::get(0).find(100, dev + word);
            ASSERT_NE(c, nullptr) << dev << word;
            EXPECT_EQ(c->item_index("ZERO"), 0);
            EXPECT_GT(c->item_index("VIRT-SPK-GROUP"), 0);
        }
    }
    EXPECT_EQ(shape(0, "PCM100 connect"), "missing");
    EXPECT_EQ(Catalogue::get(0).cards(), (std::vector<int>{0, 100}));

    // Filler controls follow the real ones on card 0 only.
    const Catalogue &filled = Catalogue::get(3);
    ASSERT_EQ(filled.card(0).size(), Catalogue::get(0).card(0).size() + 3);
    EXPECT_EQ(filled.card(0)[Catalogue::get(0).card(0).size()].name, "Filler Control 0000");
    EXPECT_EQ(filled.card(100).size(), Catalogue::get(0).card(100).size());
}

TEST(CatalogueTest, TextExpandsListsAndLoops)
{
    Catalogue catalogue;
    std::string error;
    ASSERT_TRUE(Catalogue::parse("card 3\n"
                                 "list MODES A B # comment\n"
                                 "for X in L $MODES\n"
                                 "enum \"{X} Mode #1\" items=Z,$MODES default=B\n"
                                 "end\n"
                                 "bytes \"Blob\" count=6 default=1,0x22 ro\n"
                                 "int \"Gain\" count=2 min=-5 max=5 step=5 default=0,-5\n",
                                 catalogue, error))
        << error;
    std::span<const Control> card = catalogue.card(3);
    ASSERT_EQ(card.size(), 5u);
    EXPECT_EQ(card[2].name, "B Mode #1");
    EXPECT_EQ(card[2].channel, 2);
    EXPECT_EQ(card[2].items, (std::vector<std::string>{"Z", "A", "B"}));
    EXPECT_EQ(card[2].default_numbers, (std::vector<int64_t>{2}));
    EXPECT_EQ(card[3].default_bytes, (std::vector<uint8_t>{1, 0x22}));
    EXPECT_EQ(card[3].access, tvox::sim::access_read);
    EXPECT_EQ(card[3].channel, -1);
    EXPECT_EQ(card[4].default_numbers, (std::vector<int64_t>{0, -5}));
}

TEST(CatalogueTest, TextErrorsNameTheLine)
{
    const std::pair<const char *, const char *> cases[] = {
        {"card 0\nfloat \"X\"\n", "line 2: unknown statement or type \"float\""},
        {"int \"X\" min=0\n", "line 1: an integer control needs min <= max"},
        {"int \"X\" min=0 max=3 default=4\n", "line 1: default 4 out of range"},
        {"enum \"X\" items=A,B default=C\n", "line 1: default \"C\" is not an item"},
        {"bool \"X\"\nbool \"X\"\n", "line 2: duplicate control X"},
        {"enum \"X\" items=$NONE\n", "line 1: unknown list $NONE"},
        {"for X in A\nbool \"{X}\"\n", "line 2: \"for\" without \"end\""},
        {"int \"X\" max=1 tlv\n", "line 1: only byte controls are tlv"},
        {"bytes \"X\" count=600\n", "line 1: a plain byte control holds at most 512 bytes"},
        {"bytes \"X\" count=2 default=1,2,3\n", "line 1: bad default bytes"},
        {"bool \"X\n", "line 1: unterminated quote"},
        {"bool \"An overly long control name that ALSA refuses\"\n",
         "line 1: name longer than 43 characters: An overly long control name that ALSA "
         "refuses"},
    };
    for (const auto &[text, expected] : cases) {
        Catalogue catalogue;
        std::string error;
        EXPECT_FALSE(Catalogue::parse(text, catalogue, error)) << text;
        EXPECT_EQ(error, expected) << text;
    }
}

} // namespace
