// The graph behaviour of the virtual AGM card (card 100), served through the model hook.
//
// A front end "PCM<dev>" is connected to a back-end interface by writing the interface's item
// to "PCM<dev> connect" and disconnected through "PCM<dev> disconnect"; the state keeps the
// connections (Session::connected), so the PCM sink and the DSP model know which back end a
// stream reaches. Reading "PCM<dev> getTaggedInfo" returns the module tags of the graph between
// the front end and the interface selected by "PCM<dev> control", as little-endian words
// {count, tag0, miid0, tag1, miid1, ...}, and count 0 while that interface is not connected. The
// per-stream-per-device MFC (tag 0xC0000019) is in every graph unless the back end was set up
// without one (AgmInterface::no_mfc).
#pragma once

#include "model.h"

#include <optional>
#include <string_view>

namespace tvox::sim::agm
{

inline constexpr int kAgmCard = 100;
inline constexpr uint32_t kMfcTag = 0xC0000019;

// Module instance id of the MFC in the graph of front end `device` and back end `interface`. Ids
// depend only on the names, never on the order in which back ends were first used.
uint32_t mfc_miid(int device, std::string_view interface);

// Call from Model::on_write and Model::on_read for every control; they act on card-100 front-end
// controls only. on_write returns 0 or a negative errno (a connect to an interface the state has
// no room for).
int on_write(Session &session, const Control &control, Value value);
void on_read(Session &session, const Control &control, Value value);

// Sets whether back end `name` has a graph without MFC (added to the state when missing).
// False when the state has no room for another interface.
bool set_no_mfc(Session &session, std::string_view name, bool no_mfc);

} // namespace tvox::sim::agm
