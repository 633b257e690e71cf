// The virtual cards through alsa-lib and through amixer, as every ALSA client sees them.
#include "catalogue.h"
#include "support/sim_fixture.h"

#include <alsa/asoundlib.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace
{

struct CtlCloser {
    void operator()(snd_ctl_t *ctl) const { snd_ctl_close(ctl); }
};
using Ctl = std::unique_ptr<snd_ctl_t, CtlCloser>;

class AlsaTest : public tvox::test::SimTest
{
  protected:
    Ctl open_card(const char *name)
    {
        snd_ctl_t *ctl = nullptr;
        int err = snd_ctl_open(&ctl, name, 0);
        EXPECT_EQ(err, 0) << name << ": " << snd_strerror(err);
        return Ctl(ctl);
    }

    int write_ints(snd_ctl_t *ctl, const char *name, std::vector<long> values)
    {
        snd_ctl_elem_value_t *value = nullptr;
        snd_ctl_elem_value_alloca(&value);
        snd_ctl_elem_value_set_interface(value, SND_CTL_ELEM_IFACE_MIXER);
        snd_ctl_elem_value_set_name(value, name);
        for (size_t i = 0; i < values.size(); ++i)
            snd_ctl_elem_value_set_integer(value, static_cast<unsigned>(i), values[i]);
        return snd_ctl_elem_write(ctl, value);
    }

    static void set_id(snd_ctl_elem_id_t *id, const char *name)
    {
        snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
        snd_ctl_elem_id_set_name(id, name);
    }
};

TEST_F(AlsaTest, ElementListAndInfoMatchTheCatalogue)
{
    Ctl ctl = open_card("tvoxsim:100");
    ASSERT_TRUE(ctl);
    snd_ctl_elem_list_t *list = nullptr;
    snd_ctl_elem_list_alloca(&list);
    ASSERT_EQ(snd_ctl_elem_list(ctl.get(), list), 0);
    const unsigned count = snd_ctl_elem_list_get_count(list);
    const auto &catalogue = tvox::sim::Catalogue::get(0).card(100);
    ASSERT_EQ(count, catalogue.size());
    ASSERT_EQ(snd_ctl_elem_list_alloc_space(list, count), 0);
    ASSERT_EQ(snd_ctl_elem_list(ctl.get(), list), 0);
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_EQ(snd_ctl_elem_list_get_numid(list, i), i + 1);
        EXPECT_EQ(snd_ctl_elem_list_get_name(list, i), catalogue[i].name);
    }
    snd_ctl_elem_list_free_space(list);

    snd_ctl_elem_info_t *info = nullptr;
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_info_set_interface(info, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_info_set_name(info, "PCM100 getTaggedInfo");
    ASSERT_EQ(snd_ctl_elem_info(ctl.get(), info), 0);
    EXPECT_EQ(snd_ctl_elem_info_get_type(info), SND_CTL_ELEM_TYPE_BYTES);
    EXPECT_EQ(snd_ctl_elem_info_get_count(info), 1024u);
    EXPECT_TRUE(snd_ctl_elem_info_is_tlv_readable(info));
    EXPECT_FALSE(snd_ctl_elem_info_is_readable(info));
    snd_ctl_elem_info_set_numid(info, count + 1);
    EXPECT_EQ(snd_ctl_elem_info(ctl.get(), info), -ENOENT);
    snd_ctl_elem_info_set_numid(info, 0);
    snd_ctl_elem_info_set_name(info, "PCM101 connect");
    ASSERT_EQ(snd_ctl_elem_info(ctl.get(), info), 0);
    ASSERT_EQ(snd_ctl_elem_info_get_items(info), 6u);
    // An item number past the list names the last item, as a kernel driver answers.
    for (const auto &[item, name] :
         {std::pair{3u, "TDM-LPAIF-RX-SECONDARY"}, {60u, "VIRT-SPK-GROUP"}}) {
        snd_ctl_elem_info_set_item(info, item);
        ASSERT_EQ(snd_ctl_elem_info(ctl.get(), info), 0);
        EXPECT_STREQ(snd_ctl_elem_info_get_item_name(info), name);
    }
}

TEST_F(AlsaTest, TlvContainersByNameAndAccessIsEnforced)
{
    Ctl ctl = open_card("tvoxsim:0");
    ASSERT_TRUE(ctl);
    snd_ctl_elem_id_t *id = nullptr;
    snd_ctl_elem_id_alloca(&id);
    set_id(id, "RCV DSP1 Protection cd CAL_R");
    const unsigned int container[3] = {0, 4, 0x14150000};
    ASSERT_EQ(snd_ctl_elem_tlv_write(ctl.get(), id, container), 1);
    const unsigned int too_long[4] = {0, 8, 0x01020304, 0x05060708};
    EXPECT_EQ(snd_ctl_elem_tlv_write(ctl.get(), id, too_long), -EINVAL);
    unsigned int read[3] = {};
    EXPECT_EQ(snd_ctl_elem_tlv_read(ctl.get(), id, read, 10), 0);
    EXPECT_EQ(read[1], 2u) << "a small container gets what fits";
    EXPECT_EQ(journal_lines(), (std::vector<std::string>{"tlv 0 \"RCV DSP1 Protection cd CAL_R\" "
                                                         "tag 0 len 4 = 00 00 15 14"}));

    // Plain element access is not offered on a TLV-only control, nor TLV on a plain one;
    // read-only and unknown controls are refused, to amixer too.
    snd_ctl_elem_value_t *value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    snd_ctl_elem_value_set_id(value, id);
    EXPECT_LT(snd_ctl_elem_read(ctl.get(), value), 0);
    set_id(id, "T DSP1 Protection 5f210 CAL_R");
    EXPECT_LT(snd_ctl_elem_tlv_read(ctl.get(), id, read, sizeof read), 0);
    EXPECT_EQ(write_ints(ctl.get(), "T AMP Active Status", {1}), -EPERM);
    EXPECT_EQ(write_ints(ctl.get(), "No Such Control", {1}), -ENOENT);
    EXPECT_NE(amixer(0, "cset name='B AMP Active Status' 1").status, 0);
    EXPECT_NE(amixer(0, "cget name='RCV DSP1 Protection cd CAL_R'").output.find("TLV Byte control"),
              std::string::npos);
    EXPECT_NE(amixer(7, "controls").status, 0) << "no such card in the catalogue";
}

TEST_F(AlsaTest, FillerControlsAppearOnCardZero)
{
    setenv("TVOXSIM_FILLER", "12", 1);
    std::string controls = amixer(0, "controls").output;
    EXPECT_NE(controls.find("name='Filler Control 0011'"), std::string::npos);
    EXPECT_EQ(controls.find("name='Filler Control 0012'"), std::string::npos);
    EXPECT_EQ(amixer(0, "cset name='Filler Control 0007' 42").status, 0);
    EXPECT_EQ(journal_lines(), (std::vector<std::string>{"ctl 0 \"Filler Control 0007\" = 42"}));
    unsetenv("TVOXSIM_FILLER");
    EXPECT_EQ(amixer(0, "controls").output.find("Filler"), std::string::npos);
}

TEST_F(AlsaTest, EveryOpenReadsTheSimulatorFolderAgain)
{
    Ctl first = open_card("tvoxsim:0");
    ASSERT_EQ(write_ints(first.get(), "T DSP Mode", {3}), 1);
    setenv("TVOXSIM_DIR", (sim_dir() + "/other").c_str(), 1);
    Ctl second = open_card("tvoxsim:0");
    ASSERT_TRUE(second);
    ASSERT_EQ(write_ints(second.get(), "T DSP Mode", {2}), 1);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (std::vector<long>{3}));
    EXPECT_EQ(amixer_values(0, "T DSP Mode"), "2") << "amixer reads the other folder too";
}

} // namespace
