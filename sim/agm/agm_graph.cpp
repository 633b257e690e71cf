#include "agm_graph.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string>

namespace tvox::sim::agm
{

namespace
{

// Tags of the modules every playback graph carries besides the MFC: the stream's input media
// format and the back end's hardware end point.
constexpr uint32_t kStreamInputTag = 0xC0000001;
constexpr uint32_t kDeviceEndpointTag = 0xC0000004;

// The interface's item number in "PCM<dev> control" (0 when it has none): fixed by the catalogue.
uint32_t interface_number(int device, std::string_view interface)
{
    const std::string name = "PCM" + std::to_string(device) + " control";
    const Control *control = Catalogue::from_env().find(kAgmCard, name);
    const int item = control ? control->item_index(interface) : -1;
    return item > 0 ? static_cast<uint32_t>(item) : 0;
}

// Instance ids are unique per front end, interface and module position in the graph.
uint32_t module_miid(int device, std::string_view interface, uint32_t position)
{
    return 0x4000 + static_cast<uint32_t>(device % 256) * 0x100 +
           interface_number(device, interface) * 0x10 + position;
}

struct FrontEndControl {
    int device;
    std::string_view what; // "connect", "getTaggedInfo", ...
};

// "PCM<dev> <what>" of the AGM card.
std::optional<FrontEndControl> front_end_control(const Control &control)
{
    std::string_view name = control.name;
    if (control.card != kAgmCard || !name.starts_with("PCM"))
        return std::nullopt;
    name.remove_prefix(3);
    int device = 0;
    const auto [end, ec] = std::from_chars(name.data(), name.data() + name.size(), device);
    if (ec != std::errc() || end == name.data() || *end != ' ')
        return std::nullopt;
    return FrontEndControl{device, name.substr(static_cast<size_t>(end - name.data()) + 1)};
}

// The item an enumerated value names, empty for "ZERO" or an index out of range.
std::string_view item_name(const Control &control, int64_t index)
{
    if (index <= 0 || static_cast<size_t>(index) >= control.items.size())
        return {};
    return control.items[static_cast<size_t>(index)];
}

// The interface "PCM<dev> control" currently selects, empty when none.
std::string selected_interface(Session &session, int device)
{
    const std::string name = "PCM" + std::to_string(device) + " control";
    const Control *control = Catalogue::from_env().find(kAgmCard, name);
    ControlSlot *slot = control ? session.bind(*control) : nullptr;
    if (!slot)
        return {};
    return std::string(item_name(*control, session.numbers(*slot)[0]));
}

void put_le32(std::span<uint8_t> bytes, size_t word, uint32_t value)
{
    for (size_t i = 0; i < 4; ++i)
        bytes[word * 4 + i] = static_cast<uint8_t>(value >> (8 * i));
}

void fill_tagged_info(Session &session, int device, std::span<uint8_t> out)
{
    std::fill(out.begin(), out.end(), uint8_t{0});
    const std::string intf = selected_interface(session, device);
    if (intf.empty())
        return;
    bool connected = false;
    for (const std::string &name : session.connected(device))
        connected = connected || name == intf;
    const int index = session.interface(intf, false);
    if (!connected || index < 0)
        return;

    std::array<std::pair<uint32_t, uint32_t>, 3> tags{};
    size_t count = 0;
    tags[count++] = {kStreamInputTag, module_miid(device, intf, 1)};
    if (!session.interface_at(index).no_mfc)
        tags[count++] = {kMfcTag, mfc_miid(device, intf)};
    tags[count++] = {kDeviceEndpointTag, module_miid(device, intf, 3)};
    if (out.size() < (1 + 2 * count) * 4)
        return;
    put_le32(out, 0, static_cast<uint32_t>(count));
    for (size_t i = 0; i < count; ++i) {
        put_le32(out, 1 + 2 * i, tags[i].first);
        put_le32(out, 2 + 2 * i, tags[i].second);
    }
}

} // namespace

uint32_t mfc_miid(int device, std::string_view interface)
{
    return module_miid(device, interface, 2);
}

int on_write(Session &session, const Control &control, Value value)
{
    const auto fe = front_end_control(control);
    if (!fe || value.numbers.empty() || (fe->what != "connect" && fe->what != "disconnect"))
        return 0;
    const std::string_view intf = item_name(control, value.numbers[0]);
    if (intf.empty())
        return 0;
    if (session.interface(intf, true) < 0 || !session.agm_stream(fe->device, true))
        return -ENOSPC;
    session.connect(fe->device, intf, fe->what == "connect");
    return 0;
}

void on_read(Session &session, const Control &control, Value value)
{
    const auto fe = front_end_control(control);
    if (fe && fe->what == "getTaggedInfo")
        fill_tagged_info(session, fe->device, value.bytes);
}

bool set_no_mfc(Session &session, std::string_view name, bool no_mfc)
{
    const int index = session.interface(name, true);
    if (index < 0)
        return false;
    session.interface_at(index).no_mfc = no_mfc ? 1 : 0;
    return true;
}

} // namespace tvox::sim::agm
