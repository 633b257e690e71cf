#include "dsp_model.h"

#include "agm_graph.h"
#include "live_log.h"
#include "model.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace tvox::sim::dsp
{

namespace
{

constexpr std::array<std::string_view, kChannels> kLetters = {"T", "B"};
constexpr int kAmpCard = 0;
constexpr int64_t kCalibrationMode = 2;

// What the model keeps in the state's model area. A fresh file holds zeros; an area written by
// another version of this struct is started afresh.
struct ChannelState {
    int64_t mode_since_ns; // when calibration mode was last entered, 0 outside it
    int64_t path_since_ns; // since when amplifier on and source DSP, 0 while not
    int32_t cal_r;         // the CAL_R the model last published
    uint8_t measured;      // the current calibration has heard enough: its result stands
    uint8_t owned;         // the model has published a calibration of this channel
    uint8_t reserved[2];
};

// The latest run of one stream record as the model saw it: whether it reached the amplifiers
// when it started (an AGM front end is disconnected again once its stream stops) and whether
// it has already served as the F0 measurement.
struct StreamSeen {
    uint64_t starts;
    int64_t start_time_ns;
    uint8_t reaches;
    uint8_t measured;
    uint8_t reserved[6];
};

struct Area {
    char magic[8];
    uint32_t version;
    uint32_t reserved;
    ChannelState channels[kChannels];
    StreamSeen streams[kMaxStreams];
};
static_assert(sizeof(Area) <= live::kAreaOffset);

constexpr char kMagic[8] = "DSPMODL";
constexpr uint32_t kAreaVersion = 2;

Area &area(Session &session)
{
    auto *model_area = reinterpret_cast<Area *>(session.model_area().data());
    if (std::memcmp(model_area->magic, kMagic, sizeof kMagic) != 0 ||
        model_area->version != kAreaVersion) {
        *model_area = Area{};
        std::memcpy(model_area->magic, kMagic, sizeof kMagic);
        model_area->version = kAreaVersion;
    }
    return *model_area;
}

// The firmware values the model publishes, and the controls (by the part of the name after
// "X ") that show each of them.
enum class Word { cal_r, status, checksum, ambient, f0_status, f0, z_low_diff, active };

struct Mirror {
    Word word;
    std::string_view suffix;
};

constexpr std::array<Mirror, 17> kMirrors = {{
    {Word::status, "DSP Get CAL_STATUS"},
    {Word::status, "DSP1 Protection 5f210 CAL_STATUS"},
    {Word::status, "Protection 5f210 CAL_STATUS"},
    {Word::cal_r, "DSP Get CAL_R"},
    {Word::cal_r, "DSP1 Protection 5f210 CAL_R"},
    {Word::cal_r, "Protection 5f210 CAL_R"},
    {Word::checksum, "DSP1 Protection 5f210 CAL_CHECKSUM"},
    {Word::checksum, "Protection 5f210 CAL_CHECKSUM"},
    {Word::ambient, "DSP1 Protection 5f210 CAL_AMBIENT"},
    {Word::ambient, "Protection 5f210 CAL_AMBIENT"},
    {Word::f0_status, "DSP1 Protection 5f210 DIAG_F0_STATUS"},
    {Word::f0_status, "Protection 5f210 DIAG_F0_STATUS"},
    {Word::f0, "DSP1 Protection 5f210 DIAG_F0"},
    {Word::f0, "Protection 5f210 DIAG_F0"},
    {Word::z_low_diff, "DSP1 Protection 5f210 DIAG_Z_LOW_DIFF"},
    {Word::z_low_diff, "Protection 5f210 DIAG_Z_LOW_DIFF"},
    {Word::active, "AMP Active Status"},
}};

std::optional<Word> published_word(std::string_view suffix)
{
    for (const Mirror &mirror : kMirrors) {
        if (mirror.suffix == suffix)
            return mirror.word;
    }
    return std::nullopt;
}

std::string control_name(unsigned channel, std::string_view suffix)
{
    return std::string(kLetters[channel]) + " " + std::string(suffix);
}

// The value storage of a card-0 control of `channel`, created with its defaults when missing.
ControlSlot *slot_of(Session &session, unsigned channel, std::string_view suffix)
{
    const std::string name = control_name(channel, suffix);
    if (ControlSlot *slot = session.find(kAmpCard, name))
        return slot;
    const Control *control = Catalogue::from_env().find(kAmpCard, name);
    return control != nullptr ? session.bind(*control) : nullptr;
}

int64_t stored_number(Session &session, unsigned channel, std::string_view suffix)
{
    ControlSlot *slot = slot_of(session, channel, suffix);
    if (slot == nullptr || session.numbers(*slot).empty())
        return 0;
    return session.numbers(*slot)[0];
}

// A stored DSP word, as the signed 25-bit value it holds.
int32_t stored_word(Session &session, unsigned channel, std::string_view suffix)
{
    ControlSlot *slot = slot_of(session, channel, suffix);
    if (slot == nullptr || session.bytes(*slot).size() < 4)
        return 0;
    const uint32_t word = load_be32(session.bytes(*slot), 0);
    return static_cast<int32_t>(word << 7) >> 7;
}

// Stores `value` in every control that shows `word` on `channel`: a DSP word in byte controls,
// the number itself in the others.
void publish(Session &session, unsigned channel, Word word, int32_t value)
{
    for (const Mirror &mirror : kMirrors) {
        if (mirror.word != word)
            continue;
        ControlSlot *slot = slot_of(session, channel, mirror.suffix);
        if (slot == nullptr)
            continue;
        if (std::span<uint8_t> bytes = session.bytes(*slot); bytes.size() >= 4)
            store_be32(bytes, 0, to_word(value));
        else if (std::span<int64_t> numbers = session.numbers(*slot); !numbers.empty())
            numbers[0] = value;
    }
}

void publish_calibration(Session &session, Area &a, unsigned channel, const Calibration &result)
{
    publish(session, channel, Word::status, static_cast<int32_t>(result.status));
    publish(session, channel, Word::cal_r, result.cal_r);
    publish(session, channel, Word::checksum, static_cast<int32_t>(result.checksum));
    a.channels[channel].cal_r = result.cal_r;
    a.channels[channel].owned = 1;
}

int32_t cal_r_in_use(Session &session, unsigned channel)
{
    return static_cast<int32_t>(stored_number(session, channel, "DSP Set CAL_R"));
}

bool source_is_dsp(int64_t item)
{
    const Control *control = Catalogue::from_env().find(kAmpCard, "T PCM Source");
    return control != nullptr && item == control->item_index("DSP");
}

bool process_alive(uint32_t pid)
{
    return pid == 0 || kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

bool connected_to_amps(Session &session, int device)
{
    for (const std::string &name : session.connected(device)) {
        if (name == kAmpBackEnd)
            return true;
    }
    return false;
}

bool same_run(const StreamSeen &seen, const PcmRecord &record)
{
    return seen.starts == record.starts && seen.start_time_ns == record.start_time_ns;
}

bool reaches_amps(Session &session, Area &a, const PcmRecord &record, size_t index)
{
    if (record.card == kAmpCard)
        return true;
    if (record.card != agm::kAgmCard)
        return false;
    const StreamSeen &seen = a.streams[index];
    return (same_run(seen, record) && seen.reaches != 0) ||
           (record.running != 0 && connected_to_amps(session, record.device));
}

// The time span of a silent stream's latest run that reached the amplifiers, up to `now`; an
// empty span for any other stream. A run left "running" by a process that died is none.
struct Run {
    int64_t begin = 0;
    int64_t end = 0;
};

Run silent_run(Session &session, Area &a, size_t index, int64_t now)
{
    const PcmRecord &record = session.streams()[index];
    if (!record.used || record.start_time_ns == 0 || record.peak > kSilentPeak ||
        !reaches_amps(session, a, record, index))
        return {};
    if (record.running)
        return process_alive(record.pid) ? Run{record.start_time_ns, now} : Run{};
    return record.stop_time_ns > record.start_time_ns
               ? Run{record.start_time_ns, record.stop_time_ns}
               : Run{};
}

// The longest time any silent stream played to the amplifiers between `from` and `now`.
int64_t silence_heard(Session &session, Area &a, int64_t from, int64_t now)
{
    int64_t longest = 0;
    for (size_t i = 0; i < session.streams().size(); ++i) {
        const Run run = silent_run(session, a, i, now);
        longest = std::max(longest, std::min(run.end, now) - std::max(run.begin, from));
    }
    return longest;
}

// Brings a running calibration up to `now`: once it has heard enough silence in calibration
// mode with the path ready, it publishes the measurement of the channel's speaker. True when
// it published.
bool settle(Session &session, Area &a, unsigned channel, int64_t now)
{
    ChannelState &state = a.channels[channel];
    if (state.mode_since_ns == 0 || state.measured || state.path_since_ns == 0)
        return false;
    const int64_t from = std::max(state.mode_since_ns, state.path_since_ns);
    if (silence_heard(session, a, from, now) < kSettleNs)
        return false;
    publish_calibration(session, a, channel, measure(session.speaker(channel)));
    state.measured = 1;
    return true;
}

// A stream run that has played silence to the amplifiers for long enough is the F0
// measurement of every channel, published once per run. True when it published.
bool observe_streams(Session &session, Area &a, int64_t now)
{
    bool published = false;
    for (size_t i = 0; i < session.streams().size(); ++i) {
        const PcmRecord &record = session.streams()[i];
        StreamSeen &seen = a.streams[i];
        if (same_run(seen, record) && seen.measured)
            continue;
        const Run run = silent_run(session, a, i, now);
        if (run.end - run.begin < kSettleNs)
            continue;
        if (!same_run(seen, record))
            seen = StreamSeen{record.starts, record.start_time_ns, 1, 0, {}};
        seen.measured = 1;
        for (unsigned channel = 0; channel < kChannels; ++channel) {
            const Diagnosis result =
                diagnose(session.speaker(channel), cal_r_in_use(session, channel));
            publish(session, channel, Word::f0_status, static_cast<int32_t>(result.f0_status));
            publish(session, channel, Word::f0, static_cast<int32_t>(result.f0_hz));
            publish(session, channel, Word::z_low_diff, result.z_low_diff);
        }
        published = true;
    }
    return published;
}

bool plays_to_amps(Session &session, Area &a, size_t index)
{
    const PcmRecord &record = session.streams()[index];
    return record.used && record.running && process_alive(record.pid) &&
           reaches_amps(session, a, record, index);
}

bool stream_to_amps_running(Session &session, Area &a)
{
    for (size_t i = 0; i < session.streams().size(); ++i) {
        if (plays_to_amps(session, a, i))
            return true;
    }
    return false;
}

void publish_activity(Session &session, Area &a, unsigned channel, bool amp_on)
{
    publish(session, channel, Word::active, amp_on && stream_to_amps_running(session, a));
}

// The channel (below kChannels) of a card-0 control and the part of its name after "X ".
std::optional<std::pair<unsigned, std::string_view>> channel_control(const Control &control)
{
    if (control.card != kAmpCard || control.channel < 0 ||
        static_cast<size_t>(control.channel) >= kChannels)
        return std::nullopt;
    const auto channel = static_cast<unsigned>(control.channel);
    std::string_view name = control.name;
    const std::string_view letter = kLetters[channel];
    if (!name.starts_with(letter) || name.size() <= letter.size() + 1)
        return std::nullopt;
    return std::pair{channel, name.substr(letter.size() + 1)};
}

// A calibration starts: until it hears enough, a result the model published before reads as
// "no signal" (values it never published, e.g. preset by hand, stay as they are).
void start_calibration(Session &session, Area &a, unsigned channel, int64_t now)
{
    ChannelState &state = a.channels[channel];
    state.mode_since_ns = now;
    state.measured = 0;
    if (state.owned)
        publish_calibration(session, a, channel, no_signal(state.cal_r));
}

class DspModel : public Model
{
  public:
    int on_write(Session &session, const Control &control, Value value) override
    {
        const auto target = channel_control(control);
        if (target) {
            if (int err = live::on_write(session, target->first, target->second, value); err != 0)
                return err;
        }
        if (int err = Model::on_write(session, control, value); err != 0)
            return err;
        if (!target || value.numbers.empty())
            return 0;
        const auto [channel, suffix] = *target;
        const int64_t written = value.numbers[0];
        if (suffix == "DSP Set CAL_AMBIENT") {
            publish(session, channel, Word::ambient, static_cast<int32_t>(written));
            return 0;
        }
        const bool mode = suffix == "DSP Mode";
        const bool enable = suffix == "AMP Enable Switch";
        const bool source = suffix == "PCM Source";
        if (!mode && !enable && !source)
            return 0;

        Area &a = area(session);
        const int64_t now = now_ns();
        settle(session, a, channel, now); // what the calibration heard up to this change
        ChannelState &state = a.channels[channel];
        if (mode) {
            // Every write of calibration mode starts a new calibration, as the firmware does.
            if (written == kCalibrationMode)
                start_calibration(session, a, channel, now);
            else
                state.mode_since_ns = 0;
            return 0;
        }
        const bool amp_on =
            enable ? written != 0 : stored_number(session, channel, "AMP Enable Switch") != 0;
        const bool on_dsp =
            source_is_dsp(source ? written : stored_number(session, channel, "PCM Source"));
        if (!amp_on || !on_dsp)
            state.path_since_ns = 0;
        else if (state.path_since_ns == 0)
            state.path_since_ns = now;
        if (enable)
            publish_activity(session, a, channel, amp_on);
        return 0;
    }

    void on_read(Session &session, const Control &control, Value value) override
    {
        Model::on_read(session, control, value);
        const auto target = channel_control(control);
        if (target)
            live::on_read(session, target->first, target->second, value);
        if (!target || !published_word(target->second))
            return;
        Area &a = area(session);
        const int64_t now = now_ns();
        const bool calibrated = settle(session, a, target->first, now);
        if (!observe_streams(session, a, now) && !calibrated)
            return;
        // Something was published just now: this read shows it.
        ControlSlot *slot = slot_of(session, target->first, target->second);
        if (slot == nullptr)
            return;
        std::ranges::copy(session.bytes(*slot), value.bytes.begin());
        std::ranges::copy(session.numbers(*slot), value.numbers.begin());
    }

    void on_stream(Session &session, PcmRecord &record, StreamEvent event) override
    {
        Model::on_stream(session, record, event);
        if (event == StreamEvent::write)
            return;
        Area &a = area(session);
        if (event == StreamEvent::start) {
            const auto index = static_cast<size_t>(&record - session.streams().data());
            a.streams[index] = StreamSeen{record.starts,
                                          record.start_time_ns,
                                          record.card == agm::kAgmCard &&
                                              connected_to_amps(session, record.device),
                                          0,
                                          {}};
        }
        observe_streams(session, a, now_ns());
        for (unsigned channel = 0; channel < kChannels; ++channel)
            publish_activity(session, a, channel,
                             stored_number(session, channel, "AMP Enable Switch") != 0);
    }
};

const ModelRegistration registration{[] { return std::unique_ptr<Model>(new DspModel); }};

} // namespace

std::string_view channel_letter(unsigned channel)
{
    return channel < kChannels ? kLetters[channel] : "?";
}

std::optional<unsigned> channel_from_name(std::string_view name)
{
    for (unsigned channel = 0; channel < kChannels; ++channel) {
        if (name == kLetters[channel] || name == std::to_string(channel))
            return channel;
    }
    return std::nullopt;
}

ControlSlot *channel_slot(Session &session, unsigned channel, std::string_view suffix)
{
    return slot_of(session, channel, suffix);
}

double playing_peak(Session &session)
{
    Area &a = area(session);
    double peak = 0;
    for (size_t i = 0; i < session.streams().size(); ++i) {
        if (plays_to_amps(session, a, i))
            peak = std::max(peak, session.streams()[i].peak);
    }
    return peak;
}

ChannelReport report(Session &session, unsigned channel)
{
    Area &a = area(session);
    const int64_t now = now_ns();
    settle(session, a, channel, now);
    observe_streams(session, a, now);
    const ChannelState &state = a.channels[channel];
    const auto word = [&](std::string_view suffix) {
        return stored_word(session, channel, suffix);
    };
    return ChannelReport{
        session.speaker(channel),
        cal_r_in_use(session, channel),
        state.mode_since_ns != 0,
        state.owned != 0,
        Calibration{static_cast<uint32_t>(word("DSP Get CAL_STATUS")), word("DSP Get CAL_R"),
                    static_cast<uint32_t>(word("DSP1 Protection 5f210 CAL_CHECKSUM"))},
        Diagnosis{static_cast<uint32_t>(word("Protection 5f210 DIAG_F0_STATUS")),
                  static_cast<uint32_t>(word("Protection 5f210 DIAG_F0")),
                  word("Protection 5f210 DIAG_Z_LOW_DIFF")},
        stored_number(session, channel, "AMP Active Status") != 0,
    };
}

void set_speaker(Session &session, unsigned channel, const SpeakerConfig &speaker)
{
    session.speaker(channel) = speaker;
    char line[128];
    std::snprintf(line, sizeof line, "speaker %s %.2f ohm f0 %.0f Hz fault %s",
                  kLetters[channel].data(), speaker.resistance_ohm, speaker.f0_hz,
                  fault_name(speaker.fault).data());
    session.journal(line);
}

} // namespace tvox::sim::dsp
