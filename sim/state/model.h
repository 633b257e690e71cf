// The hook through which the DSP model makes the virtual amplifiers answer like firmware.
//
// The control plugin calls the installed model with the state locked: on_write() after a write
// passed the control's range and item checks and before it is stored, on_read() before a read
// returns, and the PCM plugin calls on_stream() when a stream changes. The base class stores and
// returns values unchanged, except for the register mailbox ("... AMP WR Registers": a command
// block of three big-endian 32-bit words {0x180 write / 0x181 read, register, value}), which it
// serves from the channel's registers in the state.
//
// A model library derives from Model (calling the base class for what it does not handle) and
// installs itself from a static object:
//   static const tvox::sim::ModelRegistration registration{[] {
//       return std::unique_ptr<tvox::sim::Model>(new DspModel);
//   }};
// sim/CMakeLists.txt links a target named tvoxsim_model whole into the plugins and the tool when
// it exists, so that object is kept.
#pragma once

#include "catalogue.h"
#include "state.h"

#include <cstdint>
#include <memory>
#include <span>

namespace tvox::sim
{

inline constexpr uint32_t kRegisterWrite = 0x180;
inline constexpr uint32_t kRegisterRead = 0x181;
inline constexpr size_t kRegisterBlockBytes = 12;

// A control's values: `numbers` for boolean, integer and enumerated controls (item index),
// `bytes` for byte controls; the other span is empty.
struct Value {
    std::span<int64_t> numbers;
    std::span<uint8_t> bytes;
};

enum class StreamEvent { open, start, write, stop, close };

class Model
{
  public:
    virtual ~Model() = default;
    // `value` holds what the client wrote; change it to change what is stored. Return 0 to
    // store it, or a negative errno to refuse the write (nothing stored or journaled).
    virtual int on_write(Session &session, const Control &control, Value value);
    // `value` holds the stored value; change it to change what the client reads (the stored
    // value stays as it is unless the model stores something itself).
    virtual void on_read(Session &session, const Control &control, Value value);
    // `record` has already been updated for the event.
    virtual void on_stream(Session &session, PcmRecord &record, StreamEvent event);
};

// The installed model (a plain Model when none was registered).
Model &model();

struct ModelRegistration {
    explicit ModelRegistration(std::unique_ptr<Model> (*factory)());
};

// Big-endian 32-bit words, as the amplifier DSP exchanges them.
uint32_t load_be32(std::span<const uint8_t> bytes, size_t word);
void store_be32(std::span<uint8_t> bytes, size_t word, uint32_t value);

} // namespace tvox::sim
