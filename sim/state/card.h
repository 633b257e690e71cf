// One virtual card as its driver would serve it: the catalogue's controls bound to their values in
// the shared state, with the checks a kernel driver makes, the DSP model and the journal.
//
// Writes are checked against the control's range, step and items (a refused write returns
// -EINVAL and changes nothing), passed to the model, stored and journaled as one line:
//   ctl 0 "T DSP Mode" = 2
//   ctl 0 "T PCM Source" = DSP
//   ctl 0 "T AMP WR Registers" = 00 00 01 80 00 00 20 20 00 00 00 08
//   tlv 0 "RCV DSP1 Protection cd CAL_R" tag 0 len 4 = 00 00 15 14
// Access flags (read-only, TLV only) are the caller's to check, as alsa-lib's plugin layer does.
// Control faults of the state (tvoxsim control) make the card behave like a driver without a
// control (missing when the card opens: not listed, not found) or one that refuses its writes.
#pragma once

#include "catalogue.h"
#include "model.h"
#include "state.h"

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tvox::sim
{

class Card
{
  public:
    // Card `number` of `catalogue` (which must outlive the card) over the state in `dir`. Null
    // with `err` = -errno on failure (-ENODEV when the catalogue has no such card).
    static std::unique_ptr<Card> open(int number, const std::string &dir,
                                      const Catalogue &catalogue, int &err);
    // The same with the folder and filler count from the environment.
    static std::unique_ptr<Card> open(int number, int &err);

    int number() const { return number_; }
    // Every control of the catalogue's card.
    std::span<const Control> controls() const { return controls_; }
    // Indices of the controls the card offers (not missing); element number = position + 1.
    std::span<const uint32_t> listed() const { return listed_; }
    // The element number of an offered control.
    unsigned element_number(size_t index) const;
    // Index of the named control, -1 when the card has none or it is missing.
    int find(std::string_view name) const;
    State &state() { return *state_; }

    // The control's values as a client reads them (through the model). `out` must hold the
    // control's count of numbers, or of bytes for a byte control. 0 or -errno.
    int read(size_t index, Value out);
    // Checks, stores and journals a write. 1 when the value changed, 0 when not, or -errno.
    int write(size_t index, Value in);
    // TLV container access of a byte control: `tlv` is the container, {tag, length in bytes,
    // data...}, of `size` bytes. A read fills the header {0, n} and n data bytes (n is the
    // control's size, or less when the container is smaller); a write stores the `length`
    // bytes that follow the header at the start of the control (longer than the control: -EINVAL).
    int tlv_read(size_t index, unsigned int *tlv, size_t size);
    int tlv_write(size_t index, const unsigned int *tlv, size_t size);

  private:
    Card(int number, const Catalogue &catalogue, std::unique_ptr<State> state,
         std::vector<uint32_t> slots, std::vector<uint32_t> listed);
    // Checks a write the way a driver would; 0 or -EINVAL.
    static int check(const Control &control, Value in);
    // Passes a checked write to the model, stores and journals it; the lock is held. A control
    // that refuses writes fails with its errno and changes nothing.
    int apply(Session &session, size_t index, Value in, const std::string &journal_line);

    int number_;
    // Names are looked up in the catalogue's index, built once per process: a card opens
    // without work that grows with its control count beyond binding the slots.
    const Catalogue &catalogue_;
    std::span<const Control> controls_;
    std::unique_ptr<State> state_;
    std::vector<uint32_t> slots_; // state slot of each control
    std::vector<uint32_t> listed_;
};

// Values as the journal and the tool print them: bytes as two hex digits, numbers in decimal,
// enumerated values as their item text, separated by spaces.
std::string format_values(const Control &control, std::span<const int64_t> numbers,
                          std::span<const uint8_t> bytes);

} // namespace tvox::sim
