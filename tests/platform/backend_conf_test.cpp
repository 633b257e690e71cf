// Reading back-end media configurations from backend_conf.xml files written by the tests.
#include <agmmixer.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "temp_files.h"

namespace
{

using tvox::test::TempFolder;

int device_config_of(const std::string &file, const char *name, device_config &config)
{
    return get_device_media_config(const_cast<char *>(file.c_str()), const_cast<char *>(name),
                                   &config);
}

int group_config_of(const std::string &file, const char *name, group_config &config)
{
    return get_group_device_info(const_cast<char *>(file.c_str()), const_cast<char *>(name),
                                 &config);
}

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
  <group_device name="VIRT-RCV-GROUP" rate="96000" ch="2" bits="16" slot_mask="3"/>
</config>
)";

TEST(BackendConf, DeviceEntriesAreReadByPositionAndTheFirstOfANameWins)
{
    TempFolder folder;
    const std::string file = folder.write("backend_conf.xml", conf);

    device_config config{};
    ASSERT_EQ(device_config_of(file, "TDM-LPAIF-RX-SECONDARY", config), 0);
    EXPECT_STREQ(config.name, "TDM-LPAIF-RX-SECONDARY");
    EXPECT_EQ(config.rate, 48000u);
    EXPECT_EQ(config.ch, 2u);
    EXPECT_EQ(config.bits, 32u);
    EXPECT_EQ(config.format, PCM_FORMAT_S32_LE);

    // Attribute names do not matter; without a format the bit width decides.
    config = {};
    ASSERT_EQ(device_config_of(file, "TDM-LPAIF-RX-PRIMARY", config), 0);
    EXPECT_EQ(config.rate, 44100u);
    EXPECT_EQ(config.ch, 1u);
    EXPECT_EQ(config.bits, 24u);
    EXPECT_EQ(config.format, PCM_FORMAT_S24_LE);

    ASSERT_EQ(device_config_of(file, "CODEC_DMA-LPAIF_WSA-RX-0", config), 0);
    EXPECT_EQ(config.format, PCM_FORMAT_S24_3LE);
    // An unknown format text falls back to the bit width; an unusual width has no format.
    ASSERT_EQ(device_config_of(file, "TDM-LPAIF-RX-QUATERNARY", config), 0);
    EXPECT_EQ(config.ch, 4u);
    EXPECT_EQ(config.format, PCM_FORMAT_S16_LE);
    ASSERT_EQ(device_config_of(file, "TDM-LPAIF-RX-QUINARY", config), 0);
    EXPECT_EQ(config.format, PCM_FORMAT_INVALID);
}

TEST(BackendConf, GroupEntriesCarryASlotMask)
{
    TempFolder folder;
    const std::string file = folder.write("backend_conf.xml", conf);

    group_config config{};
    ASSERT_EQ(group_config_of(file, "VIRT-SPK-GROUP", config), 0);
    EXPECT_STREQ(config.name, "VIRT-SPK-GROUP");
    EXPECT_EQ(config.rate, 48000u);
    EXPECT_EQ(config.ch, 4u);
    EXPECT_EQ(config.bits, 32u);
    EXPECT_EQ(config.slot_mask, 15u);
    EXPECT_EQ(config.format, PCM_FORMAT_S24_LE);

    // A group entry of a name that is also a device is found as a group only.
    ASSERT_EQ(group_config_of(file, "TDM-LPAIF-RX-SECONDARY", config), 0);
    EXPECT_EQ(config.rate, 96000u);
    EXPECT_EQ(config.ch, 3u);
    EXPECT_EQ(config.slot_mask, 7u);
    EXPECT_EQ(config.format, PCM_FORMAT_S16_LE);

    ASSERT_EQ(group_config_of(file, "VIRT-RCV-GROUP", config), 0);
    EXPECT_EQ(config.slot_mask, 3u);
    EXPECT_EQ(group_config_of(file, "TDM-LPAIF-RX-PRIMARY", config), -EINVAL);
}

TEST(BackendConf, MissingFilesAndEntriesAreRefusedWithoutTouchingTheRecord)
{
    TempFolder folder;
    const std::string file = folder.write("backend_conf.xml", conf);
    device_config config{};
    std::strcpy(config.name, "untouched");
    config.rate = 7;

    EXPECT_EQ(device_config_of(folder.path() + "/absent.xml", "TDM-LPAIF-RX-SECONDARY", config),
              -EINVAL);
    EXPECT_EQ(device_config_of(file, "TDM-LPAIF-RX-SEC", config), -EINVAL);
    EXPECT_EQ(device_config_of(file, "VIRT-SPK-GROUP", config), -EINVAL);
    // Too few attributes, or numbers that are not numbers.
    const std::string odd = folder.write("odd.xml", R"(<config>
  <device name="SHORT" rate="48000" ch="2"/>
  <device name="WORDS" rate="fast" ch="2" bits="16"/>
  <device name="SIGNED" rate="-48000" ch="2" bits="16"/>
</config>)");
    EXPECT_EQ(device_config_of(odd, "SHORT", config), -EINVAL);
    EXPECT_EQ(device_config_of(odd, "WORDS", config), -EINVAL);
    EXPECT_EQ(device_config_of(odd, "SIGNED", config), -EINVAL);
    group_config group{};
    EXPECT_EQ(group_config_of(folder.path() + "/absent.xml", "VIRT-SPK-GROUP", group), -EINVAL);
    EXPECT_STREQ(config.name, "untouched");
    EXPECT_EQ(config.rate, 7u);
}

TEST(BackendConf, BrokenXmlCountsOnlyBeforeTheEntry)
{
    TempFolder folder;
    const std::string file = folder.write("broken.xml", R"(<config>
  <device name="EARLY" rate="48000" ch="2" bits="16"/>
  <device name="BROKEN" rate="48000" ch="2" bits="16"
  <device name="LATE" rate="48000" ch="2" bits="16"/>
</config>)");
    device_config config{};
    EXPECT_EQ(device_config_of(file, "EARLY", config), 0);
    EXPECT_EQ(config.rate, 48000u);
    EXPECT_EQ(device_config_of(file, "LATE", config), -EINVAL);

    // A long name is cut to fit the record, still terminated.
    const std::string long_name(120, 'N');
    const std::string long_file =
        folder.write("long.xml", "<config><device name=\"" + long_name +
                                     "\" rate=\"48000\" ch=\"2\" bits=\"16\"/></config>");
    ASSERT_EQ(device_config_of(long_file, long_name.c_str(), config), 0);
    EXPECT_EQ(std::string(config.name), long_name.substr(0, sizeof(config.name) - 1));
}

} // namespace
