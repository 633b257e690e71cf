// Commands about streams and the AGM graph: streams, agm.
#include "agm_graph.h"
#include "catalogue.h"
#include "command.h"
#include "state.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace tvox::sim::tool
{

namespace
{

// alsa-lib's numbers of the formats the sink accepts.
const char *format_name(int32_t format)
{
    switch (format) {
    case 2:
        return "S16_LE";
    case 6:
        return "S24_LE";
    case 10:
        return "S32_LE";
    case 32:
        return "S24_3LE";
    default:
        return "?";
    }
}

int streams(std::span<char *const> args)
{
    if (!args.empty())
        return usage_error("streams", "too many arguments");
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    Session session = state->lock();
    for (const PcmRecord &record : session.streams()) {
        if (!record.used)
            continue;
        std::printf(
            "card %d device %d %s %s %u Hz %u ch frames %llu peak %.4f starts %llu pid %u\n",
            record.card, record.device, record.running ? "running" : "stopped",
            format_name(record.format), record.rate, record.channels,
            static_cast<unsigned long long>(record.frames_written), record.peak,
            static_cast<unsigned long long>(record.starts), record.pid);
    }
    return 0;
}

// The AGM card's back ends are the interfaces its catalogue gives controls to.
bool known_backend(const char *name)
{
    return Catalogue::from_env().find(agm::kAgmCard, std::string(name) + " rate ch fmt") != nullptr;
}

int agm(std::span<char *const> args)
{
    const bool set = args.size() == 3 && std::strcmp(args[0], "mfc") == 0;
    if (!args.empty() && !set)
        return usage_error("agm", "expected: mfc INTERFACE on|off");
    if (set && std::strcmp(args[2], "on") != 0 && std::strcmp(args[2], "off") != 0)
        return usage_error("agm", "MFC is on or off");
    if (set && !known_backend(args[1]))
        return usage_error("agm", std::string("no such back end: ") + args[1]);
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    Session session = state->lock();
    if (set) {
        if (!agm::set_no_mfc(session, args[1], std::strcmp(args[2], "off") == 0)) {
            std::fprintf(stderr, "tvoxsim: no room for another interface\n");
            return exit_failure;
        }
        return 0;
    }
    for (const AgmInterface &intf : session.layout().interfaces)
        if (intf.used)
            std::printf("interface %s mfc %s\n", intf.name, intf.no_mfc ? "off" : "on");
    for (const AgmStream &stream : session.layout().agm_streams) {
        if (!stream.used)
            continue;
        std::string names;
        for (const std::string &name : session.connected(stream.device))
            names += " " + name;
        std::printf("PCM%d connected to%s\n", stream.device,
                    names.empty() ? " nothing" : names.c_str());
    }
    return 0;
}

const Registration registrations[] = {
    Registration{{"streams", "", "list the PCM streams: format, running, frames, peak", streams}},
    Registration{
        {"agm", "[mfc INTERFACE on|off]",
         "list the AGM back ends and connections, or give a back end's graph an MFC or none", agm}},
};

} // namespace

} // namespace tvox::sim::tool
