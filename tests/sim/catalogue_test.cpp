// The control catalogue: the kinds of control the cards need, and errors in its text.
#include "catalogue.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using tvox::sim::Catalogue;
using tvox::sim::Control;

TEST(CatalogueTest, BuiltInCardsHoldTlvReadOnlyEnumeratedAndFillerControls)
{
    const Catalogue &catalogue = Catalogue::get(0);
    EXPECT_EQ(catalogue.cards(), (std::vector<int>{0, 100}));
    const Control *tlv = catalogue.find(0, "RCV DSP1 Protection cd CAL_R");
    ASSERT_NE(tlv, nullptr);
    EXPECT_TRUE(tlv->is_bytes() && tlv->is_tlv());
    EXPECT_EQ(tlv->count, 4u);
    const Control *status = catalogue.find(0, "B AMP Active Status");
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->access & (tvox::sim::access_write | tvox::sim::access_tlv_write), 0u);
    const Control *connect = catalogue.find(100, "PCM101 connect");
    ASSERT_NE(connect, nullptr);
    EXPECT_EQ(connect->type, tvox::sim::Type::enumerated);
    EXPECT_EQ(connect->item_index("ZERO"), 0);
    EXPECT_GT(connect->item_index("TDM-LPAIF-RX-SECONDARY"), 0);
    EXPECT_EQ(catalogue.find(0, "PCM101 connect"), nullptr) << "card 100's controls stay there";
    // Filler controls follow the real ones on card 0 only.
    const Catalogue &filled = Catalogue::get(3);
    ASSERT_EQ(filled.card(0).size(), catalogue.card(0).size() + 3);
    EXPECT_EQ(filled.card(0).back().name, "Filler Control 0002");
    EXPECT_EQ(filled.card(100).size(), catalogue.card(100).size());
}

TEST(CatalogueTest, TextErrorsNameTheLine)
{
    Catalogue catalogue;
    std::string error;
    EXPECT_FALSE(Catalogue::parse("card 0\nfloat \"X\"\n", catalogue, error));
    EXPECT_EQ(error, "line 2: unknown statement or type \"float\"");
    EXPECT_FALSE(Catalogue::parse("int \"X\" min=0 max=3 default=4\n", catalogue, error));
    EXPECT_EQ(error, "line 1: default 4 out of range");
}

} // namespace
