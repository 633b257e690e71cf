// Control-name tables of the two amplifiers, indexed by tervox_ctl_id (null: no such control).
// The bottom amplifier's controls carry the top one's names with "B" in place of the leading "T",
// so each table is written once and its per-channel copies are made at compile time. The copies
// are writable data: a HAL may repoint a channel's table before use.
#pragma once

#include "tvoxsp/context.h"

#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

namespace tvox::ctl
{

using NameList = std::array<std::string_view, TERVOX_NUM_CTLS>;

// Controls the library writes.
constexpr NameList write_names()
{
    NameList t{};
    t[CTL_CAL_R] = "T DSP Set CAL_R";
    t[CTL_CAL_STATUS] = "T DSP1 Protection 5f210 CAL_STATUS";
    t[CTL_CAL_CHECKSUM] = "T DSP1 Protection 5f210 CAL_CHECKSUM";
    t[CTL_CAL_AMBIENT] = "T DSP1 Protection 5f210 CAL_AMBIENT";
    t[CTL_QORA_STATE] = "T DSP1 Protection 5f210 QORA_STATE";
    t[CTL_CH_BAL] = "T DSP1 Protection 5f210 CH_BAL";
    t[CTL_SET_CAL_R] = "T DSP Set CAL_R";
    t[CTL_AMP_ACTIVE_STATUS] = "T AMP Active Status";
    t[CTL_RTLOG_STATE] = "T DSP1 Protection 5f210 RTLOG_STATE";
    t[CTL_RTLOG_DATA] = "T DSP1 Protection 5f210 RTLOG_DATA";
    t[CTL_AMP_WR_REGISTERS] = "T AMP WR Registers";
    return t;
}

// DSP read-back controls used after a calibration.
constexpr NameList read_names()
{
    NameList t{};
    t[CTL_CAL_R] = "T DSP Get CAL_R";
    t[CTL_CAL_STATUS] = "T DSP Get CAL_STATUS";
    t[CTL_CAL_CHECKSUM] = "T DSP1 Protection 5f210 CAL_CHECKSUM";
    t[CTL_CAL_AMBIENT] = "T DSP1 Protection 5f210 CAL_AMBIENT";
    t[CTL_DIAG_F0_STATUS] = "T DSP1 Protection 5f210 DIAG_F0_STATUS";
    t[CTL_DIAG_F0] = "T DSP1 Protection 5f210 DIAG_F0";
    t[CTL_DIAG_Z_LOW_DIFF] = "T DSP1 Protection 5f210 DIAG_Z_LOW_DIFF";
    t[CTL_QORA_STATE] = "T DSP1 Protection 5f210 QORA_STATE";
    return t;
}

// Protection-firmware parameters read by the diagnostic.
constexpr NameList protection_names()
{
    NameList t{};
    t[CTL_CAL_R] = "T Protection 5f210 CAL_R";
    t[CTL_CAL_STATUS] = "T Protection 5f210 CAL_STATUS";
    t[CTL_CAL_CHECKSUM] = "T Protection 5f210 CAL_CHECKSUM";
    t[CTL_CAL_AMBIENT] = "T Protection 5f210 CAL_AMBIENT";
    t[CTL_DIAG_F0_STATUS] = "T Protection 5f210 DIAG_F0_STATUS";
    t[CTL_DIAG_F0] = "T Protection 5f210 DIAG_F0";
    t[CTL_DIAG_Z_LOW_DIFF] = "T Protection 5f210 DIAG_Z_LOW_DIFF";
    t[CTL_QORA_STATE] = "T Protection 5f210 QORA_STATE";
    return t;
}

namespace detail
{

constexpr bool all_top_names(const NameList &names)
{
    for (auto name : names)
        if (!name.empty() && name.front() != 'T')
            return false;
    return true;
}

// Where name `id` starts in the packed text: every non-empty name before it plus its NUL.
constexpr std::size_t text_offset(const NameList &names, std::size_t id)
{
    std::size_t offset = 0;
    for (std::size_t i = 0; i < id; ++i)
        if (!names[i].empty())
            offset += names[i].size() + 1;
    return offset;
}

// The names, NUL-terminated one after another, with the channel's letter in front.
template <NameList (*Names)(), char Channel>
inline constexpr auto channel_text = [] {
    std::array<char, text_offset(Names(), TERVOX_NUM_CTLS)> out{};
    const NameList names = Names();
    for (std::size_t id = 0; id < TERVOX_NUM_CTLS; ++id) {
        if (names[id].empty())
            continue;
        const auto start = text_offset(names, id);
        out[start] = Channel;
        for (std::size_t i = 1; i < names[id].size(); ++i)
            out[start + i] = names[id][i];
    }
    return out;
}();

template <NameList (*Names)(), char Channel, typename = std::make_index_sequence<TERVOX_NUM_CTLS>>
struct ChannelTable;

template <NameList (*Names)(), char Channel, std::size_t... Id>
struct ChannelTable<Names, Channel, std::index_sequence<Id...>> {
    static_assert(all_top_names(Names()), "per-channel names start with the channel letter T");

    static inline const char *names[TERVOX_NUM_CTLS] = {
        (Names()[Id].empty() ? nullptr
                             : channel_text<Names, Channel>.data() + text_offset(Names(), Id))...};
};

} // namespace detail

inline constexpr auto &top_write = detail::ChannelTable<write_names, 'T'>::names;
inline constexpr auto &top_read = detail::ChannelTable<read_names, 'T'>::names;
inline constexpr auto &top_protection = detail::ChannelTable<protection_names, 'T'>::names;
inline constexpr auto &bottom_write = detail::ChannelTable<write_names, 'B'>::names;
inline constexpr auto &bottom_read = detail::ChannelTable<read_names, 'B'>::names;
inline constexpr auto &bottom_protection = detail::ChannelTable<protection_names, 'B'>::names;

// Channel-independent controls of the host DSP module (ids 16 to 18 only).
inline const char *qdsp[TERVOX_NUM_CTLS] = {nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            nullptr,
                                            "Tervox SP Channel Swap",
                                            "Tervox SP Delta",
                                            "Tervox SP Load Rx Config"};

} // namespace tvox::ctl
