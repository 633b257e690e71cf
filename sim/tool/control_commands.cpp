// Control faults of the virtual cards: control. A missing control is absent from its card for
// every client that opens the card afterwards (amixer, tinyalsa, the library); a refusing one
// fails every write with an errno and keeps its value.
#include "command.h"
#include "state.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tvox::sim::tool
{

namespace
{

constexpr std::string_view kUsage = "[remove NAME | refuse NAME [--errno E] | restore [NAME]] "
                                    "[--card N]";

int usage(std::string_view message)
{
    return usage_error("control", message);
}

void print_faults(Session &session)
{
    bool any = false;
    for (const ControlFault &fault : session.control_faults()) {
        if (fault.kind == ControlFaultKind::none)
            continue;
        any = true;
        std::printf("control %d \"%s\": ", fault.card, fault.name);
        if (fault.kind == ControlFaultKind::missing)
            std::printf("missing\n");
        else
            std::printf("refuses writes with errno %d (%s)\n", fault.error,
                        std::strerror(fault.error));
    }
    if (!any)
        std::printf("control faults: none\n");
}

// The card that has the named control: the one given, else the first card of the catalogue
// that has it.
std::optional<int> card_of(std::string_view name, std::optional<int> card)
{
    const Catalogue &catalogue = Catalogue::from_env();
    for (int each : catalogue.cards())
        if ((!card || *card == each) && catalogue.find(each, name) != nullptr)
            return each;
    return std::nullopt;
}

int control(std::span<char *const> args)
{
    std::optional<int> card;
    int error = EINVAL;
    std::vector<std::string_view> words;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg != "--card" && arg != "--errno") {
            words.push_back(arg);
            continue;
        }
        const std::optional<uint32_t> value =
            i + 1 < args.size() ? number(args[++i]) : std::nullopt;
        if (!value || (arg == "--errno" && (*value == 0 || *value >= 4096)))
            return usage("bad value of " + std::string(arg));
        if (arg == "--card")
            card = static_cast<int>(*value);
        else
            error = static_cast<int>(*value);
    }
    const std::string_view sub = words.empty() ? "" : words[0];
    const bool restore_all = sub == "restore" && words.size() == 1;
    if (!sub.empty() && sub != "remove" && sub != "refuse" && sub != "restore")
        return usage("unknown subcommand: " + std::string(sub));
    if (words.size() > 2 || (!sub.empty() && !restore_all && words.size() != 2))
        return usage(sub.empty() ? "unknown arguments" : std::string(sub) + " takes one NAME");

    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    Session session = state->lock();
    if (restore_all) {
        for (ControlFault &fault : session.control_faults())
            fault = ControlFault{};
    } else if (!sub.empty()) {
        const std::string_view name = words[1];
        const std::optional<int> found = card_of(name, card);
        if (!found)
            return usage("no such control: " + std::string(name));
        const ControlFaultKind kind = sub == "remove"   ? ControlFaultKind::missing
                                      : sub == "refuse" ? ControlFaultKind::refused
                                                        : ControlFaultKind::none;
        if (!session.set_control_fault(*found, name, kind, error)) {
            std::fprintf(stderr, "tvoxsim: at most %zu control faults at once\n",
                         kMaxControlFaults);
            return exit_failure;
        }
    }
    print_faults(session);
    return 0;
}

const Registration registration{
    {"control", kUsage,
     "show or set control faults: a control missing from its card, or refusing every write "
     "(errno EINVAL unless given); restore undoes them",
     control, "--card= --errno="}};

} // namespace

} // namespace tvox::sim::tool
