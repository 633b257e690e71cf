// Shared state of the virtual amplifier pair.
//
// Every process that touches the simulator (the ALSA control and PCM plugins, the tvoxsim tool,
// the tests) maps the same file, "<dir>/state", where dir is $TVOXSIM_DIR. Only `tvoxsim init`
// (State::create) makes that file: a folder without it is not a simulator folder and is refused,
// as is a state file that is truncated, damaged or made by another build.
// The file (layout.h) holds every control's current value per card, one record per PCM stream,
// the speaker behind each amplifier channel, the registers behind each register mailbox, the AGM
// graph facts of the virtual AGM card and a free area for the DSP model. "<dir>/journal" is a
// text file with one line per control write (and whatever else is worth a line, see journal()).
//
//   int err = 0;
//   auto state = State::open(State::dir_from_env(), err);   // null and -errno on failure
//   {
//       Session s = state->lock();        // process-shared lock, released by ~Session
//       ControlSlot *slot = s.bind(control);  // find or create the control's value storage
//       s.numbers(*slot)[0] = 2;
//       s.journal("ctl 0 \"T DSP Mode\" = 2");
//   }
//
// Never keep a pointer into the mapping past the Session that produced it. Control access with
// range checks, the DSP model and journaling is in card.h; this file is the storage below it.
#pragma once

#include "catalogue.h"
#include "layout.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tvox::sim
{

// CLOCK_MONOTONIC in nanoseconds; the time base of PcmRecord.
int64_t now_ns();

class State;

// The state while its lock is held.
class Session
{
  public:
    explicit Session(State &state);
    ~Session();
    Session(Session &&other) noexcept;
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;
    Session &operator=(Session &&) = delete;

    Layout &layout() { return *layout_; }

    // Controls.
    ControlSlot *find(int card, std::string_view name);
    // The storage of `control`, created with the control's default values when missing, or
    // reset to them when the stored type or size no longer matches the catalogue. Null only when
    // the file has no room left.
    ControlSlot *bind(const Control &control);
    std::span<int64_t> numbers(ControlSlot &slot);
    std::span<uint8_t> bytes(ControlSlot &slot);
    // Stores the control's default values.
    void reset(ControlSlot &slot, const Control &control);

    // PCM streams: the record of (card, device), created when `create` is set; null when absent
    // or when every record is taken.
    PcmRecord *stream(int card, int device, bool create);
    std::span<PcmRecord> streams() { return layout_->streams; }

    // Control faults. The fault of (card, name), or null when the control behaves.
    ControlFault *control_fault(int card, std::string_view name);
    // Sets the fault of a control (kind none clears it); false when the table is full.
    bool set_control_fault(int card, std::string_view name, ControlFaultKind kind, int error);
    std::span<ControlFault> control_faults() { return layout_->control_faults; }

    // Speakers and registers of amplifier channel 0 .. kMaxChannels-1 (other channels abort).
    SpeakerConfig &speaker(unsigned channel);
    uint32_t reg(unsigned channel, uint32_t address);
    // False when the channel's register file is full.
    bool set_reg(unsigned channel, uint32_t address, uint32_t value);

    // AGM graph facts. interface(): index of a back-end interface, added when `create` is set;
    // -1 when absent or the table is full.
    int interface(std::string_view name, bool create);
    AgmInterface &interface_at(int index);
    AgmStream *agm_stream(int device, bool create);
    // Names of the interfaces the device is connected to.
    std::vector<std::string> connected(int device);
    void connect(int device, std::string_view interface, bool on);

    // The DSP model's own area, zero in a fresh file.
    std::span<std::byte> model_area() { return layout_->model; }

    // Appends one line (a newline is added) to the journal. Lines are written under the lock,
    // so their order is the order of the state changes.
    void journal(std::string_view line);

  private:
    State *state_;
    Layout *layout_;
};

class State
{
  public:
    // Maps "<dir>/state" of a simulator folder. Null on failure with `err` set to -errno:
    // -ENOENT (or -ENOTDIR) when `dir` holds no state file, -EUCLEAN for a file of the wrong size
    // or one whose tables are damaged, -EPROTO for a file of another layout version.
    static std::unique_ptr<State> open(const std::string &dir, int &err);
    // Makes `dir` (and its parents) a simulator folder with a fresh state file, replacing any
    // state file it held; the journal is kept.
    static std::unique_ptr<State> create(const std::string &dir, int &err);
    // What a failed open or create of `dir` means to a user, with the command that helps.
    static std::string open_error(const std::string &dir, int err);
    // Prints "tvoxsim: <open_error>" on standard error, once per process for the same message:
    // for the plugins, which a program may open many times.
    static void report_open_error(const std::string &dir, int err);
    // $TVOXSIM_DIR, or /tmp/tvoxsim-<uid> when unset or empty.
    static std::string dir_from_env();
    // Creates `dir` and its parents when missing; 0 or -errno.
    static int make_dir(const std::string &dir);

    ~State();
    State(const State &) = delete;
    State &operator=(const State &) = delete;

    Session lock() { return Session(*this); }

    const std::string &dir() const { return dir_; }
    std::string state_path() const { return dir_ + "/state"; }
    std::string journal_path() const { return dir_ + "/journal"; }
    // Lines of the journal, without their newlines.
    std::vector<std::string> journal_lines() const;
    // Empties the journal.
    int clear_journal();

  private:
    friend class Session;
    State(std::string dir, Layout *layout, int journal_fd);
    static std::unique_ptr<State> map(const std::string &dir, bool fresh, int &err);

    std::string dir_;
    Layout *layout_;
    int journal_fd_;
};

} // namespace tvox::sim
