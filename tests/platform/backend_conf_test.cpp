// Reading back-end media configurations from backend_conf.xml files written by the tests.
#include <agmmixer.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/sim_fixture.h"

namespace
{

struct Conf : tvox::test::SimTest {
    int device(const std::string &file, const std::string &name)
    {
        return get_device_media_config(const_cast<char *>(file.c_str()),
                                       const_cast<char *>(name.c_str()), &dev);
    }
    int group(const std::string &file, const char *name)
    {
        return get_group_device_info(const_cast<char *>(file.c_str()), const_cast<char *>(name),
                                     &grp);
    }
    device_config dev{};
    group_config grp{};
};

constexpr const char *conf = R"(<?xml version="1.0" encoding="UTF-8"?>
<config>
  <!-- group entries are not devices -->
  <group_device name="TDM-LPAIF-RX-SECONDARY" rate="96000" ch="3" bits="16" slot_mask="7"/>
  <device name="TDM-LPAIF-RX-SECONDARY" rate="48000" ch="2" bits="32" format="PCM_FORMAT_S32_LE"/>
  <device name="TDM-LPAIF-RX-SECONDARY" rate="8000" ch="1" bits="16"/>
  <device id="TDM-LPAIF-RX-PRIMARY" r="44100" c="1" b="24"/>
  <device name="CODEC_DMA-LPAIF_WSA-RX-0" rate="48000" ch="2" bits="24" format="PCM_FORMAT_S24_3LE"/>
  <device name="TDM-LPAIF-RX-QUATERNARY" rate="16000" ch="4" bits="16" format="BOGUS"/>
  <device name="TDM-LPAIF-RX-QUINARY" rate="48000" ch="2" bits="20"/>
  <group_device name="VIRT-SPK-GROUP" rate="48000" ch="4" bits="32" slot_mask="15" format="PCM_FORMAT_S24_LE"/>
  <group_device name="VIRT-SPK-GROUP" rate="8000" ch="1" bits="16" slot_mask="1"/>
  <device name="SHORT" rate="48000" ch="2"/>
  <device name="WORDS" rate="fast" ch="2" bits="16"/>
  <device name="SIGNED" rate="-48000" ch="2" bits="16"/>
</config>
)";

TEST_F(Conf, EntriesAreReadByPositionAndTheFirstOfANameWins)
{
    const std::string file = folder_file("backend_conf.xml", conf);
    ASSERT_EQ(device(file, "TDM-LPAIF-RX-SECONDARY"), 0);
    EXPECT_STREQ(dev.name, "TDM-LPAIF-RX-SECONDARY");
    EXPECT_EQ(dev.rate, 48000u);
    EXPECT_EQ(dev.ch, 2u);
    EXPECT_EQ(dev.bits, 32u);
    EXPECT_EQ(dev.format, PCM_FORMAT_S32_LE);
    // Attribute names do not matter; without a format the bit width decides.
    ASSERT_EQ(device(file, "TDM-LPAIF-RX-PRIMARY"), 0);
    EXPECT_EQ(dev.rate, 44100u);
    EXPECT_EQ(dev.bits, 24u);
    EXPECT_EQ(dev.format, PCM_FORMAT_S24_LE);
    ASSERT_EQ(device(file, "CODEC_DMA-LPAIF_WSA-RX-0"), 0);
    EXPECT_EQ(dev.format, PCM_FORMAT_S24_3LE);
    // An unknown format text falls back to the bit width; an unusual width has no format.
    ASSERT_EQ(device(file, "TDM-LPAIF-RX-QUATERNARY"), 0);
    EXPECT_EQ(dev.format, PCM_FORMAT_S16_LE);
    ASSERT_EQ(device(file, "TDM-LPAIF-RX-QUINARY"), 0);
    EXPECT_EQ(dev.format, PCM_FORMAT_INVALID);

    ASSERT_EQ(group(file, "VIRT-SPK-GROUP"), 0);
    EXPECT_STREQ(grp.name, "VIRT-SPK-GROUP");
    EXPECT_EQ(grp.rate, 48000u);
    EXPECT_EQ(grp.ch, 4u);
    EXPECT_EQ(grp.bits, 32u);
    EXPECT_EQ(grp.slot_mask, 15u);
    EXPECT_EQ(grp.format, PCM_FORMAT_S24_LE);
    // A group entry of a name that is also a device is found as a group only.
    ASSERT_EQ(group(file, "TDM-LPAIF-RX-SECONDARY"), 0);
    EXPECT_EQ(grp.slot_mask, 7u);
    EXPECT_EQ(grp.format, PCM_FORMAT_S16_LE);
    EXPECT_EQ(group(file, "TDM-LPAIF-RX-PRIMARY"), -EINVAL);
}

TEST_F(Conf, MissingFilesEntriesAndBrokenXmlAreRefusedWithoutTouchingTheRecord)
{
    const std::string file = folder_file("backend_conf.xml", conf);
    std::strcpy(dev.name, "untouched");
    dev.rate = 7;
    EXPECT_EQ(device(sim_dir() + "/absent.xml", "TDM-LPAIF-RX-SECONDARY"), -EINVAL);
    EXPECT_EQ(group(sim_dir() + "/absent.xml", "VIRT-SPK-GROUP"), -EINVAL);
    // No entry of the name, a group only, too few attributes, numbers that are not numbers.
    for (const char *name : {"TDM-LPAIF-RX-SEC", "VIRT-SPK-GROUP", "SHORT", "WORDS", "SIGNED"})
        EXPECT_EQ(device(file, name), -EINVAL) << name;
    EXPECT_STREQ(dev.name, "untouched");
    EXPECT_EQ(dev.rate, 7u);

    // Broken XML: entries before the fault count, entries after it do not.
    const std::string broken = folder_file("broken.xml", R"(<config>
  <device name="EARLY" rate="48000" ch="2" bits="16"/>
  <device name="BROKEN" rate="48000" ch="2" bits="16"
  <device name="LATE" rate="48000" ch="2" bits="16"/>
</config>)");
    EXPECT_EQ(device(broken, "EARLY"), 0);
    EXPECT_EQ(device(broken, "LATE"), -EINVAL);

    // A long name is cut to fit the record, still terminated.
    const std::string long_name(120, 'N');
    const std::string long_file =
        folder_file("long.xml", "<config><device name=\"" + long_name +
                                    "\" rate=\"48000\" ch=\"2\" bits=\"16\"/></config>");
    ASSERT_EQ(device(long_file, long_name), 0);
    EXPECT_EQ(std::string(dev.name), long_name.substr(0, sizeof(dev.name) - 1));
}

} // namespace
