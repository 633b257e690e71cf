#include "card.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tvox::sim
{

namespace
{

constexpr size_t kTlvHeaderBytes = 2 * sizeof(unsigned int);

std::string quoted(const Control &control)
{
    return std::to_string(control.card) + " \"" + control.name + "\"";
}

bool fits(const Control &control, Value value)
{
    return control.is_bytes() ? value.bytes.size() == control.count
                              : value.numbers.size() == control.count;
}

} // namespace

std::string format_values(const Control &control, std::span<const int64_t> numbers,
                          std::span<const uint8_t> bytes)
{
    std::string text;
    auto separate = [&text] {
        if (!text.empty())
            text += ' ';
    };
    for (uint8_t byte : bytes) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", byte);
        separate();
        text += hex;
    }
    for (int64_t number : numbers) {
        separate();
        if (control.type == Type::enumerated && number >= 0 &&
            static_cast<size_t>(number) < control.items.size())
            text += control.items[static_cast<size_t>(number)];
        else
            text += std::to_string(number);
    }
    return text;
}

Card::Card(int number, const Catalogue &catalogue, std::unique_ptr<State> state,
           std::vector<uint32_t> slots, std::vector<uint32_t> listed)
    : number_(number), catalogue_(catalogue), controls_(catalogue.card(number)),
      state_(std::move(state)), slots_(std::move(slots)), listed_(std::move(listed))
{
}

std::unique_ptr<Card> Card::open(int number, const std::string &dir, const Catalogue &catalogue,
                                 int &err)
{
    std::span<const Control> controls = catalogue.card(number);
    if (controls.empty()) {
        err = -ENODEV;
        return nullptr;
    }
    std::unique_ptr<State> state = State::open(dir, err);
    if (!state)
        return nullptr;
    std::vector<uint32_t> slots;
    std::vector<uint32_t> listed;
    slots.reserve(controls.size());
    listed.reserve(controls.size());
    {
        Session session = state->lock();
        for (const Control &control : controls) {
            ControlSlot *slot = session.bind(control);
            if (slot == nullptr) {
                err = -ENOSPC;
                return nullptr;
            }
            slots.push_back(static_cast<uint32_t>(slot - session.layout().slots));
        }
        // Most opens have no missing control: only then is each control looked up.
        const std::span<const ControlFault> faults = session.control_faults();
        const bool any_missing = std::any_of(faults.begin(), faults.end(), [&](const auto &fault) {
            return fault.kind == ControlFaultKind::missing && fault.card == number;
        });
        for (uint32_t i = 0; i < controls.size(); ++i) {
            const ControlFault *fault =
                any_missing ? session.control_fault(number, controls[i].name) : nullptr;
            if (fault == nullptr || fault->kind != ControlFaultKind::missing)
                listed.push_back(i);
        }
    }
    err = 0;
    return std::unique_ptr<Card>(
        new Card(number, catalogue, std::move(state), std::move(slots), std::move(listed)));
}

std::unique_ptr<Card> Card::open(int number, int &err)
{
    return open(number, State::dir_from_env(), Catalogue::from_env(), err);
}

unsigned Card::element_number(size_t index) const
{
    return static_cast<unsigned>(std::lower_bound(listed_.begin(), listed_.end(), index) -
                                 listed_.begin()) +
           1;
}

int Card::find(std::string_view name) const
{
    const Control *control = catalogue_.find(number_, name);
    if (control == nullptr)
        return -1;
    const auto index = static_cast<size_t>(control - controls_.data());
    return std::binary_search(listed_.begin(), listed_.end(), index) ? static_cast<int>(index) : -1;
}

int Card::read(size_t index, Value out)
{
    if (index >= controls_.size() || !fits(controls_[index], out))
        return -EINVAL;
    Session session = state_->lock();
    ControlSlot &slot = session.layout().slots[slots_[index]];
    std::span<const int64_t> numbers = session.numbers(slot);
    std::span<const uint8_t> bytes = session.bytes(slot);
    std::copy(numbers.begin(), numbers.end(), out.numbers.begin());
    std::copy(bytes.begin(), bytes.end(), out.bytes.begin());
    model().on_read(session, controls_[index], out);
    return 0;
}

int Card::check(const Control &control, Value in)
{
    if (!fits(control, in))
        return -EINVAL;
    for (int64_t number : in.numbers) {
        if (number < control.min || number > control.max)
            return -EINVAL;
        if (control.step > 0 && (number - control.min) % control.step != 0)
            return -EINVAL;
    }
    return 0;
}

int Card::apply(Session &session, size_t index, Value in, const std::string &journal_line)
{
    const Control &control = controls_[index];
    if (const ControlFault *fault = session.control_fault(number_, control.name);
        fault != nullptr && fault->kind == ControlFaultKind::refused)
        return -fault->error;
    if (int err = model().on_write(session, control, in); err < 0)
        return err;
    ControlSlot &slot = session.layout().slots[slots_[index]];
    std::span<int64_t> numbers = session.numbers(slot);
    std::span<uint8_t> bytes = session.bytes(slot);
    bool changed = !std::equal(in.numbers.begin(), in.numbers.end(), numbers.begin()) ||
                   !std::equal(in.bytes.begin(), in.bytes.end(), bytes.begin());
    std::copy(in.numbers.begin(), in.numbers.end(), numbers.begin());
    std::copy(in.bytes.begin(), in.bytes.end(), bytes.begin());
    ++session.layout().header.writes;
    session.journal(journal_line);
    return changed ? 1 : 0;
}

int Card::write(size_t index, Value in)
{
    if (index >= controls_.size())
        return -EINVAL;
    const Control &control = controls_[index];
    if (int err = check(control, in); err < 0)
        return err;
    std::string line =
        "ctl " + quoted(control) + " = " + format_values(control, in.numbers, in.bytes);
    Session session = state_->lock();
    return apply(session, index, in, line);
}

int Card::tlv_read(size_t index, unsigned int *tlv, size_t size)
{
    if (index >= controls_.size() || !controls_[index].is_bytes() || size < kTlvHeaderBytes)
        return -EINVAL;
    const Control &control = controls_[index];
    std::vector<uint8_t> bytes(control.count);
    if (int err = read(index, Value{{}, bytes}); err < 0)
        return err;
    size_t length = std::min<size_t>(control.count, size - kTlvHeaderBytes);
    tlv[0] = 0;
    tlv[1] = static_cast<unsigned int>(length);
    std::memcpy(tlv + 2, bytes.data(), length);
    return 0;
}

int Card::tlv_write(size_t index, const unsigned int *tlv, size_t size)
{
    if (index >= controls_.size() || !controls_[index].is_bytes() || size < kTlvHeaderBytes)
        return -EINVAL;
    const Control &control = controls_[index];
    size_t length = tlv[1];
    if (length > control.count || length > size - kTlvHeaderBytes)
        return -EINVAL;
    std::span<const uint8_t> data(reinterpret_cast<const uint8_t *>(tlv + 2), length);
    std::string line = "tlv " + quoted(control) + " tag " + std::to_string(tlv[0]) + " len " +
                       std::to_string(length) + " = " + format_values(control, {}, data);
    Session session = state_->lock();
    // A shorter container rewrites the start of the control and keeps the rest.
    std::span<const uint8_t> stored = session.bytes(session.layout().slots[slots_[index]]);
    std::vector<uint8_t> bytes(stored.begin(), stored.end());
    std::copy(data.begin(), data.end(), bytes.begin());
    return apply(session, index, Value{{}, bytes}, line);
}

} // namespace tvox::sim
