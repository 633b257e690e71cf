// Commands about the living amplifiers: registers (what the register mailboxes hold) and live
// (the protection firmware's real-time log and the coil temperature).
#include "command.h"
#include "dsp_model.h"
#include "live_log.h"
#include "state.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace tvox::sim::tool
{

namespace
{

// Runs `show` for each amplifier channel with the state locked.
template <typename Show>
int each_channel(std::string_view command, std::span<char *const> args, Show show)
{
    if (!args.empty())
        return usage_error(command, "too many arguments");
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    Session session = state->lock();
    for (unsigned channel = 0; channel < dsp::kChannels; ++channel)
        show(session, channel);
    return 0;
}

void show_registers(Session &session, unsigned channel)
{
    // The temperature register reads live: bring it up to now, as a read command would.
    live::refresh_temperature_register(session, channel);
    std::vector<Register> used;
    for (const Register &entry : session.layout().registers[channel].entries) {
        if (entry.used)
            used.push_back(entry);
    }
    std::ranges::sort(used, {}, &Register::address);
    std::printf("%s: %zu registers\n", dsp::channel_letter(channel).data(), used.size());
    for (const Register &entry : used)
        std::printf("  0x%04x = 0x%08x\n", entry.address, entry.value);
}

void show_live(Session &session, unsigned channel)
{
    const live::ChannelLive now = live::report(session, channel);
    const char *letter = dsp::channel_letter(channel).data();
    std::printf("%s: log %s (firmware %s, %s, %s), %llu blocks delivered\n", letter,
                now.firmware_running && now.configured && now.fed ? "delivering" : "silent",
                now.firmware_running ? "running" : "not protection",
                now.configured ? "configured" : "not configured",
                now.fed ? "fed" : "not fed (0x2020 bit 3, 0x2018 bit 10)",
                static_cast<unsigned long long>(now.samples));
    std::printf("%s: level %.3f, %.2f V, %.3f A, excursion %.3f, coil %.1f C (code %u)\n", letter,
                now.level, now.volts, now.amps, now.excursion, now.temperature_c,
                now.temperature_code);
}

int registers(std::span<char *const> args)
{
    return each_channel("registers", args, show_registers);
}

int live_state(std::span<char *const> args)
{
    return each_channel("live", args, show_live);
}

const Registration registrations[] = {
    Registration{{"registers", "", "show the registers each amplifier's mailbox holds", registers}},
    Registration{{"live", "",
                  "show each amplifier's real-time log state, drive and coil temperature",
                  live_state}},
};

} // namespace

} // namespace tvox::sim::tool
