// Reading back-end media configurations from backend_conf.xml files written by the tests.
#include <agmmixer.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <tuple>

#include "support/sim_fixture.h"

namespace
{

struct Conf : tvox::test::SimTest {
    int device(const std::string &file, const std::string &name)
    {
        return get_device_media_config(const_cast<char *>(file.c_str()),
                                       const_cast<char *>(name.c_str()), &dev);
    }
    int group(const std::string &file, const std::string &name)
    {
        return get_group_device_info(const_cast<char *>(file.c_str()),
                                     const_cast<char *>(name.c_str()), &grp);
    }
    device_config dev{};
    group_config grp{};
};

// A record's fields, compared and printed as one value.
auto fields(const device_config &c)
{
    return std::tuple(std::string(c.name), c.rate, c.ch, c.bits, c.format);
}
auto fields(const group_config &c)
{
    return std::tuple(std::string(c.name), c.rate, c.ch, c.bits, c.slot_mask, c.format);
}

// A record of kind T that a call left alone shows the name "untouched".
template <typename T> T untouched()
{
    T record{};
    std::strcpy(record.name, "untouched");
    return record;
}

constexpr const char *conf = R"(<?xml version="1.0" encoding="UTF-8"?>
<config>
  <!-- group entries are not devices -->
  <group_device name="TDM-LPAIF-RX-SECONDARY" rate="96000" ch="3" bits="16" slot_mask="7"/>
  <device name="TDM-LPAIF-RX-SECONDARY" rate="48000" ch="2" bits="32" format="PCM_FORMAT_S32_LE"/>
  <device name="TDM-LPAIF-RX-SECONDARY" rate="8000" ch="1" bits="16"/>
  <device id="TDM-LPAIF-RX-PRIMARY" r="44100" c="1" b="24"/>
  <device name="TDM-LPAIF-RX-QUATERNARY" rate="16000" ch="4" bits="16" format="BOGUS"/>
  <group_device name="VIRT-SPK-GROUP" rate="48000" ch="4" bits="32" slot_mask="15" format="PCM_FORMAT_S24_LE"/>
  <device name="SHORT" rate="48000" ch="2"/>
  <device name="WORDS" rate="fast" ch="2" bits="16"/>
</config>
)";

TEST_F(Conf, EntriesAreReadByPositionTheFirstOfANameWinsAndNoMatchIsAnError)
{
    const std::string file = folder_file("backend_conf.xml", conf);
    // Attribute names do not matter. Without a format, or with an unknown one, the bit width
    // decides.
    const device_config devices[] = {
        {"TDM-LPAIF-RX-SECONDARY", 48000, 2, 32, PCM_FORMAT_S32_LE},
        {"TDM-LPAIF-RX-PRIMARY", 44100, 1, 24, PCM_FORMAT_S24_LE},
        {"TDM-LPAIF-RX-QUATERNARY", 16000, 4, 16, PCM_FORMAT_S16_LE},
    };
    for (const device_config &expected : devices) {
        ASSERT_EQ(device(file, expected.name), 0) << expected.name;
        EXPECT_EQ(fields(dev), fields(expected));
    }
    // Group entries are found as groups only, devices of the same name as devices only.
    const group_config groups[] = {
        {"VIRT-SPK-GROUP", 48000, 4, 32, 15, PCM_FORMAT_S24_LE},
        {"TDM-LPAIF-RX-SECONDARY", 96000, 3, 16, 7, PCM_FORMAT_S16_LE},
    };
    for (const group_config &expected : groups) {
        ASSERT_EQ(group(file, expected.name), 0) << expected.name;
        EXPECT_EQ(fields(grp), fields(expected));
    }

    // What is not found leaves the record as it was.
    dev = untouched<device_config>();
    dev.rate = 7;
    EXPECT_EQ(device(sim_dir() + "/absent.xml", "TDM-LPAIF-RX-SECONDARY"), -EINVAL);
    // No entry of the name, a group only, too few attributes, numbers that are not numbers.
    for (const char *name : {"TDM-LPAIF-RX-SEC", "VIRT-SPK-GROUP", "SHORT", "WORDS"})
        EXPECT_EQ(device(file, name), -EINVAL) << name;
    EXPECT_STREQ(dev.name, "untouched");
    EXPECT_EQ(dev.rate, 7u);
}

// The fuzz target's corpus, replayed: each file is the interface name on its first line and the
// file after it. Every file is read or refused, a refusal leaves the record as it was, and a
// record read names the interface asked for; seeds get their records.
TEST_F(Conf, CorpusFilesAreReadOrRefusedWithoutTouchingTheRecordOnRefusal)
{
    const auto no_device = untouched<device_config>();
    const auto no_group = untouched<group_config>();
    const std::map<std::string, std::tuple<device_config, group_config>> seeds = {
        {"device_format", {{"TDM-LPAIF-RX-SECONDARY", 48000, 2, 32, PCM_FORMAT_S32_LE}, no_group}},
        {"group_slot_mask",
         {no_device, {"TDM-LPAIF-RX-TERTIARY", 96000, 3, 16, 7, PCM_FORMAT_S16_LE}}},
        {"device_first_wins", {{"X", 48000, 2, 24, PCM_FORMAT_S24_LE}, no_group}},
        {"device_bad_number", {no_device, no_group}},
        {"truncated", {no_device, no_group}},
    };
    size_t seeds_seen = 0;
    for (const auto &entry : std::filesystem::directory_iterator(TVOXSP_BACKEND_CONF_CORPUS)) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(in), {}};
        const size_t newline = input.find('\n');
        if (newline == std::string::npos)
            continue;
        const std::string file_name = entry.path().filename();
        const std::string name = input.substr(0, newline).c_str(); // as a C string sees it
        const std::string file = folder_file("backend_conf.xml", input.substr(newline + 1));
        dev = no_device;
        grp = no_group;
        const int device_status = device(file, name);
        const int group_status = group(file, name);
        for (const auto &[status, read] : {std::pair(device_status, std::string(dev.name)),
                                           std::pair(group_status, std::string(grp.name))}) {
            EXPECT_TRUE(status == 0 || status == -EINVAL) << file_name;
            EXPECT_EQ(read, status == 0 ? name.substr(0, sizeof dev.name - 1) : "untouched")
                << file_name;
        }
        const auto seed = seeds.find(file_name);
        if (seed == seeds.end())
            continue;
        ++seeds_seen;
        EXPECT_EQ(fields(dev), fields(std::get<0>(seed->second))) << file_name;
        EXPECT_EQ(fields(grp), fields(std::get<1>(seed->second))) << file_name;
    }
    EXPECT_EQ(seeds_seen, seeds.size());
}

} // namespace
