#include "live_log.h"

#include "dsp_model.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace tvox::sim::live
{

namespace
{

constexpr int kAmpCard = 0;
constexpr double kExcursionPerLevel = 0.8;
constexpr double kF0FaultExcursion = 0.99;
constexpr uint32_t kTemperatureMask = 0xFFF;
constexpr double kCodePerDegree = 4.0;
constexpr std::string_view kDataControl = "DSP1 Protection 5f210 RTLOG_DATA";
constexpr size_t kBlockBytes = 32;

// The live state of each channel, kept in the upper half of the model area.
struct ChannelState {
    double temperature_c;
    int64_t updated_ns; // 0: the coil has never been followed (starts at ambient)
    uint64_t samples;
};

struct Area {
    char magic[8];
    uint32_t version;
    uint32_t reserved;
    ChannelState channels[dsp::kChannels];
};
static_assert(kAreaOffset + sizeof(Area) <= kModelAreaBytes);

constexpr char kMagic[8] = "LIVELOG";
constexpr uint32_t kAreaVersion = 1;

Area &area(Session &session)
{
    auto *live = reinterpret_cast<Area *>(session.model_area().data() + kAreaOffset);
    if (std::memcmp(live->magic, kMagic, sizeof kMagic) != 0 || live->version != kAreaVersion) {
        *live = Area{};
        std::memcpy(live->magic, kMagic, sizeof kMagic);
        live->version = kAreaVersion;
    }
    return *live;
}

std::span<uint8_t> stored_bytes(Session &session, unsigned channel, std::string_view suffix)
{
    ControlSlot *slot = dsp::channel_slot(session, channel, suffix);
    return slot != nullptr ? session.bytes(*slot) : std::span<uint8_t>{};
}

int64_t stored_number(Session &session, unsigned channel, std::string_view suffix)
{
    ControlSlot *slot = dsp::channel_slot(session, channel, suffix);
    if (slot == nullptr || session.numbers(*slot).empty())
        return 0;
    return session.numbers(*slot)[0];
}

bool stored_item_is(Session &session, unsigned channel, std::string_view suffix,
                    std::string_view item)
{
    const std::string name = std::string(dsp::channel_letter(channel)) + " " + std::string(suffix);
    const Control *control = Catalogue::from_env().find(kAmpCard, name);
    return control != nullptr &&
           stored_number(session, channel, suffix) == control->item_index(item);
}

// Big-endian word `word` of a stored byte control, 0 when it is shorter.
uint32_t stored_word(Session &session, unsigned channel, std::string_view suffix, size_t word)
{
    const std::span<uint8_t> bytes = stored_bytes(session, channel, suffix);
    return bytes.size() >= (word + 1) * 4 ? load_be32(bytes, word) : 0;
}

bool configured(Session &session, unsigned channel)
{
    if (stored_word(session, channel, "DSP1 Protection cd RTLOG_ENABLE", 0) != 1 ||
        stored_word(session, channel, "DSP1 Protection cd RTLOG_COUNT", 0) != kVariables.size())
        return false;
    for (size_t i = 0; i < kVariables.size(); ++i) {
        if (stored_word(session, channel, "DSP1 Protection cd RTLOG_VARIABLE", i) != kVariables[i])
            return false;
    }
    return true;
}

bool fed(Session &session, unsigned channel)
{
    return (session.reg(channel, kFeedRegister) & kFeedBit) != 0 &&
           (session.reg(channel, kLogRegister) & kLogBit) != 0;
}

// The electrical side of the channel now, without the coil temperature.
ChannelLive drive(Session &session, unsigned channel)
{
    ChannelLive live{};
    live.firmware_running = stored_item_is(session, channel, "DSP1 Firmware", "Protection");
    live.configured = configured(session, channel);
    live.fed = fed(session, channel);
    const bool amp_on = stored_number(session, channel, "AMP Enable Switch") != 0;
    if (!amp_on || stored_item_is(session, channel, "PCM Source", "Zero"))
        return live;
    const bool right = stored_bytes(session, channel, "DSP1 Protection 5f210 CH_BAL").size() >= 2 &&
                       stored_bytes(session, channel, "DSP1 Protection 5f210 CH_BAL")[1] != 0;
    live.level = dsp::playing_peak(session) * (right ? kRightLevel : 1.0);
    const SpeakerConfig &speaker = session.speaker(channel);
    live.volts = live.level * kFullScaleVolts;
    switch (speaker.fault) {
    case SpeakerFault::open:
        live.amps = 0;
        break;
    case SpeakerFault::shorted:
        live.amps = live.level > 0 ? kMaxAmps : 0;
        break;
    default:
        live.amps = std::min(kMaxAmps, live.volts / std::max(speaker.resistance_ohm, 0.01));
        break;
    }
    live.excursion = speaker.fault == SpeakerFault::f0_failure && live.level > 0
                         ? kF0FaultExcursion
                         : live.level * kExcursionPerLevel;
    return live;
}

// Follows the coil from its last update to now at the power it dissipates now.
ChannelLive follow(Session &session, unsigned channel)
{
    ChannelLive live = drive(session, channel);
    ChannelState &state = area(session).channels[channel];
    const int64_t now = now_ns();
    const double target = kAmbientC + kKelvinPerWatt * live.volts * live.amps / 2;
    if (state.updated_ns == 0) {
        state.temperature_c = kAmbientC;
    } else {
        const double elapsed = static_cast<double>(now - state.updated_ns);
        const double keep = std::exp(-elapsed / static_cast<double>(kThermalTauNs));
        state.temperature_c = target + (state.temperature_c - target) * keep;
    }
    state.updated_ns = now;
    live.temperature_c = state.temperature_c;
    live.temperature_code =
        static_cast<uint32_t>(std::clamp(std::lround(state.temperature_c * kCodePerDegree), 0L,
                                         static_cast<long>(kTemperatureMask)));
    live.samples = state.samples;
    return live;
}

// A value as a 24-bit firmware word (sign in bit 23) at `scale` units per 1.
uint32_t word24(double value, double scale)
{
    const long raw = std::clamp(std::lround(value * scale), -0x800000L, 0x7FFFFFL);
    return static_cast<uint32_t>(raw) & 0xFFFFFF;
}

bool delivers(const ChannelLive &live)
{
    return live.firmware_running && live.configured && live.fed;
}

void fill_block(Session &session, unsigned channel, std::span<uint8_t> bytes)
{
    // A log that does not deliver leaves its last block in place.
    ChannelLive live = follow(session, channel);
    const std::span<uint8_t> stored = stored_bytes(session, channel, kDataControl);
    if (!delivers(live) || bytes.size() < kBlockBytes || stored.size() != bytes.size())
        return;
    // The firmware hears only what passes through its DSP.
    const bool on_dsp = stored_item_is(session, channel, "PCM Source", "DSP");
    const std::array<uint32_t, 4> values = {
        word24(on_dsp ? live.temperature_c : kAmbientC, 1 << 14),
        word24(on_dsp ? live.volts : 0, 1 << 19),
        word24(on_dsp ? live.amps : 0, 1 << 19),
        word24(on_dsp ? live.excursion : 0, 1 << 23),
    };
    for (size_t i = 0; i < kVariables.size(); ++i) {
        store_be32(bytes, 2 * i, kVariables[i]);
        store_be32(bytes, 2 * i + 1, values[i]);
    }
    std::ranges::copy(bytes, stored.begin());
    ++area(session).channels[channel].samples;
}

void restart_firmware(Session &session, unsigned channel)
{
    for (std::string_view suffix :
         {"DSP1 Protection cd RTLOG_ENABLE", "DSP1 Protection cd RTLOG_VARIABLE",
          "DSP1 Protection cd RTLOG_COUNT", "DSP1 Protection cd RTLOG_STATE"}) {
        const std::span<uint8_t> bytes = stored_bytes(session, channel, suffix);
        std::fill(bytes.begin(), bytes.end(), 0);
    }
    area(session).channels[channel] = ChannelState{};
}

} // namespace

ChannelLive report(Session &session, unsigned channel)
{
    return follow(session, channel);
}

int on_write(Session &session, unsigned channel, std::string_view suffix, Value value)
{
    // The coil is followed up to every change of what drives it, so each span is integrated at
    // the power it really had.
    const ChannelLive live = follow(session, channel);
    if (suffix.starts_with("DSP1 Protection cd ") && !live.firmware_running)
        return -EBUSY;
    if (suffix == "DSP1 Boot Switch" && !value.numbers.empty() && value.numbers[0] != 0) {
        restart_firmware(session, channel);
    } else if (suffix == "AMP WR Registers" && value.bytes.size() >= kRegisterBlockBytes &&
               load_be32(value.bytes, 0) == kRegisterRead &&
               load_be32(value.bytes, 1) == kTemperatureRegister) {
        refresh_temperature_register(session, channel);
    }
    return 0;
}

void refresh_temperature_register(Session &session, unsigned channel)
{
    const uint32_t code = follow(session, channel).temperature_code;
    const uint32_t kept = session.reg(channel, kTemperatureRegister) & ~kTemperatureMask;
    session.set_reg(channel, kTemperatureRegister, kept | code);
}

void on_read(Session &session, unsigned channel, std::string_view suffix, Value value)
{
    if (suffix == kDataControl) {
        fill_block(session, channel, value.bytes);
    } else if (suffix == "DSP1 Protection 5f210 RTLOG_STATE" && value.bytes.size() >= 4) {
        store_be32(value.bytes, 0, delivers(follow(session, channel)) ? 1 : 0);
    }
}

} // namespace tvox::sim::live
