// The tinyalsa mixer calls against the virtual amplifier pair (card 0), checked from another
// process through amixer and in the simulator's state.
#include <tinyalsa/asoundlib.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/mixer.h"

namespace
{

constexpr const char *stereo_switch = "SPK AMP Enable Switch";
constexpr const char *stereo_volume = "SPK Digital PCM Volume";
constexpr const char *source = "T PCM Source";
constexpr const char *stereo_source = "SPK PCM Source";
constexpr const char *plain_bytes = "T DSP1 Protection 5f210 CH_BAL";
constexpr const char *tlv_bytes = "T DSP1 Protection cd RTLOG_VARIABLE";

using MixerSim = tvox::test::MixerSimTest<0>;

void amixer_set(const char *name, const char *values)
{
    ASSERT_EQ(MixerSim::amixer(0, std::string("cset name='") + name + "' " + values).status, 0)
        << name;
}

TEST_F(MixerSim, ValuesAndArraysSetHereAreSeenByAmixerAndTheOtherWayRound)
{
    // One element changes, the other keeps its value; any non-zero boolean is on.
    ASSERT_EQ(mixer_ctl_set_value(ctl(stereo_switch), 1, 5), 0);
    EXPECT_EQ(amixer_values(0, stereo_switch), "off,on");
    ASSERT_EQ(mixer_ctl_set_value(ctl(stereo_volume), 0, 400), 0);
    EXPECT_EQ(amixer_values(0, stereo_volume), "400,817");
    ASSERT_EQ(mixer_ctl_set_enum_by_string(ctl(source), "DSP"), 0);
    EXPECT_EQ(amixer_values(0, source), "2");
    const uint8_t data[] = {0x12, 0x34, 0xab, 0xff};
    ASSERT_EQ(mixer_ctl_set_array(ctl(plain_bytes), data, sizeof data), 0);
    EXPECT_EQ(amixer_values(0, plain_bytes), "0x12,0x34,0xab,0xff");

    amixer_set(stereo_switch, "on,off");
    EXPECT_EQ(mixer_ctl_get_value(ctl(stereo_switch), 0), 1);
    EXPECT_EQ(mixer_ctl_get_value(ctl(stereo_switch), 1), 0);
    amixer_set(stereo_volume, "12,913");
    long volumes[2] = {};
    ASSERT_EQ(mixer_ctl_get_array(ctl(stereo_volume), volumes, 2), 0);
    EXPECT_EQ(std::vector<long>(volumes, volumes + 2), (std::vector<long>{12, 913}));
    amixer_set(source, "Zero");
    EXPECT_EQ(mixer_ctl_get_value(ctl(source), 0), 3);
    amixer_set(plain_bytes, "0x01,0x80,0x7f,0xfe");
    uint8_t data_read[4] = {};
    ASSERT_EQ(mixer_ctl_get_array(ctl(plain_bytes), data_read, 3), 0);
    EXPECT_EQ(std::vector<uint8_t>(data_read, data_read + 4),
              (std::vector<uint8_t>{1, 0x80, 0x7f, 0}));

    // Arrays of BOOL and INT controls are of `long` elements, and an item set by name goes to
    // value 0 while every other value becomes 0, as tinyalsa does on a phone.
    const long new_volumes[2] = {913, 12};
    ASSERT_EQ(mixer_ctl_set_array(ctl(stereo_volume), new_volumes, 2), 0);
    EXPECT_EQ(amixer_values(0, stereo_volume), "913,12");
    const long switches[2] = {0, 1};
    ASSERT_EQ(mixer_ctl_set_array(ctl(stereo_switch), switches, 2), 0);
    EXPECT_EQ(amixer_values(0, stereo_switch), "off,on");
    long read[3] = {-1, -1, -1};
    ASSERT_EQ(mixer_ctl_get_array(ctl(stereo_switch), read, 2), 0);
    EXPECT_EQ(std::vector<long>(read, read + 3), (std::vector<long>{0, 1, -1}));

    EXPECT_EQ(amixer_values(0, stereo_source), "0,1");
    ASSERT_EQ(mixer_ctl_set_enum_by_string(ctl(stereo_source), "DSP"), 0);
    EXPECT_EQ(amixer_values(0, stereo_source), "2,0");
}

TEST_F(MixerSim, ControlsAreDescribedAndWhatDoesNotExistIsNotFound)
{
    const unsigned int count = mixer_get_num_ctls(mixer_.get());
    ASSERT_GT(count, 10u);
    EXPECT_EQ(mixer_get_ctl(mixer_.get(), count), nullptr);
    EXPECT_EQ(mixer_ctl_get_type(ctl(stereo_switch)), MIXER_CTL_TYPE_BOOL);
    EXPECT_EQ(mixer_ctl_get_num_values(ctl(stereo_switch)), 2u);
    EXPECT_STREQ(mixer_ctl_get_enum_string(ctl(source), 3), "Zero");
    EXPECT_EQ(mixer_ctl_get_enum_string(ctl(source), 4), nullptr);

    EXPECT_EQ(mixer_open(42), nullptr); // hw:42
    setenv("TINYALSA_CARD_42", "tvoxabsent", 1);
    EXPECT_EQ(mixer_open(42), nullptr);
}

TEST_F(MixerSim, RefusedCallsChangeNothing)
{
    EXPECT_EQ(mixer_ctl_set_value(ctl(stereo_volume), 2, 1), -EINVAL);
    EXPECT_EQ(mixer_ctl_set_enum_by_string(ctl(source), "Dsp"), -EINVAL);
    const int three[3] = {1, 2, 3};
    EXPECT_EQ(mixer_ctl_set_array(ctl(stereo_volume), three, 3), -EINVAL);
    const uint8_t five[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(mixer_ctl_set_array(ctl(plain_bytes), five, 5), -EINVAL);
    // The card's own refusals (past the range, an item that does not exist, a read-only
    // control) come back as errors too.
    EXPECT_LT(mixer_ctl_set_value(ctl(stereo_volume), 0, 914), 0);
    EXPECT_LT(mixer_ctl_set_value(ctl(source), 0, 4), 0);
    EXPECT_LT(mixer_ctl_set_value(ctl("T AMP Active Status"), 0, 1), 0);
    EXPECT_EQ(journal_lines(), std::vector<std::string>{});
    EXPECT_EQ(int_values(0, stereo_volume), (std::vector<long>{817, 817}));
    EXPECT_EQ(enum_item(0, source), "ASPRX1");
    EXPECT_EQ(bytes(0, plain_bytes), (std::vector<uint8_t>{0, 0, 0, 0}));
}

// A TLV container as the caller builds it: {tag, length} and then `payload`.
std::vector<uint8_t> container(uint32_t length, const std::vector<uint8_t> &payload)
{
    std::vector<uint8_t> result(8 + payload.size());
    std::memcpy(result.data() + 4, &length, 4);
    std::copy(payload.begin(), payload.end(), result.begin() + 8);
    return result;
}

TEST_F(MixerSim, TlvByteControlsMoveTheCallersContainer)
{
    std::vector<uint8_t> payload(16);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<uint8_t>(0xf0 - i);
    const std::vector<uint8_t> sent = container(16, payload);
    ASSERT_EQ(mixer_ctl_set_array(ctl(tlv_bytes), sent.data(), sent.size()), 0);
    EXPECT_EQ(bytes(0, tlv_bytes), payload);
    std::vector<uint8_t> read(8 + 16);
    ASSERT_EQ(mixer_ctl_get_array(ctl(tlv_bytes), read.data(), read.size()), 0);
    EXPECT_EQ(read, sent);
    // A smaller container gets the start of the value, and says so in its length.
    std::vector<uint8_t> part(8 + 4);
    ASSERT_EQ(mixer_ctl_get_array(ctl(tlv_bytes), part.data(), part.size()), 0);
    EXPECT_EQ(part, container(4, {payload.begin(), payload.begin() + 4}));

    // Every byte of the container reaches the control, whatever its length word says.
    for (const uint32_t length : {0u, 4u, 12u, 0xffffffffu}) {
        const std::vector<uint8_t> data(8, static_cast<uint8_t>(length + 1));
        const std::vector<uint8_t> whole = container(length, data);
        ASSERT_EQ(mixer_ctl_set_array(ctl(tlv_bytes), whole.data(), whole.size()), 0) << length;
        std::vector<uint8_t> expected = data;
        expected.insert(expected.end(), payload.begin() + 8, payload.end());
        EXPECT_EQ(bytes(0, tlv_bytes), expected) << length;
    }

    // More than the control plus its header, or less than a header: refused, and the value
    // stays.
    preset_bytes(0, tlv_bytes, payload);
    clear_journal();
    std::vector<uint8_t> oversized = container(16, std::vector<uint8_t>(17, 0x11));
    EXPECT_EQ(mixer_ctl_set_array(ctl(tlv_bytes), oversized.data(), oversized.size()), -EINVAL);
    EXPECT_EQ(mixer_ctl_set_array(ctl(tlv_bytes), oversized.data(), 7), -EINVAL);
    EXPECT_EQ(mixer_ctl_get_array(ctl(tlv_bytes), oversized.data(), 7), -EINVAL);
    EXPECT_EQ(bytes(0, tlv_bytes), payload);
    EXPECT_EQ(journal_lines(), std::vector<std::string>{});
}

} // namespace
