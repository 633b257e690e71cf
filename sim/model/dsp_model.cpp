#include "dsp_model.h"

#include "agm_graph.h"
#include "model.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

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
    uint32_t status;
    int32_t cal_r;
    uint32_t checksum;
    uint8_t has_result; // a calibration has measured, or given up for want of signal
    uint8_t measured;   // the current calibration has heard enough: its result stays
    uint8_t reserved[2];
};

// Whether a stream's latest run reached the amplifiers, as seen when it started (an AGM front
// end is disconnected again once its stream stops).
struct StreamReach {
    uint64_t starts;
    uint32_t reaches;
    uint32_t reserved;
};

struct Area {
    char magic[8];
    uint32_t version;
    uint32_t reserved;
    ChannelState channels[kChannels];
    StreamReach streams[kMaxStreams];
};
static_assert(sizeof(Area) <= kModelAreaBytes);

constexpr char kMagic[8] = "DSPMODL";
constexpr uint32_t kAreaVersion = 1;

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

std::string control_name(unsigned channel, std::string_view suffix)
{
    return std::string(kLetters[channel]) + " " + std::string(suffix);
}

// First value of a card-0 control as stored, or its default when nothing is stored yet.
int64_t stored_number(Session &session, unsigned channel, std::string_view suffix)
{
    const std::string name = control_name(channel, suffix);
    if (ControlSlot *slot = session.find(kAmpCard, name)) {
        std::span<int64_t> numbers = session.numbers(*slot);
        if (!numbers.empty())
            return numbers[0];
    }
    const Control *control = Catalogue::from_env().find(kAmpCard, name);
    return control != nullptr && !control->default_numbers.empty() ? control->default_numbers[0]
                                                                   : 0;
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

bool reaches_amps(Session &session, Area &a, const PcmRecord &record, size_t index)
{
    if (record.card == kAmpCard)
        return true;
    if (record.card != agm::kAgmCard)
        return false;
    const StreamReach &seen = a.streams[index];
    return (seen.starts == record.starts && seen.reaches != 0) ||
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

bool speaker_exercised(Session &session, Area &a, int64_t now)
{
    return silence_heard(session, a, 0, now) >= kSettleNs;
}

bool stream_to_amps_running(Session &session, Area &a)
{
    for (size_t i = 0; i < session.streams().size(); ++i) {
        const PcmRecord &record = session.streams()[i];
        if (record.used && record.running && process_alive(record.pid) &&
            reaches_amps(session, a, record, i))
            return true;
    }
    return false;
}

// Brings a running calibration up to `now`: measured once enough silence was heard in
// calibration mode with the path ready, "no signal" until then.
void settle(Session &session, Area &a, unsigned channel, int64_t now)
{
    ChannelState &state = a.channels[channel];
    if (state.mode_since_ns == 0 || state.measured)
        return;
    const int64_t heard =
        state.path_since_ns == 0
            ? 0
            : silence_heard(session, a, std::max(state.mode_since_ns, state.path_since_ns), now);
    const Calibration result =
        heard >= kSettleNs
            ? measure(session.speaker(channel))
            : no_signal(state.has_result ? state.cal_r : cal_r_in_use(session, channel));
    state.status = result.status;
    state.cal_r = result.cal_r;
    state.checksum = result.checksum;
    state.has_result = 1;
    state.measured = heard >= kSettleNs;
}

Calibration reported_calibration(Session &session, Area &a, unsigned channel)
{
    const ChannelState &state = a.channels[channel];
    if (!state.has_result)
        return {kStatusNotCalibrated, cal_r_in_use(session, channel), 0};
    return {state.status, state.cal_r, state.checksum};
}

// The firmware parameters the model answers, by the part of the control name after "X ".
enum class Word { cal_r, status, checksum, ambient, f0_status, f0, z_low_diff };

constexpr std::array<std::pair<std::string_view, Word>, 7> kParameters = {{
    {"CAL_R", Word::cal_r},
    {"CAL_STATUS", Word::status},
    {"CAL_CHECKSUM", Word::checksum},
    {"CAL_AMBIENT", Word::ambient},
    {"DIAG_F0_STATUS", Word::f0_status},
    {"DIAG_F0", Word::f0},
    {"DIAG_Z_LOW_DIFF", Word::z_low_diff},
}};

std::optional<Word> parameter(std::string_view suffix)
{
    if (suffix == "DSP Get CAL_R")
        return Word::cal_r;
    if (suffix == "DSP Get CAL_STATUS")
        return Word::status;
    if (suffix.starts_with("DSP1 "))
        suffix.remove_prefix(5);
    constexpr std::string_view kModule = "Protection 5f210 ";
    if (!suffix.starts_with(kModule))
        return std::nullopt;
    suffix.remove_prefix(kModule.size());
    for (const auto &[name, word] : kParameters) {
        if (name == suffix)
            return word;
    }
    return std::nullopt;
}

Diagnosis current_diagnosis(Session &session, Area &a, unsigned channel, int64_t now)
{
    return speaker_exercised(session, a, now)
               ? diagnose(session.speaker(channel), cal_r_in_use(session, channel))
               : not_diagnosed();
}

bool amp_active(Session &session, Area &a, unsigned channel)
{
    return stored_number(session, channel, "AMP Enable Switch") != 0 &&
           stream_to_amps_running(session, a);
}

int32_t word_value(Session &session, Area &a, unsigned channel, Word word, int64_t now)
{
    switch (word) {
    case Word::ambient:
        return static_cast<int32_t>(stored_number(session, channel, "DSP Set CAL_AMBIENT"));
    case Word::cal_r:
        return reported_calibration(session, a, channel).cal_r;
    case Word::status:
        return static_cast<int32_t>(reported_calibration(session, a, channel).status);
    case Word::checksum:
        return static_cast<int32_t>(reported_calibration(session, a, channel).checksum);
    case Word::f0_status:
        return static_cast<int32_t>(current_diagnosis(session, a, channel, now).f0_status);
    case Word::f0:
        return static_cast<int32_t>(current_diagnosis(session, a, channel, now).f0_hz);
    case Word::z_low_diff:
        return current_diagnosis(session, a, channel, now).z_low_diff;
    }
    return 0;
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

class DspModel : public Model
{
  public:
    int on_write(Session &session, const Control &control, Value value) override
    {
        if (int err = Model::on_write(session, control, value); err != 0)
            return err;
        const auto target = channel_control(control);
        if (!target || value.numbers.empty())
            return 0;
        const auto [channel, suffix] = *target;
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
            const bool calibrating = value.numbers[0] == kCalibrationMode;
            state.mode_since_ns = calibrating ? now : 0;
            if (calibrating)
                state.measured = 0;
            return 0;
        }
        const bool amp_on =
            enable ? value.numbers[0] != 0 : stored_number(session, channel, "AMP Enable Switch");
        const bool on_dsp = source_is_dsp(source ? value.numbers[0]
                                                 : stored_number(session, channel, "PCM Source"));
        if (!amp_on || !on_dsp)
            state.path_since_ns = 0;
        else if (state.path_since_ns == 0)
            state.path_since_ns = now;
        return 0;
    }

    void on_read(Session &session, const Control &control, Value value) override
    {
        Model::on_read(session, control, value);
        const auto target = channel_control(control);
        if (!target)
            return;
        const auto [channel, suffix] = *target;
        Area &a = area(session);
        const int64_t now = now_ns();
        if (suffix == "AMP Active Status" && !value.numbers.empty()) {
            value.numbers[0] = amp_active(session, a, channel);
            return;
        }
        const std::optional<Word> word = parameter(suffix);
        if (!word || value.bytes.size() < 4)
            return;
        settle(session, a, channel, now);
        store_be32(value.bytes, 0, to_word(word_value(session, a, channel, *word, now)));
    }

    void on_stream(Session &session, PcmRecord &record, StreamEvent event) override
    {
        Model::on_stream(session, record, event);
        if (event != StreamEvent::start)
            return;
        Area &a = area(session);
        const auto index = static_cast<size_t>(&record - session.streams().data());
        a.streams[index] = StreamReach{
            record.starts,
            record.card == agm::kAgmCard && connected_to_amps(session, record.device), 0};
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

ChannelReport report(Session &session, unsigned channel)
{
    Area &a = area(session);
    const int64_t now = now_ns();
    settle(session, a, channel, now);
    return ChannelReport{
        session.speaker(channel),
        cal_r_in_use(session, channel),
        stored_number(session, channel, "DSP Mode") == kCalibrationMode,
        a.channels[channel].has_result != 0,
        reported_calibration(session, a, channel),
        current_diagnosis(session, a, channel, now),
        amp_active(session, a, channel),
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
