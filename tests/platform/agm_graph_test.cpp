// The AGM graph calls against the virtual AGM card (card 100), checked in the simulator's state
// and journal.
#include <agmmixer.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "agm_graph.h"
#include "state.h"
#include "support/mixer.h"

namespace
{

char backend[] = "TDM-LPAIF-RX-SECONDARY";
char group[] = "VIRT-SPK-GROUP";
constexpr uint32_t mfc_tag = 0xC0000019;
using Words = std::vector<uint32_t>;

using AgmSim = tvox::test::MixerSimTest<100>;

TEST_F(AgmSim, MediaConfigMetadataAndGroupsAreWritten)
{
    device_config config{"", 48000, 2, 32, PCM_FORMAT_S32_LE};
    ASSERT_EQ(set_agm_device_media_config(mixer_.get(), backend, &config), 0);
    EXPECT_EQ(int_values(100, "TDM-LPAIF-RX-SECONDARY rate ch fmt"),
              (std::vector<long>{48000, 2, 32, PCM_FORMAT_S32_LE}));
    ASSERT_EQ(set_agm_audio_intf_metadata(mixer_.get(), backend, 0xA2000001, PLAYBACK, 48000, 32,
                                          0xA100000E),
              0);
    EXPECT_EQ(words(100, "TDM-LPAIF-RX-SECONDARY metadata", 10),
              (Words{4, 0xA2000000, 0xA2000001, 0xA1000000, 0xA100000E, 0xD2000000, 48000,
                     0xD3000000, 32, 0}));
    ASSERT_EQ(set_agm_stream_metadata(mixer_.get(), 100, 0xA100000E, PLAYBACK, STREAM_PCM, 1), 0);
    EXPECT_EQ(words(100, "PCM100 metadata", 6),
              (Words{2, 0xA1000000, 0xA100000E, 0xAB000000, 1, 0}));

    // The per-interface calls select the interface first.
    clear_journal();
    ASSERT_EQ(set_agm_streamdevice_metadata(mixer_.get(), 100, 0xA100000E, PLAYBACK, STREAM_PCM,
                                            backend, 0xAC000001),
              0);
    EXPECT_EQ(words(100, "PCM100 metadata", 5),
              (Words{2, 0xA1000000, 0xA100000E, 0xAC000000, 0xAC000001}));
    EXPECT_EQ(journal_lines().front(), "ctl 100 \"PCM100 control\" = TDM-LPAIF-RX-SECONDARY");

    group_config grp{"", 48000, 4, 32, 15, PCM_FORMAT_S32_LE};
    ASSERT_EQ(set_agm_group_device_config(mixer_.get(), group, &grp), 0);
    EXPECT_EQ(words(100, "VIRT-SPK-GROUP group config", 5), (Words{48000, 4, 32, 15, 0}));
    ASSERT_EQ(set_agm_group_mux_config(mixer_.get(), 100, &grp, group, 2), 0);
    EXPECT_EQ(enum_item(100, "PCM100 control"), group);
    EXPECT_EQ(words(100, "PCM100 group mux config", 3), (Words{2, 15, 0}));
}

TEST_F(AgmSim, ConnectedGraphsGiveTheMfcToConfigure)
{
    uint32_t miid = 0;
    // Nothing connected: the graph has no modules.
    EXPECT_LT(agm_mixer_get_miid(mixer_.get(), 100, backend, STREAM_PCM, mfc_tag, &miid), 0);
    ASSERT_EQ(connect_agm_audio_intf_to_stream(mixer_.get(), 100, backend, STREAM_PCM, true), 0);
    EXPECT_EQ(enum_item(100, "PCM100 connect"), backend);
    ASSERT_EQ(agm_mixer_get_miid(mixer_.get(), 100, backend, STREAM_PCM, mfc_tag, &miid), 0);
    EXPECT_EQ(miid, tvox::sim::agm::mfc_miid(100, backend));
    ASSERT_EQ(configure_mfc(mixer_.get(), 100, backend, mfc_tag, STREAM_PCM, 48000, 2, 32, miid),
              0);
    EXPECT_EQ(words(100, "PCM100 setParam", 5), (Words{miid, 48000, 2, 32, 0}));
    ASSERT_EQ(connect_agm_audio_intf_to_stream(mixer_.get(), 100, backend, STREAM_PCM, false), 0);
    EXPECT_EQ(enum_item(100, "PCM100 disconnect"), backend);

    // A back end the sim builds without an MFC has none to give.
    {
        tvox::sim::Session session = state().lock();
        ASSERT_TRUE(tvox::sim::agm::set_no_mfc(session, backend, true));
    }
    ASSERT_EQ(connect_agm_audio_intf_to_stream(mixer_.get(), 101, backend, STREAM_PCM, true), 0);
    EXPECT_LT(agm_mixer_get_miid(mixer_.get(), 101, backend, STREAM_PCM, mfc_tag, &miid), 0);
}

TEST_F(AgmSim, MissingControlsAndItemsAreErrors)
{
    char unknown[] = "TDM-LPAIF-RX-NONE";
    device_config config{};
    EXPECT_EQ(set_agm_device_media_config(mixer_.get(), unknown, &config), -ENOENT);
    // Front end 102 does not exist; the stream controls do not list the interface.
    EXPECT_EQ(set_agm_stream_metadata(mixer_.get(), 102, 1, PLAYBACK, STREAM_PCM, 0), -ENOENT);
    EXPECT_EQ(connect_agm_audio_intf_to_stream(mixer_.get(), 100, unknown, STREAM_PCM, true),
              -EINVAL);
    EXPECT_EQ(journal_lines(), std::vector<std::string>{});
}

} // namespace
